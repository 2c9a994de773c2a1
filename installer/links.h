#pragma once

// Paths, followed only as far as their links can be trusted. A link is trusted when root, the
// effective user or the owner of what it leads to made it; one that leads to nothing, or to a link
// of this process in /proc, only when one of the first two did. A link of another process in /proc
// (root, cwd, a descriptor) is never trusted, wherever it stands in a path. So nobody who may write
// somewhere below a path can lead a run of another user away from it. What a path leads to is held
// as an open directory and a name in it: whoever exchanges a part of the path afterwards changes
// nothing.

#include "installer/lib.h"

#include <string>

#include <fcntl.h>
#include <sys/stat.h>

namespace installer {

/// A link that is not trusted.
inline constexpr Cause UntrustedLink = {ELOOP, "a link that leads there is not trusted"};

/// What a path leads to: `name`, which is no link, in the directory `at()`. `info`: its status;
/// `st_mode` is 0 when it does not exist. `linked`: the path itself is a link to it. `follow`: a
/// flag for openat, O_NOFOLLOW but for a link in /proc that only the system can follow. `cause`:
/// why there is nothing of all this.
struct Spot {
  int base = AT_FDCWD;
  Descriptor dir;
  std::string name;
  struct ::stat info = {};
  bool linked = false;
  int follow = O_NOFOLLOW;
  Cause cause;

  /// The directory: open, or the one that the path was relative to.
  [[nodiscard]] int at() const { return dir ? dir.get() : base; }
  [[nodiscard]] bool exists() const { return !cause && info.st_mode != 0; }
};

/// Follows `path`, relative to the directory `dir`, to its end. Where the path has no links the
/// system says so in one call (Linux openat2).
[[nodiscard]] Spot find_spot(int dir, const char *path);
/// The same without the last component: it is not looked at, and may be a link.
[[nodiscard]] Spot find_place(int dir, const char *path);

/// open_file at the end of a path. `cause`: why the descriptor is empty.
[[nodiscard]] Descriptor open_spot(const Spot &spot, int flags, Allow allow, ::mode_t perms,
                                   Cause &cause);
[[nodiscard]] Descriptor open_trusted(const char *path, int flags, Allow allow, ::mode_t perms,
                                      Cause &cause);
/// A text file to be read; null for none. `cause`: why there is no stream.
[[nodiscard]] Stream open_text(const char *path, Cause &cause);
/// A directory, with O_PATH or to be listed with O_RDONLY. `cause`: why the descriptor is empty.
[[nodiscard]] Descriptor open_directory(const char *path, int flags, Cause &cause);

} // namespace installer
