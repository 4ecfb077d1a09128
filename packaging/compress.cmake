# Run by CPack before it makes packages of what it has installed.
file(GLOB_RECURSE pages ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/*.[1-8])
if(NOT pages)
  message(FATAL_ERROR "no manual pages below ${CPACK_TEMPORARY_DIRECTORY}")
endif()
execute_process(COMMAND gzip -9n ${pages} COMMAND_ERROR_IS_FATAL ANY)
