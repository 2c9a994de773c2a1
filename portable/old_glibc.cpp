// Lets the program run on systems with an older C library than the one it is built against.
//
// A few symbols that every C++ program refers to got a new version, or are new, in glibc 2.32 to
// 2.35. Each stands here once more, on top of what glibc had before; nothing of the program calls
// it. The versions of the old symbols are those of x86-64.
// The linker is told --wrap for three names: the start of the program comes here, and the C++
// library's weak references to two calls of threads find nothing, as in any program without
// threads.

#include <cstdint>

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <sys/stat.h>

// The names are the library's, and it has addresses as integers.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,performance-no-int-to-ptr)
extern "C" {

// Not for the libraries that a look-up of users may load.
asm(".hidden stat, lstat, fstat, fstatat, _dl_find_object");

// 2.33 made functions of what the headers had written out before.
int __xstat(int version, const char *path, struct ::stat *status);
int __lxstat(int version, const char *path, struct ::stat *status);
int __fxstat(int version, int descriptor, struct ::stat *status);
int __fxstatat(int version, int directory, const char *path, struct ::stat *status, int flags);
asm(".symver __xstat, __xstat@GLIBC_2.2.5");
asm(".symver __lxstat, __lxstat@GLIBC_2.2.5");
asm(".symver __fxstat, __fxstat@GLIBC_2.2.5");
asm(".symver __fxstatat, __fxstatat@GLIBC_2.4");

constexpr int StatVersion = 1; // of the kernel's structure

int stat(const char *path, struct ::stat *status) noexcept {
  return __xstat(StatVersion, path, status);
}
int lstat(const char *path, struct ::stat *status) noexcept {
  return __lxstat(StatVersion, path, status);
}
int fstat(int descriptor, struct ::stat *status) noexcept {
  return __fxstat(StatVersion, descriptor, status);
}
int fstatat(int directory, const char *path, struct ::stat *status, int flags) noexcept {
  return __fxstatat(StatVersion, directory, path, status, flags);
}

// 2.32: the C++ library counts references without locks while this is set. A C library that knows
// it clears it when a thread is started.
char __libc_single_threaded = 1;

// 2.34: before, a program came with a function that ran its constructors. Such a program is run by
// the newer libraries as well.
using Entry = int (*)(int, char **, char **);
using Constructor = void (*)(int, char **, char **);
extern const Constructor __init_array_start[], __init_array_end[];
void _init();

static void run_constructors(int count, char **arguments, char **environment) {
  _init();
  for (const Constructor *each = __init_array_start; each != __init_array_end; ++each)
    (*each)(count, arguments, environment);
}

int old_start(Entry main, int count, char **arguments, Constructor init, void (*fini)(),
              void (*loader_fini)(), void *stack_end);
asm(".symver old_start, __libc_start_main@GLIBC_2.2.5");

int __wrap___libc_start_main(Entry main, int count, char **arguments, Constructor /*init*/,
                             void (* /*fini*/)(), void (*loader_fini)(), void *stack_end) {
  return old_start(main, count, arguments, run_constructors, nullptr, loader_fini, stack_end);
}

// 2.35: where an exception finds the tables of the code that it passes.
static int find_tables(::dl_phdr_info *object, std::size_t, void *data) {
  auto *result = static_cast<::dl_find_object *>(data);
  const auto wanted = reinterpret_cast<std::uintptr_t>(result->dlfo_map_start);
  const auto address = [&](const ::ElfW(Phdr) & part) { return object->dlpi_addr + part.p_vaddr; };
  std::uintptr_t tables = 0;
  bool here = false;
  for (int i = 0; i < object->dlpi_phnum; ++i) {
    const ::ElfW(Phdr) &part = object->dlpi_phdr[i];
    if (part.p_type == PT_GNU_EH_FRAME) tables = address(part);
    if (part.p_type == PT_LOAD && wanted - address(part) < part.p_memsz) here = true;
  }
  if (here) result->dlfo_eh_frame = reinterpret_cast<void *>(tables);
  return here && tables != 0 ? 1 : 0;
}

int _dl_find_object(void *address, ::dl_find_object *result) noexcept {
  *result = {};
  result->dlfo_map_start = address;
  return ::dl_iterate_phdr(find_tables, result) == 1 ? 0 : -1;
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,performance-no-int-to-ptr)
