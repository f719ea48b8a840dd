# ./run alone, not on a terminal, shows a few commands and what they print.
#
#   cmake -D SOURCE_DIR=... -D WORK_DIR=... -P run_tour.cmake
execute_process(COMMAND ${SOURCE_DIR}/run
    INPUT_FILE /dev/null
    RESULT_VARIABLE result OUTPUT_VARIABLE text ERROR_VARIABLE errors)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "./run: ${result}\n${text}${errors}")
endif()
string(REGEX MATCHALL "(^|\n)[$] tulo-cm [^\n]+\n[^\n$]" answers "${text}")
string(REGEX MATCHALL "[$] tulo-cm" commands "${text}")
list(LENGTH answers answered)
list(LENGTH commands given)
if(given LESS 3 OR NOT answered EQUAL given)
    message(FATAL_ERROR "./run: ${given} commands with ${answered} answers:\n${text}")
endif()

# Arguments and the exit code pass through, also through a link: no such setting, one directory
# alone.
file(MAKE_DIRECTORY ${WORK_DIR})
file(CREATE_LINK ${SOURCE_DIR}/run ${WORK_DIR}/link SYMBOLIC)
foreach(case IN ITEMS "3;get;/settings/no/such/setting" "2;--write-path;/tmp;get;/settings/x")
    list(POP_FRONT case expected)
    execute_process(COMMAND ${WORK_DIR}/link ${case}
        INPUT_FILE /dev/null
        RESULT_VARIABLE result OUTPUT_VARIABLE text ERROR_VARIABLE errors)
    if(NOT result EQUAL expected OR errors STREQUAL "")
        list(JOIN case " " arguments)
        message(FATAL_ERROR "./run ${arguments}: ${result}, not ${expected}\n${text}${errors}")
    endif()
endforeach()
