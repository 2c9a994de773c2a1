option(INSTALLER_WERROR "Treat warnings as errors" OFF)

add_compile_options(
  -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wformat=2 -Wold-style-cast
  -Wcast-qual -Wnull-dereference -Wextra-semi
  "$<$<CXX_COMPILER_ID:GNU>:-Wduplicated-cond;-Wlogical-op>")
if(INSTALLER_WERROR)
  add_compile_options(-Werror)
endif()
