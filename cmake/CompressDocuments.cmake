# Packages hold their pages and their changelog compressed, with nothing of the moment in them.
foreach(prefix usr/share share)
  set(share "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${prefix}")
  file(GLOB documents "${share}/man/man?/*.?" "${share}/doc/installer-tools/changelog")
  if(documents)
    execute_process(COMMAND gzip -9n ${documents} COMMAND_ERROR_IS_FATAL ANY)
  endif()
endforeach()
