#pragma once

// The one walk of a directory. It logs nothing and calls nobody: what it cannot deliver goes to a
// sink of the caller, who knows whether it matters.
//
// Paths are at most 255 characters. An entry is reached under its true name, relative to its open
// directory: a "\\" in it is an ordinary character. A listed directory is opened without following
// links, so no walk leaves its tree; a path that is named is followed through trusted links.

#include "installer/lib.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

namespace installer {

/// One directory entry. `name`: full path; `link`: for a symbolic link the text it points to (at
/// most 255 characters) or "READLINK FAILED", else null; `info`: the entry's own status, of which a
/// walk may fill in no more than the type. `dir` and `entry` say how to reach it: `name + entry`
/// relative to the directory `dir`, or `name` without an open directory. A record that only has its
/// `name` set works as well.
struct file {
  char name[PathSize] = {};
  Text link;
  struct ::stat info = {};
  int dir = AT_FDCWD;
  std::uint32_t entry = 0;
};
using File = file *;

/// The last component, borrowed from the entry.
[[nodiscard]] const char *entry_name(const file &x);
/// What to give to the system together with `dir`.
[[nodiscard]] const char *name_at(const file &x);
/// True when the entry's own status says directory.
[[nodiscard]] bool is_dir(const file &x);
/// Reads the status and link of the entry, links not followed. The cause when there is no status;
/// `unread` receives why a link could not be read.
[[nodiscard]] Cause read_status(file &x, Cause &unread);

/// What a walk could not deliver: the directory itself (`opening`), the rest of it (no `name`), or
/// the entry `name`, whose path does not fit or (`unread`) whose status cannot be read.
struct Missed {
  const char *path;
  const char *name;
  bool opening;
  Cause cause;
  bool unread = false;
};
using MissedSink = std::function<void(const Missed &)>;

/// Which links in a path that is named are followed: those that can be trusted, or, by who only
/// looks, all.
enum class Follow { Trusted, All };

/// The deleter of a directory stream.
struct CloseDir {
  void operator()(::DIR *handle) const noexcept { ::closedir(handle); }
};
using DirStream = std::unique_ptr<::DIR, CloseDir>;

/// An enumeration: the directory, the pattern for its entries and the open stream. `literal`: the
/// pattern has no wildcard, so that the one entry it can match is looked up directly instead of
/// being searched for; `done`: it has been. `cause`: what failed last.
struct xfilehandle {
  std::string path;
  std::string wild;
  DirStream handle;
  bool literal = false;
  bool done = false;
  Cause cause;
};
using FHandle = xfilehandle *;

/// Opens a directory by its path, or one that a listing delivered. False, handed to `missed`, when
/// it cannot be opened.
[[nodiscard]] bool open_listing(xfilehandle &h, const char *path, const char *wild,
                                const MissedSink &missed, Follow follow = Follow::Trusted);
[[nodiscard]] bool open_listing(xfilehandle &h, const file &directory, const MissedSink &missed);
/// Puts the next matching entry, with its type, into `x`. "." and ".." never appear. False at the
/// end, with `x` as it was.
[[nodiscard]] bool next_entry(file &x, xfilehandle &h, const MissedSink &missed);

/// The entries of one directory as a range; it frees its handle on every way out. Of `info` only
/// the type is filled in.
///
///     Entries entries{path, "*.txt", missed};
///     if (!entries) ...                    // none matches, or the directory could not be opened
///     for (File entry : entries) ...       // the entry lasts until the next
class Entries {
public:
  Entries(const char *path, const char *wild, MissedSink missed, Follow follow = Follow::Trusted);
  /// All entries of a directory that a listing delivered; it must not have become a link since.
  Entries(const file &directory, MissedSink missed);
  /// True while there is an entry.
  [[nodiscard]] explicit operator bool() const { return state_->more; }
  /// What failed last, opening, reading, or finding the one entry of a pattern without wildcard.
  [[nodiscard]] const Cause &cause() const { return state_->handle.cause; }

  struct End {};
  class Iterator {
  public:
    explicit Iterator(Entries &entries) : entries_(&entries) {}
    File operator*() const { return &entries_->state_->entry; }
    Iterator &operator++() {
      entries_->advance();
      return *this;
    }
    bool operator==(End) const { return !*entries_; }

  private:
    Entries *entries_;
  };
  Iterator begin() { return Iterator{*this}; }
  static End end() { return {}; }

private:
  void advance() { state_->more = next_entry(state_->entry, state_->handle, state_->missed); }

  /// Not on the stack, of which a deep tree would need much.
  struct State {
    MissedSink missed;
    xfilehandle handle;
    file entry;
    bool more = false;
  };
  std::unique_ptr<State> state_;
};

} // namespace installer
