#pragma once

// File operations: copying files and trees, creating and removing directories, listing a directory
// with a wildcard, existence, owners and modes. Every item handled is reported through one
// process-wide pair of callbacks, every failure is logged first; a caller who wants each as a value
// gives a sink.
//
// Paths are at most 255 characters. A directory entry is always acted on under its true name,
// relative to its open directory, and so is what is made of it in another one; an entry whose full
// path does not fit is left alone with an error line, unless it is excluded. Links found in a
// listing are never followed into, and no link is followed that is not trusted (links.h). No
// operation blocks on a pipe or a socket: sources are regular files or the null device, targets are
// anything but pipes, sockets and directories.

#include "installer/entries.h"
#include "installer/lib.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include <sys/stat.h>
#include <sys/types.h>

namespace installer {

/// A progress callback. `mode` is 1 for copying and creating, 0 for removing. `dst` is null but for
/// files copied, or not copied; a failed copy with null arguments passes them on, and a listed
/// entry whose path does not fit comes under its bare name. In `xfail` errno is that of the
/// failure.
using FileCallback = void (*)(const char *src, const char *dst, int mode);

/// The callback pair: `xok` once per item handled, `xfail` once per item that failed; either may be
/// null.
struct file_setup_inf {
  FileCallback xok = nullptr;
  FileCallback xfail = nullptr;
};
using FSInf = file_setup_inf;

/// What became of a file or directory. `Kept`: a directory stays for what its exclusion list keeps;
/// `Nothing`: a pattern matched nothing.
enum class FileResult { Done, Kept, Nothing, Failed };

/// One of these, as it happens. `what`: a few words, "copied" or "cannot write"; `path`: of what
/// was copied to, made, removed or looked for (null: of nothing); `cause`: for `Failed`, when the
/// system gave one. The texts last until the sink returns.
struct FileEvent {
  FileResult result;
  const char *what;
  const char *path;
  Cause cause;
};
using FileSink = std::function<void(const FileEvent &event)>;

// ---- Callbacks and errors ----

/// Replaces both callbacks for all operations until the next call; either may be null.
void file_setup_fn(FileCallback xok, FileCallback xfail);
/// Logs the message, ", " and the system's text for errno at error level. Nothing for a null
/// format.
[[gnu::format(printf, 1, 2)]] void file_error(const char *format, ...);
/// Hands an event to a sink; null for none.
void file_event(const FileSink *sink, const FileEvent &event);
/// The one place where failures are told: logs the line with the cause behind it, and hands the
/// failure to the sink. 0, which is the result of what failed.
[[gnu::format(printf, 5, 6)]] int file_failure(const FileSink *sink, const char *what,
                                               const char *path, const Cause &cause,
                                               const char *line, ...);
/// file_failure for what a walk could not deliver. `fails`: it is a failed copy, and `xfail` is
/// called. An entry without status goes to the sink alone.
void file_missed(const FileSink *sink, const Missed &missed, bool fails);
/// The sink of a walk that only logs.
[[nodiscard]] MissedSink log_missed();

// ---- Enumeration ----

/// Opens the directory `path` and delivers its first entry that matches `wild` (with case) with its
/// whole status, for `file_free`; the handle is for `file_last`. "." and ".." never appear, hidden
/// entries do. An entry outlives its handle. Null, with a null handle, when there is none, an
/// argument is null or the directory cannot be opened (logged).
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

// ---- Copying ----

/// Copies the bytes of `src` to `dst`, which is created (default mode) or replaced, as a whole
/// (replace.h); the mode, owner and times of `src` are not copied. `bytes` (may be null) grows by
/// the bytes written. 1 copied (`xok`); 0 failed (logged, `xfail`; without a word for a null path);
/// -1 when `dst` exists and `overwrite` is 0 (nothing is called). A file copied onto itself stays
/// as it is and counts as copied, with no bytes. Before the first bytes of `src` have been read,
/// `dst` is not touched.
int file_copy(const char *src, const char *dst, int overwrite, std::uint64_t *bytes);
/// Copies the entries of `path` that match `wild` (null: all) but not the list `exclude` (with
/// case, at all levels) into `dst`, which is created with its parents when missing. Directories:
/// with their whole trees for `recurse`, else empty. `dst` itself and directories that the copy
/// creates are not walked into, so it ends also when `dst` lies below `path`. The number of files
/// copied and directories created; 0 for a null path or when `dst` cannot be created.
int file_xcopy(const char *path, const char *wild, const char *exclude, const char *dst,
               int recurse, std::uint64_t *bytes);

/// A copy under way. `exclude`: names that are left out below directories (with case); `recurse`:
/// directories with their trees, else empty; `tree`: of a tree, whose new files are written in
/// their place (replace.h), else beside it; `bytes`: grows by the bytes written; `sink`: is told of
/// everything; each may be null. `filled`: device and inode of the directories that are not walked
/// into, which are those that the copy created and those given to `fill`. `block`: what is read
/// before it is written.
struct Copying {
  const char *exclude = nullptr;
  bool recurse = true;
  bool tree = false;
  std::uint64_t *bytes = nullptr;
  const FileSink *sink = nullptr;
  std::set<std::pair<::dev_t, ::ino_t>> filled = {};
  std::unique_ptr<char[]> block = {};

