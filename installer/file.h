#pragma once

// File operations: copying files and trees, creating and removing directories, listing a directory
// with a wildcard, existence, owners and modes. Every item handled is reported through one
// process-wide pair of callbacks, every failure is logged first.
//
// Paths are at most 255 characters. A directory entry is always acted on under its true name,
// relative to its open directory: a "\\" in it is an ordinary character, and an entry whose full
// path does not fit is left alone with an error line (excluded or not). Links found in a listing
// are never followed into. No operation blocks on a pipe or a socket: sources are regular files or
// the null device, targets are anything but pipes, sockets and directories.

#include "installer/lib.h"

#include <cstdint>
#include <memory>
#include <string>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

namespace installer {

/// A progress callback. `mode` is 1 for copying and creating, 0 for removing. `dst` is null but for
/// files copied, or not copied; a failed copy with null arguments passes them on, and a listed
/// entry whose path does not fit comes under its bare name. errno is that of the failure.
using FileCallback = void (*)(const char *src, const char *dst, int mode);

/// The callback pair: `xok` once per item handled, `xfail` once per item that failed; either may be
/// null.
struct file_setup_inf {
  FileCallback xok = nullptr;
  FileCallback xfail = nullptr;
};
using FSInf = file_setup_inf;

/// One directory entry. `name`: full path; `link`: for a symbolic link the text it points to (at
/// most 255 characters) or "READLINK FAILED", else null; `info`: the entry's own status. `dir` and
/// `entry` say how to reach it: `name + entry` relative to the directory `dir`. A record that only
/// has its `name` set works as well. A listed entry must not be acted on once its enumeration has
/// ended, for `dir` is closed then.
struct file {
  char name[PathSize] = {};
  Text link;
  struct ::stat info = {};
  int dir = AT_FDCWD;
  std::uint32_t entry = 0;
};
using File = file *;

/// The deleter of a directory stream.
struct CloseDir {
  void operator()(::DIR *handle) const noexcept { ::closedir(handle); }
};
using DirStream = std::unique_ptr<::DIR, CloseDir>;

/// An enumeration: the directory, the pattern for its entries and the open stream. `status`: read
/// each entry's whole status and link; else `info` holds no more than the type, which the listing
/// itself delivers. `report`: an entry that cannot be handled is a failed copy and calls `xfail`.
/// `literal`: the pattern has no wildcard, so that the one entry it can match is looked up directly
/// instead of being searched for; `done`: it has been. `incomplete`: an entry could not be
/// delivered.
struct xfilehandle {
  std::string path;
  std::string wild;
  DirStream handle;
  bool status = true;
  bool report = false;
  bool literal = false;
  bool done = false;
  bool incomplete = false;
};
using FHandle = xfilehandle *;

// ---- Callbacks and errors ----

/// Replaces both callbacks for all operations until the next call; either may be null.
void file_setup_fn(FileCallback xok, FileCallback xfail);
/// Logs the message, ", " and the system's text for errno at error level. errno is kept. Nothing
/// for a null format.
[[gnu::format(printf, 1, 2)]] void file_error(const char *format, ...);

// ---- Enumeration ----

/// Opens the directory `path` and delivers its first entry that matches `wild` (with case), for
/// `file_free`; the handle is for `file_last`. "." and ".." never appear, hidden entries do. Null,
/// with a null handle, when there is none, an argument is null or the directory cannot be opened
/// (logged).
[[nodiscard]] File file_first(FHandle *h, const char *path, const char *wild);
/// Puts the next matching entry into `x`. 1; 0 at the end, with `x` as it was.
[[nodiscard]] int file_next(File x, FHandle h);
/// Closes the enumeration and sets the variable to null. Nothing for a null address or handle.
void file_last(FHandle *h);
/// Releases the entry and sets the variable to null. Nothing for a null address or entry.
void file_free(File *x);
/// Reads the status and link of the entry, links not followed. 1; 0 when there is no status.
int file_stat(File x);
/// The entry's full path; null for null.
[[nodiscard]] const char *file_name(File x);
/// Copies the last component of the entry's path. `buffer`; null for a null entry.
char *file_filename(File x, char *buffer, std::size_t bfsz);
/// The last component, borrowed from the entry.
[[nodiscard]] const char *entry_name(const file &x);
/// True when the entry's own status says directory.
[[nodiscard]] bool is_dir(const file &x);

/// What a walk wants: `Types` is enough for all that act on entries by name; `Copies` also reports
/// an entry that cannot be reached, and a listed directory that cannot be opened, through `xfail`.
enum class Walk { Types, Copies };

struct Place;

/// The entries of one directory as a range, on the mechanism of `file_first`; it frees its handle
/// on every way out. Of `info` only the type is filled in.
///
///     Entries entries{path, "*.txt"};
///     if (!entries) ...                    // none matches, or the directory could not be opened
///     for (File entry : entries) ...       // the entry lasts until the next
class Entries {
public:
  Entries(const char *path, const char *wild, Walk walk = Walk::Types);
  /// All entries of a directory that a listing delivered; it must not have become a link since.
  explicit Entries(const file &directory, Walk walk = Walk::Types);
  /// True when the listing failed, or had an entry that could not be delivered (logged).
  [[nodiscard]] bool incomplete() const { return handle_.incomplete; }
  /// True while there is an entry.
  [[nodiscard]] explicit operator bool() const { return more_; }

