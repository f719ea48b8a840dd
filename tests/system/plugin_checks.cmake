# What a device relies on in the built files, read from them.
cmake_minimum_required(VERSION 3.25)

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

# Fails when a program or library needs another one than these and those of every one of ours.
function(check_needed file)
    set(known ${ARGN}
        libQt5Core.so.5 liblog4cplus-2.0.so.3 libstdc++.so.6 libm.so.6 libgcc_s.so.1 libc.so.6)
    run(dynamic readelf --dynamic --wide ${file})
    string(REGEX MATCHALL "\\(NEEDED\\)[^\n]*" entries "${dynamic}")
    if(entries STREQUAL "")
        message(FATAL_ERROR "${file}: needs no library at all?\n${dynamic}")
    endif()
    foreach(entry IN LISTS entries)
        string(REGEX REPLACE ".*\\[(.*)\\]$" "\\1" library "${entry}")
        if(NOT library IN_LIST known)
            message(FATAL_ERROR "${file}: needs ${library}, which is not among ${known}")
        endif()
    endforeach()
endfunction()

# Fails when a place where libraries are looked for is relative; an empty one is the current directory.
function(check_run_path file)
    run(dynamic readelf --dynamic --wide ${file})
    string(REGEX MATCH "\\(R(UN)?PATH\\)[^\n]*" entry "${dynamic}")
    string(REGEX REPLACE ".*\\[(.*)\\]$" "\\1" places "${entry}")
    if(entry AND NOT places MATCHES "^[$/][^:]*(:[$/][^:]*)*$")
        message(FATAL_ERROR "${file}: looks for libraries in '${places}'")
    endif()
endfunction()
