# The program runs as root on hosts that nobody has seen: hardened, and in need of libc alone.
set(optimised "$<CONFIG:Release,RelWithDebInfo,MinSizeRel>")
add_compile_options(-fPIE -fstack-protector-strong)
add_link_options(-pie -Wl,-z,relro,-z,now)
if(NOT INSTALLER_SANITIZE) # whose checks see less behind the fortified calls
  add_compile_options("$<${optimised}:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
endif()

add_compile_options("$<$<CONFIG:Release>:-ffunction-sections;-fdata-sections>")
add_link_options("$<$<CONFIG:Release>:-Wl,--gc-sections>")
include(CheckIPOSupported)
check_ipo_supported(RESULT lto_works OUTPUT lto_trouble LANGUAGES CXX)
if(lto_works)
  set(CMAKE_INTERPROCEDURAL_OPTIMIZATION_RELEASE ON)
  # Two types of one name are only seen where all of the program is linked at once.
  if(INSTALLER_WERROR AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_link_options("$<$<CONFIG:Release>:-Werror=odr>")
  endif()
endif()

# The C++ library comes along, libm goes where nothing calls it, and a release is stripped.
function(needs_only_libc target)
  if(NOT INSTALLER_SANITIZE) # their runtimes want the shared libraries
    target_link_options(${target} PRIVATE -static-libstdc++ -static-libgcc -Wl,--as-needed
                        "$<$<CONFIG:Release>:-s>")
  endif()
endfunction()

# Products go to machines older than this one: newer symbols of the C library are replaced by what
# it had before. The sanitizers bring calls of their own.
include(CheckCXXSymbolExists)
check_cxx_symbol_exists(__GLIBC__ features.h has_glibc)
function(runs_on_old_glibc target)
  if(INSTALLER_SANITIZE OR NOT has_glibc OR NOT CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
    return()
  endif()
  target_sources(${target} PRIVATE "${PROJECT_SOURCE_DIR}/portable/old_glibc.cpp")
  # Linked as it stands: versions of symbols are lost in link-time optimisation.
  set_source_files_properties("${PROJECT_SOURCE_DIR}/portable/old_glibc.cpp"
                              PROPERTIES COMPILE_OPTIONS -fno-lto)
  target_link_options(${target} PRIVATE -Wl,--wrap=__libc_start_main
                      -Wl,--wrap=pthread_once -Wl,--wrap=__pthread_key_create)
endfunction()
