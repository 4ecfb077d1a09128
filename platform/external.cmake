# Somebody else's platform in place of ours: headers and shared objects as an installation has them, found below
# EBRIDGE_PLATFORM_PREFIX and nowhere else, or without one as CMake finds anything (CMAKE_PREFIX_PATH). Nothing that ours
# is built on is looked for.
set(where)
if(EBRIDGE_PLATFORM_PREFIX)
  set(where PATHS ${EBRIDGE_PLATFORM_PREFIX} NO_DEFAULT_PATH)
endif()

# What was found below another prefix is not what is asked for now.
set(renewed FALSE)
if(DEFINED EBRIDGE_PLATFORM_LAST_PREFIX AND NOT EBRIDGE_PLATFORM_LAST_PREFIX STREQUAL "${EBRIDGE_PLATFORM_PREFIX}")
  set(renewed TRUE)
endif()
set(EBRIDGE_PLATFORM_LAST_PREFIX "${EBRIDGE_PLATFORM_PREFIX}" CACHE INTERNAL "Where the platform was looked for last")

add_library(ebridge_platform_headers INTERFACE)
target_link_libraries(ebridge_platform_headers INTERFACE PkgConfig::PROTOBUF_C)
add_library(ebridge_platform INTERFACE)
set(EBRIDGE_PLATFORM_CFLAGS "")
set(EBRIDGE_PLATFORM_LIBS "")

# external_library(name header [called]): the library and its header. What an application calls itself goes into
# sw_bridge.pc.
function(external_library name header)
  if(renewed)
    unset(EBRIDGE_PLATFORM_${name} CACHE)
    unset(EBRIDGE_PLATFORM_${name}_INCLUDE CACHE)
  endif()
  find_library(EBRIDGE_PLATFORM_${name} ${name} ${where} PATH_SUFFIXES lib/${CMAKE_LIBRARY_ARCHITECTURE} lib REQUIRED)
  find_path(EBRIDGE_PLATFORM_${name}_INCLUDE ${header} ${where} PATH_SUFFIXES include sw_bridge include/sw_bridge
    REQUIRED)
  target_include_directories(ebridge_platform_headers SYSTEM INTERFACE ${EBRIDGE_PLATFORM_${name}_INCLUDE})
  target_link_libraries(ebridge_platform INTERFACE ${EBRIDGE_PLATFORM_${name}})
  if(called IN_LIST ARGN)
    cmake_path(GET EBRIDGE_PLATFORM_${name} PARENT_PATH folder)
    string(APPEND EBRIDGE_PLATFORM_CFLAGS " -I${EBRIDGE_PLATFORM_${name}_INCLUDE}")
    string(APPEND EBRIDGE_PLATFORM_LIBS " -L${folder} -Wl,-rpath-link,${folder} -l${name}")
    set(EBRIDGE_PLATFORM_CFLAGS "${EBRIDGE_PLATFORM_CFLAGS}" PARENT_SCOPE)
    set(EBRIDGE_PLATFORM_LIBS "${EBRIDGE_PLATFORM_LIBS}" PARENT_SCOPE)
  endif()
endfunction()

external_library(qz_mom_impl qz_mom.h called)
external_library(qz_zlog qz_zlog.h)
external_library(ssat ssat.h)
external_library(cgstctrl libcgstctrl.h)
external_library(qz_thread qz_thread.h called)
external_library(ddm libddm.h)

set(EBRIDGE_PLATFORM_CFLAGS "${EBRIDGE_PLATFORM_CFLAGS}" PARENT_SCOPE)
set(EBRIDGE_PLATFORM_LIBS "${EBRIDGE_PLATFORM_LIBS}" PARENT_SCOPE)
