# Has a fuzz target search for new inputs, after it has run those of its corpus, and fails when it
# finds something. Where the time that ARGUMENTs allow was too short for as many inputs as it must
# run, as on a busy machine, it searches again, by their number.
#
#   cmake -D FLOOR=<inputs> -P search.cmake -- TARGET ARGUMENT...
cmake_minimum_required(VERSION 3.25)
set(command)
foreach(index RANGE ${CMAKE_ARGC})
    if(DEFINED command_begins)
        list(APPEND command "${CMAKE_ARGV${index}}")
    elseif("${CMAKE_ARGV${index}}" STREQUAL "--")
        set(command_begins TRUE)
    endif()
endforeach()

macro(search)
    execute_process(COMMAND ${command} ${ARGN}
        RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    string(REGEX MATCH "stat::number_of_executed_units: *([0-9]+)" ignored "${output}")
    set(inputs "${CMAKE_MATCH_1}")
    if(NOT result STREQUAL 0 OR NOT inputs)
        message(FATAL_ERROR "${result}\n${output}")
    endif()
endmacro()

search()
if(inputs LESS FLOOR)
    search(-max_total_time=0 -runs=${FLOOR})
endif()
list(GET command 0 target)
cmake_path(GET target FILENAME target)
if(inputs LESS FLOOR)
    message(FATAL_ERROR "${target} ran ${inputs} inputs, fewer than ${FLOOR}")
endif()
message("searched: ${target} ran ${inputs} inputs, at least ${FLOOR} wanted")
