# The Debian packages, made by `cpack` from the installed components (packaging/build.sh): one row each, and what all
# share. dpkg-shlibdeps finds what a package needs of the distribution; what they need of each other is said here.
execute_process(COMMAND dpkg-architecture --host-type ${CMAKE_LIBRARY_ARCHITECTURE} --query DEB_HOST_ARCH
  OUTPUT_VARIABLE EBRIDGE_DEBIAN_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET COMMAND_ERROR_IS_FATAL ANY)
set(EBRIDGE_DEBIAN_ARCHITECTURE ${EBRIDGE_DEBIAN_ARCHITECTURE} PARENT_SCOPE)  # tests/package/

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${EBRIDGE_DEBIAN_ARCHITECTURE})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Seed 52fc3dca maintainers <maintainers@users.noreply.c-seed-52fc3dca.example>")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY >=)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_STRIP_FILES ON)
# With DESTDIR the prefix is the one that the files will have, which the unit is told while it is installed.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_BINARY_DIR}/architecture.cmake)
file(WRITE ${CPACK_PROJECT_CONFIG_FILE}
  "# Whose libraries dpkg-shlibdeps looks at.\nset(ENV{DEB_HOST_ARCH} ${EBRIDGE_DEBIAN_ARCHITECTURE})\n")

# The loader's cache follows by a trigger. CPack would write scripts that do the same once more, unless there are some.
set(library ${CMAKE_CURRENT_BINARY_DIR}/library)
file(WRITE ${library}/triggers "activate-noawait ldconfig\n")
foreach(script IN ITEMS postinst postrm)
  file(WRITE ${library}/${script}
    "#!/bin/sh\n# Nothing to do: the trigger of this package has the loader's cache renewed.\nset -e\n")
endforeach()

# Manual pages are compressed in packages, and nowhere else.
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/compress.cmake)

# debian_package(name section depends summary text)
set(CPACK_COMPONENTS_ALL)
macro(debian_package name section depends summary text)
  list(APPEND CPACK_COMPONENTS_ALL ${name})
  string(TOUPPER ${name} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${depends}")
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${summary}\n${text}")
  if(${section} STREQUAL libs)
    set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA ${library}/triggers ${library}/postinst ${library}/postrm)
  endif()
  # What programs link with stands in folders of its architecture, beside that of another one. CPack knows the field by no
  # name before its version 3.31: the value of the one before brings it along.
  if(${section} MATCHES "^lib")
    set(CPACK_DEBIAN_${upper}_PACKAGE_PRIORITY "optional\nMulti-Arch: same")
  endif()
endmacro()

set(version ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})
debian_package(libsw-bridge1 libs "ebridge-platform (>= ${PROJECT_VERSION})"
  "bridge ids for the applications of a modular switch"
  "An application registers under a name, asks for an id for a VLAN, a VXLAN
segment or another bridge domain, gets it from one allocator for the whole
switch, and hears what others have obtained and released.")
debian_package(ebridge-platform libs ""
  "platform libraries of the extended bridge"
  "Store client, thread master, log, debug shell, congestion control and port
table. On a switch the libraries of the same names that belong to it take the
place of this package.")
debian_package(libebridged0 libs "libsw-bridge1 (>= ${PROJECT_VERSION}), ebridge-platform (>= ${PROJECT_VERSION})"
  "allocator of bridge ids inside of a process"
  "For programs on the embedded store, which one process has for itself.")
debian_package(libsw-bridge-dev libdevel
  "libsw-bridge1 (= ${version}), ebridge-platform (= ${version}), libebridged0 (= ${version}), libprotobuf-c-dev"
  "bridge ids for the applications of a modular switch - development"
  "Headers, pkg-config and CMake package files, and a first program.")
debian_package(ebridge net
  "libsw-bridge1 (>= ${PROJECT_VERSION}), ebridge-platform (>= ${PROJECT_VERSION}), libebridged0 (>= ${PROJECT_VERSION})"
  "tries out and looks into the extended bridge"
  "Brings up the VLANs and VXLAN maps of a switch configuration and reads
everything back.")
debian_package(ebridged net "libsw-bridge1 (>= ${PROJECT_VERSION}), ebridge-platform (>= ${PROJECT_VERSION})"
  "allocator of bridge ids"
  "The service that answers the requests of a switch's applications, on a Redis
server. It is neither enabled nor started by the installation: its store is
named in /etc/default/ebridged.")
set(CPACK_DEBIAN_EBRIDGED_PACKAGE_SUGGESTS "redis-server (>= 5:7.0)")
set(scripts ${CMAKE_CURRENT_LIST_DIR}/debian)
set(CPACK_DEBIAN_EBRIDGED_PACKAGE_CONTROL_EXTRA ${scripts}/postinst ${scripts}/prerm ${scripts}/postrm)

include(CPack)
