# Writes the unit that migrates for another framework, for the prefix that is installed to. Part of
# the installation's script, which sets source and the folders.
foreach(folder IN ITEMS bindir docdir)
    cmake_path(ABSOLUTE_PATH ${folder} BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}" NORMALIZE)
endforeach()

set(unit "${CMAKE_INSTALL_PREFIX}/lib/systemd/system/tulo-settings-migrate.service")
message(STATUS "Installing: $ENV{DESTDIR}${unit}")
configure_file(${source}/tulo-settings-migrate.service.in "$ENV{DESTDIR}${unit}" @ONLY
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${unit}")
