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
    -D TULO_WARNINGS_AS_ERRORS=ON)

run(ignored ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix} --component framework)

# Builds the worker against the SDK of `sdk`, in the folder `name`.
function(build_worker name sdk libraries)
    set(folder ${WORK_DIR}/${name})
    # One argument, through one more call.
    string(REPLACE ";" "\\;" libraries "${libraries}")
    run(ignored ${configure} -B ${folder}
        -D TULO_SDK_ROOT=${sdk} -D "TULO_SDK_LIBRARIES=${libraries}")
    run(ignored ${CMAKE_COMMAND} --build ${folder})
    file(GLOB_RECURSE built ${folder}/*.so)
    list(LENGTH built count)
    if(NOT count EQUAL 1)
        message(FATAL_ERROR "built against the SDK, there should be the worker alone: ${built}")
    endif()
    check_plugin(${built})
    # Not what the SDK's own libraries need.
    check_needed(${built} libtulo_framework.so.0 libtulo_by_value.so)
endfunction()

build_worker(build ${prefix} tulo_framework)

# An SDK may return by value what ours gives by reference, and may not know how to move a value
# into a reply. The worker compiles against such headers, too, and links with what they name.
set(foreign ${WORK_DIR}/by_value)
file(INSTALL ${SOURCE_DIR}/framework/src DESTINATION ${foreign})
foreach(unit IN ITEMS cmpath cmreply cmrequest)
    foreach(file IN ITEMS ${unit}.h ${unit}.cpp)
        set(file ${foreign}/src/api/core/model/${file})
        file(READ ${file} ours)
        set(changed "${ours}")
        string(REGEX REPLACE "\n[^\n]*const&&[^\n]*" "" changed "${changed}")
        string(REGEX REPLACE "\n *void setValue\\(T&&[^\n]*" "" changed "${changed}")
        string(REGEX REPLACE "const ([A-Za-z:]+)& ([A-Za-z:]+\\(\\) const)&" "\\1 \\2" changed
            "${changed}")
        if(changed STREQUAL ours AND NOT file MATCHES "cmreply.cpp$")
            message(FATAL_ERROR "${file}: has no signature that an SDK may have otherwise")
        endif()
        if(changed MATCHES "const&|T&&")
            message(FATAL_ERROR "${file}: still has signatures of ours:\n${changed}")
        endif()
        file(WRITE ${file} "${changed}")
    endforeach()
endforeach()
file(WRITE ${foreign}/CMakeLists.txt [[
cmake_minimum_required(VERSION 3.25)
project(by_value LANGUAGES CXX)
set(CMAKE_CXX_STANDARD 17)
find_package(Qt5 5.15 REQUIRED COMPONENTS Core)
set(model src/api/core/model)
add_library(tulo_by_value SHARED ${model}/cmpath.cpp ${model}/cmreply.cpp ${model}/cmrequest.cpp)
target_include_directories(tulo_by_value PRIVATE src)
target_link_libraries(tulo_by_value PRIVATE Qt5::Core)
]])
run(ignored ${CMAKE_COMMAND} -S ${foreign} -G ${GENERATOR} -B ${foreign}/lib
    -D CMAKE_CXX_COMPILER=${COMPILER})
run(ignored ${CMAKE_COMMAND} --build ${foreign}/lib)
# The units that are the same come from our library.
file(GLOB_RECURSE framework ${prefix}/libtulo_framework.so)
build_worker(build_by_value ${foreign} "tulo_by_value;${framework}")

# A library that the SDK lacks is named.
execute_process(
    COMMAND ${configure} -B ${WORK_DIR}/missing -D TULO_SDK_ROOT=${prefix}
        -D "TULO_SDK_LIBRARIES=tulo_framework;tulo_absent"
    RESULT_VARIABLE result OUTPUT_QUIET ERROR_VARIABLE errors)
if(result EQUAL 0 OR NOT errors MATCHES "TULO_SDK_LIBRARIES names 'tulo_absent'")
    message(FATAL_ERROR "a missing SDK library should be named, instead: ${result}\n${errors}")
endif()
