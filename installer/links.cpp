#include "installer/links.h"

#include <cstring>
#include <utility>

#include <linux/magic.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace installer {

namespace {

/// As many links as Linux follows on a path.
constexpr int MostLinks = 40;
/// What readlink can deliver.
constexpr std::size_t LinkTextSize = 4096;
constexpr int DirectoryFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;

Spot follow_path(int dir, const char *path, int &links_left);

/// Opens a path without any link in it. Empty with ELOOP when there is one, or when the system
/// cannot tell.
Descriptor open_without_links(int dir, const char *path, int flags) {
  struct ::open_how how = {};
  how.flags = static_cast<unsigned>(flags | O_CLOEXEC);
  how.resolve = RESOLVE_NO_SYMLINKS;
  Descriptor fd{static_cast<int>(::syscall(SYS_openat2, dir, path, &how, sizeof how))};
  // ENOSYS: an old kernel; EPERM, EINVAL: a sandbox that does not know the call.
  if (!fd && (errno == ENOSYS || errno == EPERM || errno == EINVAL)) errno = ELOOP;
  return fd;
}

/// The length of `path` without the separators at its end.
std::size_t trimmed_length(const char *path) {
  std::size_t length = std::strlen(path);
  while (length > 1 && path[length - 1] == Sep) --length;
  return length;
}

/// Where the last component of `path` begins.
std::size_t last_component(const char *path) {
  std::size_t start = trimmed_length(path);
  if (start == 1 && *path == Sep) return std::strlen(path);
  while (start > 0 && path[start - 1] != Sep) --start;
  return start;
}

/// What a link of the kernel's leads to at the moment is not what its maker meant by it.
bool trusted(::uid_t owner, const Spot &target) {
  return owner == 0 || owner == ::geteuid() ||
         (target.exists() && target.follow != 0 && target.info.st_uid == owner);
}

bool made_by_kernel(int file) {
  struct ::statfs system = {};
  return ::fstatfs(file, &system) == 0 && system.f_type == PROC_SUPER_MAGIC;
}

/// True when no other process says where the links in this directory of a /proc lead: those in its
/// root are words (self, mounts), and those below a process's directory are that process's.
bool links_of_ours(int dir) {
  Descriptor at{::openat(dir, ".", DirectoryFlags)};
  struct ::stat below = {};
  struct ::stat self = {};
  for (bool root = true; at && made_by_kernel(at.get()); root = false) {
    if (::fstatat(at.get(), "self", &self, 0) == 0) return root || same_inode(below, self);
    if (::fstat(at.get(), &below) != 0) break;
    at = Descriptor{::openat(at.get(), "..", DirectoryFlags)};
  }
  return false;
}

/// Follows a link that the system alone can follow, and only to where this process is. Another one
/// may be in a mount name space of its user's, who puts any file at any place in it at any moment,
/// so that the owner of what is found there says nothing of what is used.
void follow_kernel(Spot &spot) {
  if (!links_of_ours(spot.at())) {
    spot.cause = UntrustedLink;
    return;
  }
  spot.follow = 0;
  spot.linked = true;
  if (::fstatat(spot.at(), spot.name.c_str(), &spot.info, 0) != 0) spot.cause = last_cause();
}

/// Puts what the link at `spot` leads to in its place.
void follow_link(Spot &spot, int &links_left) {
  const Descriptor link{::openat(spot.at(), spot.name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC)};
  struct ::stat info = {};
  std::string text(LinkTextSize, '\0'); // not on the stack: links may lead to many others
  const bool known = link && ::fstat(link.get(), &info) == 0;
  const ::ssize_t count = known ? ::readlinkat(link.get(), "", text.data(), text.size()) : -1;
  if (count < 0 || links_left-- == 0) {
    spot.cause = count < 0 ? last_cause() : Cause{ELOOP};
    return;
  }
  if (made_by_kernel(link.get())) return follow_kernel(spot);
  text.resize(static_cast<std::size_t>(count));
  Spot target = follow_path(spot.at(), text.c_str(), links_left);
  if (!target.cause && !trusted(info.st_uid, target)) target.cause = UntrustedLink;
  if (!target.dir && target.base == spot.dir.get()) target.dir = std::move(spot.dir);
  target.linked = true;
  spot = std::move(target);
}

/// Reads the status of what `spot` names, behind all links.
void look(Spot &spot, int &links_left) {
  if (spot.cause) return;
  const std::string whole = spot.name;
  spot.name.resize(trimmed_length(whole.c_str()));
  const bool directory = spot.name.size() != whole.size();
  if (::fstatat(spot.at(), spot.name.c_str(), &spot.info, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno != ENOENT) spot.cause = last_cause();
    spot.info = {};
  } else if (S_ISLNK(spot.info.st_mode)) {
    follow_link(spot, links_left);
  }
  if (!directory || spot.cause) return;
  // A separator at the end asks for a directory, also behind a link.
  if (!spot.exists()) spot.name += Sep;
  else if (!S_ISDIR(spot.info.st_mode)) spot.cause = {ENOTDIR};
}

/// Enters the directories of `path` one after the other.
void enter_each(Spot &spot, const std::string &path, int &links_left) {
  std::size_t start = 0;
  if (path[0] == Sep) {
    spot.dir = Descriptor{::open("/", DirectoryFlags)};
    if (!spot.dir) spot.cause = last_cause();
  }
  while (!spot.cause && (start = path.find_first_not_of(Sep, start)) != std::string::npos) {
    const std::size_t end = std::min(path.find(Sep, start), path.size());
    Spot next;
    next.base = spot.at();
    next.name = path.substr(start, end - start);
    look(next, links_left);
    Descriptor entered;
    if (!next.cause)
      entered = Descriptor{::openat(next.at(), next.name.c_str(), DirectoryFlags | next.follow)};
    if (!entered) spot.cause = next.cause ? next.cause : last_cause();
    spot.dir = std::move(entered);
    start = end;
  }
}

Spot enter_parent(int dir, const char *path, int &links_left) {
  Spot spot;
  spot.base = dir;
  if (*path == '\0') spot.cause = {ENOENT};
  const std::size_t length = last_component(path);
  spot.name = path[length] != '\0' ? path + length : ".";
  if (length == 0 || spot.cause) return spot;
  const std::string parent{path, length};
  spot.dir = open_without_links(dir, parent.c_str(), O_PATH | O_DIRECTORY);
  if (spot.dir) return spot;
  if (errno == ELOOP) enter_each(spot, parent, links_left);
  else spot.cause = last_cause();
  return spot;
}

Spot follow_path(int dir, const char *path, int &links_left) {
  Spot spot = enter_parent(dir, path, links_left);
  look(spot, links_left);
  return spot;
}

} // namespace

