# What we link needs no library that it does not use, and finds none in the current directory.
#
#   cmake -D PLUGIN=FILE -D FRAMEWORK=FILE -D PROGRAM=FILE -D SERVICE=FILE -D TESTING=FILE
#         -P needed_libraries.cmake
include(${CMAKE_CURRENT_LIST_DIR}/plugin_checks.cmake)

check_needed(${PLUGIN} libtulo_framework.so.0)
check_needed(${FRAMEWORK})
check_needed(${PROGRAM} libedit.so.2 libtulo_framework.so.0 libtulo-settings.so.0)

foreach(file IN ITEMS ${PLUGIN} ${FRAMEWORK} ${PROGRAM} ${SERVICE} ${TESTING})
    check_run_path(${file})
endforeach()
