# Compiler settings that every target of the project shares, and the helpers that make its targets.

# Log lines and assertions name sources from the project's root, whatever folder it is built in.
add_compile_options(-ffile-prefix-map=${CMAKE_SOURCE_DIR}/=)
# hiredis and others are built with 64-bit file offsets; mixing sizes breaks on 32-bit targets.
add_compile_definitions(_FILE_OFFSET_BITS=64)

if(EBRIDGE_SANITIZE)
  add_compile_options(-fsanitize=${EBRIDGE_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${EBRIDGE_SANITIZE})
  # Programs in C bring the sanitizer's part for C++, too: their libraries are in C++.
  add_link_options("$<$<LINK_LANG_AND_ID:C,Clang>:-fsanitize-link-c++-runtime;-lstdc++>")
endif()

# Our own code: warnings are errors. Generated code and the headers of dependencies are not ours to mend.
function(ebridge_own_code target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Werror -Wpedantic -Wshadow -Wcast-align -Wundef -Wvla -Wconversion -Wimplicit-fallthrough
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual -Wextra-semi>)
endfunction()

# One platform library: ebridge_platform_library(libname include-dir source...)
function(ebridge_platform_library name)
  add_library(${name} SHARED ${ARGN})
  ebridge_own_code(${name})
  target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/include PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/src)
  set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION 0)
  install(TARGETS ${name} LIBRARY COMPONENT ebridge-platform NAMELINK_COMPONENT libsw-bridge-dev)
  install(DIRECTORY include/ DESTINATION ${EBRIDGE_INSTALL_INCLUDEDIR} COMPONENT libsw-bridge-dev)
endfunction()