  struct End {};
  class Iterator {
  public:
    explicit Iterator(Entries &entries) : entries_(&entries) {}
    File operator*() const { return &entries_->entry_; }
    Iterator &operator++() {
      entries_->advance();
      return *this;
    }
    bool operator==(End) const { return !entries_->more_; }

  private:
    Entries *entries_;
  };
  Iterator begin() { return Iterator{*this}; }
  static End end() { return {}; }

private:
  friend struct Place;
  Entries(const Place &place, const char *wild, Walk walk);
  void advance() { more_ = file_next(&entry_, &handle_) == 1; }

  xfilehandle handle_;
  file entry_;
  bool more_ = false;
};

// ---- Copying ----

/// Copies the bytes of `src` to `dst`, which is created (default mode) or emptied; mode, owner and
/// times are not copied. `bytes` (may be null) grows by the bytes written. 1 copied (`xok`); 0
/// failed (logged, `xfail`, errno set, 0 for a null path); -1 when `dst` exists and `overwrite` is
/// 0 (nothing is called). A file copied onto itself stays as it is and counts as copied, with no
/// bytes. Before the first bytes of `src` have been read, `dst` is not touched.
int file_copy(const char *src, const char *dst, int overwrite, std::uint64_t *bytes);
/// Copies the entries of `path` that match `wild` (null: all) but not the list `exclude` (with
/// case, at all levels) into `dst`, which is created with its parents when missing. Directories:
/// with their whole trees for `recurse`, else empty. Directories that the copy itself made or fills
/// are not walked into, so it ends also when `dst` lies below `path`. The number of files copied
/// and directories created; 0 for a null path or when `dst` cannot be created.
int file_xcopy(const char *path, const char *wild, const char *exclude, const char *dst,
               int recurse, std::uint64_t *bytes);
/// file_copy of an entry that a listing delivered into the directory `into`, under its own name,
/// overwriting.
int file_copy_entry(File entry, const char *into, std::uint64_t *bytes);
/// file_xcopy of all entries with recursion, of a directory that a listing delivered, into the
/// directory of its name in `into`. 0, with a line at info level, for a directory that a copy made
/// or fills.
int file_xcopy_entry(File entry, const char *exclude, const char *into, std::uint64_t *bytes);

/// While any of them lives, no tree copy walks into the directories given to `add`, nor into
/// directories created meanwhile.
class Filling {
public:
  Filling();
  Filling(const Filling &) = delete;
  Filling &operator=(const Filling &) = delete;
  ~Filling();
  void add(const char *directory);
};

// ---- Directories, owners and modes ----

/// 0: does not exist, or null; 1: exists and is no directory; 2: is a directory. Links are
/// followed. The outcome is logged at debug level.
[[nodiscard]] int file_exist(const char *file);
/// Creates `dir` (mode 0775) and, with `make_all`, its missing parents; each level created is
/// logged and passed to `xok`. A trailing separator is ignored. 1: something was created or `dir`
/// exists (whatever it is); 0: failed. A `dir` that could not be created is logged and passed to
/// `xfail` with errno set, also when its parents were and the result is 1.
[[nodiscard]] int file_mkdir(const char *dir, int make_all);
/// Removes `dir` and, with `recurse`, first everything below it whose name does not match the list
/// `exclude` (with case). Links are removed, not followed. The number of items removed; what cannot
/// be removed goes to `xfail` only, which includes a directory that keeps excluded entries.
int file_rmdir(const char *dir, const char *exclude, int recurse);
/// file_rmdir with recursion, of a directory that a listing delivered.
int file_rmdir_entry(File entry, const char *exclude);
/// Removes an entry that is no directory. 1, or 0 with errno set; nothing is logged or called.
[[nodiscard]] int file_remove_entry(File entry);

/// The numeric id of a user or group, -1 (all bits set) when there is none of that name.
[[nodiscard]] ::uid_t file_getuid(const char *name);
[[nodiscard]] ::gid_t file_getgid(const char *name);
/// Sets the permission bits; follows a link. 1; 0 for null or (logged) on failure.
[[nodiscard]] int file_chmod(File x, ::mode_t mode);
/// Sets owner and group; follows a link. A `gid` of -1 stands for the group with the number `uid`.
/// 1; 0 for null or a `uid` of -1, or (logged) on failure.
[[nodiscard]] int file_chown(File x, ::uid_t uid, ::gid_t gid);

} // namespace installer
