# Tulo::Settings, the client library, and Tulo::SettingsTesting for programs' tests.
include(CMakeFindDependencyMacro)
find_dependency(Qt5 5.15 COMPONENTS Core)
include(${CMAKE_CURRENT_LIST_DIR}/TuloSettingsTargets.cmake)
