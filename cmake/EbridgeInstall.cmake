# Where things go when the project is installed.
#
# A component is a Debian package of that name (packaging/CMakeLists.txt): what is installed names the one that it belongs
# to.

# On Debian every library folder is that of one architecture, under each prefix and for cross builds, too.
if(EXISTS /etc/debian_version AND CMAKE_LIBRARY_ARCHITECTURE)
  set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE STRING "Folder of the libraries")
endif()
include(GNUInstallDirs)

# The library's headers, the platform's and the records' include each other by their names alone: one folder for all.
set(EBRIDGE_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/sw_bridge)
