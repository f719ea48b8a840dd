# No installed file names the folder of the sources or of the build, and a library is looked for beside
# a program and nowhere else.
#
#   cmake -D SOURCE_DIR=DIR -D BUILD_DIR=DIR -D WORK_DIR=DIR -D CONTROL=FILE -P installed_paths.cmake
#
# CONTROL is a built file that names the folder of the sources.
include(${CMAKE_CURRENT_LIST_DIR}/plugin_checks.cmake)

set(search grep --recursive --text --files-with-matches --fixed-strings
    -e ${SOURCE_DIR} -e ${BUILD_DIR})
run(found ${search} ${CONTROL})

file(REMOVE_RECURSE ${WORK_DIR})
set(ENV{DESTDIR} ${WORK_DIR})
run(ignored ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix /usr)
execute_process(COMMAND ${search} ${WORK_DIR} RESULT_VARIABLE result OUTPUT_VARIABLE found)
# 1: nothing is found.
if(NOT result EQUAL 1)
    message(FATAL_ERROR "These name the place where they were built:\n${found}")
endif()

set(checked 0)
file(GLOB_RECURSE files ${WORK_DIR}/usr/bin/* ${WORK_DIR}/usr/*.so ${WORK_DIR}/usr/*.so.*)
foreach(file IN LISTS files)
    run(dynamic readelf --dynamic --wide ${file})
    string(REGEX MATCHALL "Library r[a-z]*path: [^\n]*" paths "${dynamic}")
    if(NOT paths MATCHES "^(Library runpath: \\[\\$ORIGIN[/.a-z0-9_-]*\\])?$")
        message(FATAL_ERROR "${file}: ${paths}")
    endif()
    math(EXPR checked "${checked} + 1")
endforeach()
if(checked LESS 5)
    message(FATAL_ERROR "Only ${checked} programs and libraries were installed: ${files}")
endif()
file(REMOVE_RECURSE ${WORK_DIR})
