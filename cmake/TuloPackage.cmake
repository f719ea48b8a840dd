# tulo_install_package(NAME PC COMPONENT)
#
# Installs what finds the libraries of the export set NAME: a CMake package with NAMEConfig.cmake,
# and PC.pc made of PC.pc.in, both of the current folder.
include(CMakePackageConfigHelpers)

function(tulo_install_package name pc component)
    set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/${name})
    install(EXPORT ${name} NAMESPACE Tulo:: FILE ${name}Targets.cmake
        DESTINATION ${package_dir} COMPONENT ${component})
    write_basic_package_version_file(${name}ConfigVersion.cmake COMPATIBILITY SameMinorVersion)
    install(FILES
        ${name}Config.cmake
        ${CMAKE_CURRENT_BINARY_DIR}/${name}ConfigVersion.cmake
        DESTINATION ${package_dir} COMPONENT ${component})

    # Where the prefix is, as seen from the file: it may be given as late as when it is installed.
    set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
    file(RELATIVE_PATH prefix_place /${pkgconfig_dir} /)
    configure_file(${pc}.pc.in ${pc}.pc @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${pc}.pc
        DESTINATION ${pkgconfig_dir} COMPONENT ${component})
endfunction()
