# What is installed, and where.
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
foreach(program installer_check installer_preview)
  if(TARGET ${program})
    install(TARGETS ${program})
  endif()
endforeach()
install(PROGRAMS "${tools}/installer-pack" "${tools}/installer-new" TYPE BIN)
install(FILES "${tools}/run-stub.sh" DESTINATION "${shared}")
install(DIRECTORY examples/hello DESTINATION "${shared}")
if(EXISTS "${PROJECT_SOURCE_DIR}/deploy/ansible")
  install(DIRECTORY deploy/ansible DESTINATION "${shared}")
endif()
foreach(section 1 5 7)
  file(GLOB pages CONFIGURE_DEPENDS man/*.${section})
  install(FILES ${pages} DESTINATION "${CMAKE_INSTALL_MANDIR}/man${section}")
endforeach()
install(FILES README.md ARCHITECTURE.md CONTRIBUTING.md TYPE DOC)
install(DIRECTORY examples/demo DESTINATION "${CMAKE_INSTALL_DOCDIR}/examples")
