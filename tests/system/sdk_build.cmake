# The worker builds alone against an SDK: here the stand-in framework, installed
# into a prefix.
#
#   cmake -D SOURCE_DIR=... -D BUILD_DIR=... -D WORK_DIR=... -D GENERATOR=...
#         -D COMPILER=... -P sdk_build.cmake
include(${CMAKE_CURRENT_LIST_DIR}/plugin_checks.cmake)

file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/sdk)
set(configure ${CMAKE_COMMAND} -S ${SOURCE_DIR} -G ${GENERATOR}
    -D CMAKE_CXX_COMPILER=${COMPILER}
    -D CMAKE_BUILD_TYPE=Release
    -D TULO_WARNINGS_AS_ERRORS=ON
    -D TULO_SDK_ROOT=${prefix})

run(ignored ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix} --component framework)

run(ignored ${configure} -B ${WORK_DIR}/build -D TULO_SDK_LIBRARIES=tulo_framework)
run(ignored ${CMAKE_COMMAND} --build ${WORK_DIR}/build)
file(GLOB_RECURSE libraries ${WORK_DIR}/build/*.so)
list(LENGTH libraries count)
if(NOT count EQUAL 1)
    message(FATAL_ERROR "built against the SDK, there should be the worker alone: ${libraries}")
endif()
check_plugin(${libraries})

# A library that the SDK lacks is named.
execute_process(
    COMMAND ${configure} -B ${WORK_DIR}/missing -D "TULO_SDK_LIBRARIES=tulo_framework;tulo_absent"
    RESULT_VARIABLE result OUTPUT_QUIET ERROR_VARIABLE errors)
if(result EQUAL 0 OR NOT errors MATCHES "TULO_SDK_LIBRARIES names 'tulo_absent'")
    message(FATAL_ERROR "a missing SDK library should be named, instead: ${result}\n${errors}")
endif()
