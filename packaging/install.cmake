# Writes the unit for the prefix that is installed to, and names the commands that are missing where
# the bus and the service manager do not look below that prefix. Part of the installation's script,
# which sets source and the folders.
foreach(folder IN ITEMS bindir datadir docdir)
    cmake_path(ABSOLUTE_PATH ${folder} BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}" NORMALIZE)
endforeach()

set(unit "${CMAKE_INSTALL_PREFIX}/lib/systemd/system/tulo-settingsd.service")
message(STATUS "Installing: $ENV{DESTDIR}${unit}")
configure_file(${source}/tulo-settingsd.service.in "$ENV{DESTDIR}${unit}" @ONLY
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${unit}")

# Folders as in Debian's system.conf, dbus-daemon(1) and systemd.unit(5).
set(commands "")
if(NOT datadir STREQUAL "/usr/share")
    string(APPEND commands "\n    install -D -m 644 -t /etc/dbus-1/system.d"
        " ${datadir}/dbus-1/system.d/org.tulo.ConfigurationManager1.conf")
endif()
if(NOT datadir MATCHES "^/usr/(local/)?share$")
    string(APPEND commands "\n    install -D -m 644 -t /usr/local/share/dbus-1/system-services"
        " ${datadir}/dbus-1/system-services/org.tulo.ConfigurationManager1.service")
endif()
if(NOT CMAKE_INSTALL_PREFIX MATCHES "^/usr(/local)?$")
    string(APPEND commands
        "\n    systemd-sysusers ${CMAKE_INSTALL_PREFIX}/lib/sysusers.d/tulo-settingsd.conf"
        "\n    systemd-tmpfiles --create ${CMAKE_INSTALL_PREFIX}/lib/tmpfiles.d/tulo-settingsd.conf"
        "\n    systemctl link ${unit}")
endif()
if(commands)
    message("The service cannot start from this prefix before root has run:${commands}")
endif()
