# Run by CPack when files are where they will be packed from: policy wants manual pages compressed.
file(GLOB_RECURSE pages ${CPACK_TEMPORARY_DIRECTORY}/*.[1-9])
list(FILTER pages INCLUDE REGEX "/share/man/man[1-9]/")
find_program(GZIP gzip REQUIRED)
foreach(page IN LISTS pages)
  execute_process(COMMAND ${GZIP} -9n ${page} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
