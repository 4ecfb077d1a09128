# Where things go when the project is installed.
#
# A component is a Debian package of that name (packaging/CMakeLists.txt): what is installed names the one that it belongs
# to.

# On Debian every library folder is that of one architecture, under each prefix and for cross builds, too.
# A build folder that was made before has the plain name of old.
if(EXISTS /etc/debian_version AND CMAKE_LIBRARY_ARCHITECTURE)
  if(DEFINED CACHE{_GNUInstallDirs_LAST_CMAKE_INSTALL_PREFIX} AND NOT EBRIDGE_LIBDIR_OF_ARCHITECTURE)
    unset(CMAKE_INSTALL_LIBDIR CACHE)
  endif()
  set(EBRIDGE_LIBDIR_OF_ARCHITECTURE ON CACHE INTERNAL "The folder of libraries is no longer GNUInstallDirs' own")
  set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE STRING "Folder of the libraries")
endif()
include(GNUInstallDirs)

# The library's headers, the platform's and the records' include each other by their names alone: one folder for all.
set(EBRIDGE_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/sw_bridge)
