# What is installed, where, and the packages that cpack makes of it: a Debian package and a tar.gz.
#
# The program for products lies in lib/installer/, not in bin/: nobody runs it from there, for
# installer-new copies it into a product's folder under another name. As a command it would look
# for a product's files in whatever directory root happens to be in.
set(CMAKE_INSTALL_DOCDIR "${CMAKE_INSTALL_DATADIR}/doc/installer-tools")
set(shared "${CMAKE_INSTALL_DATADIR}/installer-tools")
set(tools "${PROJECT_SOURCE_DIR}/tools")

# The scripts find what they need beside themselves, so they run in the build directory as well.
foreach(script installer-pack installer-new run-stub.sh)
  configure_file("${tools}/${script}" "${PROJECT_BINARY_DIR}/${script}" COPYONLY)
endforeach()
file(GLOB_RECURSE example CONFIGURE_DEPENDS RELATIVE "${PROJECT_SOURCE_DIR}/examples"
     "${PROJECT_SOURCE_DIR}/examples/hello/*")
foreach(file ${example})
  configure_file("examples/${file}" "${PROJECT_BINARY_DIR}/${file}" COPYONLY)
endforeach()

install(TARGETS installer DESTINATION lib/installer)
foreach(program installer_check installer-preview)
  if(TARGET ${program})
    install(TARGETS ${program})
  endif()
endforeach()
install(PROGRAMS "${tools}/installer-pack" "${tools}/installer-new" TYPE BIN)
install(FILES "${tools}/run-stub.sh" DESTINATION "${shared}")
install(DIRECTORY examples/hello DESTINATION "${shared}")
if(EXISTS "${PROJECT_SOURCE_DIR}/deploy/ansible")
  install(DIRECTORY deploy/ansible DESTINATION "${shared}" PATTERN .gitignore EXCLUDE)
endif()
# bash looks for a file that is called like the command.
foreach(command installer-check installer-new installer-pack installer-preview)
  install(FILES "${tools}/completion.bash" RENAME ${command}
          DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions")
endforeach()
foreach(section 1 5 7)
  file(GLOB pages CONFIGURE_DEPENDS man/*.${section})
  install(FILES ${pages} DESTINATION "${CMAKE_INSTALL_MANDIR}/man${section}")
endforeach()
install(FILES README.md ARCHITECTURE.md CONTRIBUTING.md packaging/copyright TYPE DOC)
install(FILES packaging/changelog TYPE DOC)
install(DIRECTORY examples/demo DESTINATION "${CMAKE_INSTALL_DOCDIR}/examples")

set(CPACK_GENERATOR DEB TGZ)
set(CPACK_PACKAGE_NAME installer-tools)
set(CPACK_PACKAGE_VENDOR "installer maintainers")
set(CPACK_PACKAGE_CONTACT "installer maintainers <maintainers@installer.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "tools for products that install themselves from text files")
set(CPACK_PACKAGE_DESCRIPTION
"A product is shipped as a folder: its files, a small program that is the same
for every product, and text files that say what to ask the operator and what to
copy, create, change and remove. This package has what a packager needs: the
program, a new product to start from (installer-new), and one self-extracting
file of a finished one (installer-pack).")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS makeself)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS "${PROJECT_SOURCE_DIR}/cmake/CompressDocuments.cmake")
include(CPack)
