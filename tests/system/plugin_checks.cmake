# What a device relies on in the built plug-in, read from the file itself.

# Runs a command and gives its output; one that fails ends the test.
function(run output)
    execute_process(COMMAND ${ARGN}
        RESULT_VARIABLE result OUTPUT_VARIABLE text ERROR_VARIABLE errors)
    if(NOT result EQUAL 0)
        list(JOIN ARGN " " command)
        message(FATAL_ERROR "${command}: ${result}\n${text}${errors}")
    endif()
    set(${output} "${text}" PARENT_SCOPE)
endfunction()

function(check_plugin file)
    run(dynamic readelf --dynamic --wide ${file})
    string(REGEX MATCHALL "\\(SONAME\\)[^\n]*" soname "${dynamic}")
    if(NOT soname MATCHES "\\[libtulo_cb_settings\\.so\\]$")
        message(FATAL_ERROR "${file}: the soname is '${soname}'")
    endif()

    run(symbols nm --dynamic --defined-only --format=just-symbols ${file})
    string(STRIP "${symbols}" symbols)
    if(NOT symbols STREQUAL "worker_create")
        message(FATAL_ERROR "${file}: exports\n${symbols}\nand not just worker_create")
    endif()
endfunction()