  /// The command copies into this directory.
  void fill(const char *directory);
};

/// A directory that is copied into: its path (borrowed), and itself, held open so that what is
/// exchanged for it later is not written to. `cause`: why it could not be opened; what is copied
/// into it then fails.
struct Target {
  const char *path = nullptr;
  Descriptor dir;
  Cause cause;
};
[[nodiscard]] Target open_target(const char *path);
/// file_copy of an entry that a listing delivered into the directory, under its own name,
/// overwriting.
int file_copy_entry(Copying &copying, const file &entry, const Target &into);
/// file_xcopy of all entries of a directory that a listing delivered, into the directory of its
/// name in `into`. 0, with a line at info level, for a directory that is not walked into.
int file_xcopy_entry(Copying &copying, const file &entry, const Target &into);

// ---- Directories, owners and modes ----

/// 0: does not exist, or null; 1: exists and is no directory; 2: is a directory. Links are
/// followed. The outcome is logged at debug level. `cause` (may be null) receives why it was not
/// found.
[[nodiscard]] int file_exist(const char *file, Cause *cause = nullptr);
/// Creates `dir` (mode 0775) and, with `make_all`, its missing parents; each level created is
/// logged and passed to `xok`. Trailing separators are ignored. 1: something was created or `dir`
/// exists (whatever it is, though what leads to no directory is a failure for the sink); 0: failed.
/// A `dir` that could not be created is logged and passed to `xfail`, also when its parents were
/// and the result is 1.
[[nodiscard]] int file_mkdir(const char *dir, int make_all, const FileSink *sink = nullptr);
/// Removes `dir` and, with `recurse`, first everything below it whose name does not match the list
/// `exclude` (with case). Links are removed, not followed. The number of items removed; what cannot
/// be removed goes to `xfail` only, which includes a directory that keeps excluded entries.
int file_rmdir(const char *dir, const char *exclude, int recurse);
/// file_rmdir with recursion, of a directory that a listing delivered.
int file_rmdir_entry(const file &entry, const char *exclude, const FileSink *sink = nullptr);
/// Removes an entry that is no directory. 1 or 0; nothing is logged or called.
[[nodiscard]] int file_remove_entry(const file &entry, const FileSink *sink = nullptr);

/// The numeric id of a user or group, -1 (all bits set) when there is none of that name. Every
/// other value is a number. `cause` (may be null) receives why the system could not look it up.
[[nodiscard]] ::uid_t file_getuid(const char *name, Cause *cause = nullptr);
[[nodiscard]] ::gid_t file_getgid(const char *name, Cause *cause = nullptr);
/// Sets the permission bits. Follows a trusted link, though never to the root directory; what a
/// listing did not call a link is not followed. 1; 0 for null or (logged) on failure.
[[nodiscard]] int file_chmod(File x, ::mode_t mode, const FileSink *sink = nullptr);
/// Sets owner and group, following links like file_chmod. A `gid` of -1 stands for the group with
/// the number `uid`. 1; 0 for null or a `uid` of -1, or (logged) on failure.
[[nodiscard]] int file_chown(File x, ::uid_t uid, ::gid_t gid, const FileSink *sink = nullptr);

} // namespace installer
