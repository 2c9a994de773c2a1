#pragma once

// What the two halves of the file module share: the callbacks, directories and the rest (file.cpp),
// and copies (file_copy.cpp).

#include "installer/file.h"
#include "installer/links.h"

#include <string>

namespace installer {

/// A path, and how to reach what it names: `name` relative to the open directory `dir`. `type`: 0
/// where no listing gave one. `cause`: why it cannot be reached.
struct Place {
  const char *path;
  const char *name;
  int dir = AT_FDCWD;
  ::mode_t type = 0;
  Cause cause = {};
};

[[nodiscard]] inline Place by_path(const char *path) { return {path, path}; }

[[nodiscard]] inline Place by_entry(const file &x) {
  return {x.name, name_at(x), x.dir, x.info.st_mode & S_IFMT};
}

/// Call `xok` or `xfail`, if there is one; for a failure with errno set from the cause, here alone.
void call_ok(const char *src, const char *dst, int mode);
void call_fail(const char *src, const char *dst, int mode, const Cause &cause);

/// True for a name that an exclusion list below the top names. Null is no name.
[[nodiscard]] bool excluded_below(const char *name, const char *exclude);
/// Logs what file_exist says.
void log_existence(const char *path, bool exists, ::mode_t mode);

/// False for null, or, told as a directory that cannot be created, when the path does not fit.
[[nodiscard]] bool takes_path(const Copying &c, const char *dir);
/// The path without the separators at its end, though "/" stays.
[[nodiscard]] std::string trimmed(const char *dir);
/// Creates one level. The cause is EEXIST for one that is there, whatever it is.
[[nodiscard]] Cause make_level(Copying &c, const Spot &spot, const char *path);
/// file_mkdir for a path in which only "/" separates: an entry's name may hold a "\\".
[[nodiscard]] int make_directory(Copying &c, const std::string &path, bool make_all);
/// Tells of a directory that cannot be created.
void report_directory(const Copying &c, const char *path, const Cause &cause);
/// The copy does not walk into this directory. `flags`: those of fstatat.
void note_filled(Copying &c, int dir, const char *name, int flags);

} // namespace installer
