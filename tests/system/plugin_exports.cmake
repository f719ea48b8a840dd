# The shipped plug-in has its name and exports worker_create, nothing else.
#
#   cmake -D PLUGIN=FILE -P plugin_exports.cmake
include(${CMAKE_CURRENT_LIST_DIR}/plugin_checks.cmake)

check_plugin(${PLUGIN})
