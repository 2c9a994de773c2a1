option(INSTALLER_SANITIZE "Build with the address and undefined-behaviour sanitizers" OFF)

if(INSTALLER_SANITIZE OR INSTALLER_FUZZ)
  set(INSTALLER_SANITIZE ON)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  # gcc sees uninitialised values in the instrumented code of the library's own headers.
  add_compile_options("$<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>")
  add_compile_definitions(_GLIBCXX_ASSERTIONS)
  add_link_options(-fsanitize=address,undefined)
endif()
if(INSTALLER_FUZZ)
  # The modules too are measured, or the fuzzer would be blind in them.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
