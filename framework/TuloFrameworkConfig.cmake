# Tulo::Framework, which workers are compiled against and linked with.
include(CMakeFindDependencyMacro)
find_dependency(Qt5 5.15 COMPONENTS Core)
include(${CMAKE_CURRENT_LIST_DIR}/TuloFrameworkTargets.cmake)
