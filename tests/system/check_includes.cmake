# scripts/check-includes says nothing of a tree whose includes keep the rules, and names the place of
# each one that breaks them.
#
#   cmake -D SOURCE_DIR=... -D WORK_DIR=... -P check_includes.cmake

set(tree ${WORK_DIR}/tree)

function(check expected_result expected_output)
    execute_process(COMMAND ${SOURCE_DIR}/scripts/check-includes ${tree}
        RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE error)
    if(NOT result EQUAL expected_result OR NOT output STREQUAL expected_output
            OR NOT error STREQUAL "")
        message(FATAL_ERROR "expected ${expected_result}:\n${expected_output}"
            "got ${result}:\n${output}${error}")
    endif()
endfunction()

# check_planted(FILE INCLUDE MESSAGE): the same tree with one more file, which breaks a rule.
function(check_planted file include message)
    file(WRITE ${tree}/${file} "#pragma once\n\n#include <QString>\n#  include ${include}\n")
    check(1 "${file}:4: includes ${message}\n")
    file(REMOVE ${tree}/${file})
endfunction()

file(REMOVE_RECURSE ${tree})
file(MAKE_DIRECTORY ${tree})
check(1 "scripts/check-includes: no source file includes anything in ${tree}\n")

file(WRITE ${tree}/src/modules/settings/worker.h "#include \"api/core/value.h\"\n")
file(WRITE ${tree}/src/modules/settings/worker.cpp "#include \"worker.h\"\n")
file(WRITE ${tree}/framework/src/api/core/value.h "#include <QString>\n")
file(WRITE ${tree}/framework/src/api/core/value.cpp "#include \"api/core/value.h\"\n")
file(WRITE ${tree}/client/base/tulo/settings.h "#include <QString>\n")
file(WRITE ${tree}/client/wire/codec.h "#include \"tulo/settings.h\"\n")
file(WRITE ${tree}/client/remote/remote.h "#include \"wire/codec.h\"\n#include <tulo/settings.h>\n")
file(WRITE ${tree}/trees/check.h "#include <tulo/settings.h>\n#include \"api/core/value.h\"\n")
file(WRITE ${tree}/engine/engine.h "#include \"trees/check.h\"\n#include \"remote/remote.h\"\n")
file(WRITE ${tree}/editor/window.h "#include <tulo/settings.h>\n// #include \"trees/check.h\"\n")
file(WRITE ${tree}/tests/tst_engine.cpp "#include \"engine/engine.h\"\n#include \"worker.h\"\n")
check(0 "")

check_planted(framework/src/api/core/a.h "\"trees/check.h\""
    "trees/check.h: framework may include:")
check_planted(src/modules/settings/a.h "\"engine/engine.h\""
    "engine/engine.h: src/modules/settings may include: framework")
check_planted(client/base/a.cpp "\"wire/codec.h\""
    "client/wire/codec.h: client/base may include:")
check_planted(client/wire/a.cpp "\"remote/remote.h\""
    "client/remote/remote.h: client/wire may include: client/base")
check_planted(client/remote/a.h "\"api/core/value.h\""
    "framework/src/api/core/value.h: client may include: client/base client/wire")
check_planted(trees/a.h "\"engine/engine.h\""
    "engine/engine.h: trees may include: framework client/base")
check_planted(trees/a.h "<remote/remote.h>"
    "client/remote/remote.h: trees may include: framework client/base")
check_planted(engine/a.h "\"worker.h\""
    "src/modules/settings/worker.h: engine may include: framework trees client client/base")
check_planted(editor/sub/a.h "\"../../trees/check.h\""
    "trees/check.h: editor may include: client client/base")

# As many lines as includes that break a rule.
file(WRITE ${tree}/trees/a.h "#include \"engine/engine.h\"\n#include \"worker.h\"\n")
check(1 "trees/a.h:1: includes engine/engine.h: trees may include: framework client/base
trees/a.h:2: includes src/modules/settings/worker.h: trees may include: framework client/base\n")
