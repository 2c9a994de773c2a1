#include "installer/entries.h"

#include "installer/links.h"

#include <cstring>
#include <utility>

#include <unistd.h>

namespace installer {

namespace {

bool take_listing(xfilehandle &h, Descriptor fd, const Cause &cause, const char *path,
                  const char *wild, const MissedSink &missed) {
  h.cause = cause;
  if (fd) {
    h.handle.reset(::fdopendir(fd.get()));
    if (!h.handle) h.cause = last_cause();
  }
  if (!h.handle) {
    missed({path, nullptr, true, h.cause});
    return false;
  }
  fd.release();
  h.path = path;
  h.wild = wild;
  h.literal = !has_wildcard(wild);
  return true;
}

/// The next name that may match, with its type if the listing knows it; null at the end.
const char *next_name(xfilehandle &h, ::mode_t &type, const MissedSink &missed) {
  type = 0;
  if (h.literal) {
    if (h.done || h.wild.find(Sep) != std::string::npos) return nullptr;
    h.done = true;
    return h.wild.c_str();
  }
  errno = 0;
  const struct ::dirent *listed = ::readdir(h.handle.get());
  if (listed != nullptr) {
    type = static_cast<::mode_t>(DTTOIF(listed->d_type));
    return listed->d_name;
  }
  h.cause = last_cause();
  if (h.cause) missed({h.path.c_str(), nullptr, false, h.cause});
  return nullptr;
}

/// Fills `x` from the entry `name`. False: it is not there (any more), or it is missed.
bool take_entry(file &x, xfilehandle &h, const char *name, ::mode_t type,
                const MissedSink &missed) {
  file found;
  found.dir = ::dirfd(h.handle.get());
  found.info.st_mode = type;
  if (type == 0 && ::fstatat(found.dir, name, &found.info, AT_SYMLINK_NOFOLLOW) != 0) {
    h.cause = last_cause();
    if (!is_absence(h.cause)) missed({h.path.c_str(), name, false, h.cause, true});
    return false;
  }
  if (join_path(found.name, sizeof found.name, h.path.c_str(), name) == 0) {
    h.cause = last_cause();
    missed({h.path.c_str(), name, false, h.cause});
    return false;
  }
  found.entry = static_cast<std::uint32_t>(std::strlen(found.name) - std::strlen(name));
  x = std::move(found);
  return true;
}

bool is_dots(const char *name) {
  return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

} // namespace

const char *entry_name(const file &x) {
  if (x.entry != 0) return x.name + x.entry;
  const char *separator = last_separator(x.name);
  return separator != nullptr ? separator + 1 : x.name;
}

const char *name_at(const file &x) { return x.dir == AT_FDCWD ? x.name : x.name + x.entry; }

bool is_dir(const file &x) { return S_ISDIR(x.info.st_mode); }

Cause read_status(file &x, Cause &unread) {
  x.link.reset();
  if (::fstatat(x.dir, name_at(x), &x.info, AT_SYMLINK_NOFOLLOW) != 0) return last_cause();
  if (!S_ISLNK(x.info.st_mode)) return {};
  char text[PathSize];
  const ::ssize_t count = ::readlinkat(x.dir, name_at(x), text, sizeof text - 1);
  if (count < 0) unread = last_cause();
  x.link = count < 0 ? "READLINK FAILED" : std::string(text, static_cast<std::size_t>(count));
  return {};
}

bool open_listing(xfilehandle &h, const char *path, const char *wild, const MissedSink &missed,
                  Follow follow) {
  Cause cause;
  Descriptor fd;
  if (follow == Follow::Trusted) fd = open_directory(path, O_RDONLY, cause);
  else fd = Descriptor{::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
  if (!fd && !cause) cause = last_cause();
  return take_listing(h, std::move(fd), cause, path, wild, missed);
}

bool open_listing(xfilehandle &h, const file &directory, const MissedSink &missed) {
  Descriptor fd{
      ::openat(directory.dir, name_at(directory), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW)};
  const Cause cause = fd ? Cause{} : last_cause();
  return take_listing(h, std::move(fd), cause, directory.name, "*", missed);
}

bool next_entry(file &x, xfilehandle &h, const MissedSink &missed) {
  if (!h.handle) return false;
  ::mode_t type = 0;
  while (const char *name = next_name(h, type, missed)) {
    if (is_dots(name) || wild_match(name, h.wild.c_str()) == 0) continue;
    if (take_entry(x, h, name, type, missed)) return true;
  }
  return false;
}

Entries::Entries(const char *path, const char *wild, MissedSink missed, Follow follow)
    : state_(std::make_unique<State>()) {
  state_->missed = std::move(missed);
  if (open_listing(state_->handle, path, wild, state_->missed, follow)) advance();
}

Entries::Entries(const file &directory, MissedSink missed) : state_(std::make_unique<State>()) {
  state_->missed = std::move(missed);
  if (open_listing(state_->handle, directory, state_->missed)) advance();
}

} // namespace installer
