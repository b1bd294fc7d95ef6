# cmake -D DIRECTORY=<of programs and libraries> -P RemoveRunPaths.cmake: takes the search paths for
# libraries out of them. What a build pads them with would be left otherwise, and means the
# directory that one is in.
file(GLOB files ${DIRECTORY}/bin/* ${DIRECTORY}/lib/*.so.0)
foreach(file IN LISTS files)
  if(NOT IS_DIRECTORY ${file})
    file(RPATH_REMOVE FILE ${file})
  endif()
endforeach()
