#pragma once

// The mounted file systems, as the kernel lists them in /proc/self/mountinfo (proc(5)).

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

namespace installer::preview {

/// One mount. `id`: the kernel's number; 0 for a directory that is treated like a mount of its own.
/// `device`: "major:minor" of the file system; `root`: the directory of it that is mounted;
/// `point`: where, from the root directory of this process; `top`: the mount point of the file
/// system that totals name. `attributes`: MOUNT_ATTR_ values for what a program may do there (never
/// MOUNT_ATTR_RDONLY); `read_only`: the mount or its file system is. `apart`: keeps a layer of its
/// own where another one could be shown.
struct Mount {
  std::uint64_t id = 0;
  std::string device, root, point, type, top;
  std::uint64_t attributes = 0;
  bool read_only = false;
  bool apart = false;
};

/// The mounts of a list in the form of /proc/self/mountinfo, in its order. Lines that have another
/// form are left out.
[[nodiscard]] std::vector<Mount> mounts_parse(std::istream &list);
/// The mounts of this process that a path leads to: without those that later ones hide. Sorted by
/// mount point, so that a mount comes before those below it.
[[nodiscard]] std::vector<Mount> mounts_visible();
/// True when the kernel makes up the contents of file systems of this type: they take no files, and
/// what is written there goes to the kernel.
[[nodiscard]] bool mounts_are_kernel_made(const std::string &type);

} // namespace installer::preview