Spot find_spot(int dir, const char *path) {
  int links_left = MostLinks;
  return follow_path(dir, path, links_left);
}

Spot find_place(int dir, const char *path) {
  int links_left = MostLinks;
  return enter_parent(dir, path, links_left);
}

Descriptor open_spot(const Spot &spot, int flags, Allow allow, ::mode_t perms, Cause &cause) {
  Descriptor fd;
  cause = spot.cause;
  if (cause) return fd;
  fd = open_known(spot.at(), spot.name.c_str(), spot.exists() ? &spot.info : nullptr,
                  flags | spot.follow, allow, perms);
  // What was exchanged meanwhile for something else is not used.
  struct ::stat opened = {};
  const bool good = fd && ::fstat(fd.get(), &opened) == 0 && admitted(opened, allow);
  if (good) return fd;
  cause = last_cause();
  return Descriptor{};
}

Descriptor open_trusted(const char *path, int flags, Allow allow, ::mode_t perms, Cause &cause) {
  return open_spot(find_spot(AT_FDCWD, path), flags, allow, perms, cause);
}

Stream open_text(const char *path, Cause &cause) {
  Descriptor fd = open_trusted(or_empty(path), O_RDONLY, Allow::Plain, 0, cause);
  Stream in{fd ? ::fdopen(fd.get(), "r") : nullptr};
  if (in) fd.release();
  else if (!cause) cause = last_cause();
  return in;
}

Descriptor open_directory(const char *path, int flags, Cause &cause) {
  Descriptor fd = open_without_links(AT_FDCWD, path, flags | O_DIRECTORY);
  cause = fd ? Cause{} : last_cause();
  if (fd || cause.number != ELOOP) return fd;
  const Spot spot = find_spot(AT_FDCWD, path);
  cause = spot.cause;
  if (cause) return fd;
  fd = Descriptor{
      ::openat(spot.at(), spot.name.c_str(), flags | O_DIRECTORY | O_CLOEXEC | spot.follow)};
  if (!fd) cause = last_cause();
  return fd;
}

} // namespace installer
