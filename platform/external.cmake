# Somebody else's platform in place of ours: headers and shared objects as an installation has them, found below
# EBRIDGE_PLATFORM_PREFIX, or as CMake finds anything (CMAKE_PREFIX_PATH). Nothing that ours is built on is looked for.
list(PREPEND CMAKE_PREFIX_PATH ${EBRIDGE_PLATFORM_PREFIX})
set(required REQUIRED)

add_library(ebridge_platform_headers INTERFACE)
target_link_libraries(ebridge_platform_headers INTERFACE PkgConfig::PROTOBUF_C)
add_library(ebridge_platform INTERFACE)
set(EBRIDGE_PLATFORM_CFLAGS "")
set(EBRIDGE_PLATFORM_LIBS "")

# external_library(name header [called]): the library and its header. What an application calls itself goes into
# sw_bridge.pc.
function(external_library name header)
  find_library(EBRIDGE_PLATFORM_${name} ${name} ${required})
  find_path(EBRIDGE_PLATFORM_${name}_INCLUDE ${header} PATH_SUFFIXES sw_bridge ${required})
  if(NOT EBRIDGE_PLATFORM_${name} OR NOT EBRIDGE_PLATFORM_${name}_INCLUDE)
    return()
  endif()
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
# The library makes no call of these two. Programs do.
if(NOT EBRIDGE_PROGRAMS)
  set(required)
endif()
external_library(qz_thread qz_thread.h called)
external_library(ddm libddm.h)

set(EBRIDGE_PLATFORM_CFLAGS "${EBRIDGE_PLATFORM_CFLAGS}" PARENT_SCOPE)
set(EBRIDGE_PLATFORM_LIBS "${EBRIDGE_PLATFORM_LIBS}" PARENT_SCOPE)
