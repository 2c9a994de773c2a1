#include "installer/replace.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include <linux/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace installer {

namespace {

constexpr ::mode_t PermissionBits = 07777;
/// What the system takes away when a file is written to.
constexpr ::mode_t SetIdBits = 06000;
constexpr const char *Capabilities = "security.capability";

constexpr ::mode_t DefaultMode = 0666;

constexpr Cause Overtaken = {EBUSY, "another run replaces it"};

/// Errors that say that there is no room or no descriptor now. A file that is emptied then may stay
/// empty, so it is left alone.
constexpr int scarcities[] = {ENOSPC, EDQUOT, EIO, ENOMEM, EMFILE, ENFILE};

bool is_scarcity(int number) {
  return std::find(std::begin(scarcities), std::end(scarcities), number) != std::end(scarcities);
}

bool is_mount_point(int fd) {
  struct ::statx info = {};
  return ::syscall(SYS_statx, fd, "", AT_EMPTY_PATH, 0, &info) == 0 && // newer than old C libraries
         (info.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

/// The mode that a new file has until it gets its own: never more than the old one gave to anybody,
/// whatever group the new one begins with.
::mode_t first_mode(::mode_t mode) {
  const bool alike = (mode >> 3 & 07) == (mode & 07);
  return mode & (alike ? 0777 : 0700);
}

// ---- Extended attributes, of which access lists are some ----

/// The names of the attributes, each with its terminator. False when they cannot be read.
bool list_attributes(int fd, std::string &names) {
  const ::ssize_t size = ::flistxattr(fd, nullptr, 0);
  names.clear();
  if (size <= 0) return size == 0 || errno == ENOTSUP;
  names.resize(static_cast<std::size_t>(size));
  const ::ssize_t count = ::flistxattr(fd, names.data(), names.size());
  if (count >= 0) names.resize(static_cast<std::size_t>(count));
  return count >= 0;
}

/// False when there is no such attribute.
bool read_attribute(int fd, const char *name, std::string &value) {
  const ::ssize_t size = ::fgetxattr(fd, name, nullptr, 0);
  if (size < 0) return false;
  value.resize(static_cast<std::size_t>(size));
  const ::ssize_t count = ::fgetxattr(fd, name, value.data(), value.size());
  return count == size;
}

bool give_attribute(int from, int to, const char *name) {
  std::string value;
  std::string present;
  if (!read_attribute(from, name, value)) return false;
  if (read_attribute(to, name, present) && present == value) return true;
  return ::fsetxattr(to, name, value.data(), value.size(), 0) == 0;
}

template <class Act> bool for_each_name(const std::string &names, Act act) {
  for (const char *name = names.data(); name < names.data() + names.size();
       name += std::strlen(name) + 1)
    if (!act(name)) return false;
  return true;
}

bool has_name(const std::string &names, const char *wanted) {
  return !for_each_name(names, [=](const char *name) { return std::strcmp(name, wanted) != 0; });
}

// ---- What a new file gets from the old one ----

/// `now`: the status before the last step.
bool give_owner_and_mode(const struct ::stat &old, int fd, struct ::stat &now) {
  if (::fstat(fd, &now) != 0) return false;
  if (now.st_uid != old.st_uid || now.st_gid != old.st_gid) {
    if (::fchown(fd, old.st_uid, old.st_gid) != 0 || ::fstat(fd, &now) != 0) return false;
  }
  const ::mode_t wanted = old.st_mode & PermissionBits;
  return (now.st_mode & PermissionBits) == wanted || ::fchmod(fd, wanted) == 0;
}

/// Everything but the contents. `fragile`: writing takes some of it away again. `now`: which file
/// got it.
bool give_all(const struct ::stat &old, int from, int to, bool &fragile, struct ::stat &now) {
  errno = 0;
  std::string wanted;
  std::string present;
  if (!list_attributes(from, wanted) || !list_attributes(to, present)) return false;
  // An access list that a directory hands down is not one that the old file had.
  const bool removed = for_each_name(present, [&](const char *name) {
    return has_name(wanted, name) || ::fremovexattr(to, name) == 0;
  });
  fragile = (old.st_mode & SetIdBits) != 0 || has_name(wanted, Capabilities);
  return removed && give_owner_and_mode(old, to, now) &&
         for_each_name(wanted, [=](const char *name) { return give_attribute(from, to, name); });
}

/// Gives a file a name that nothing has. Where the system cannot do that in one step the name is
/// looked at before.
bool rename_new(int dir, const char *from, const char *to) {
#ifdef RENAME_NOREPLACE
  if (::syscall(SYS_renameat2, dir, from, dir, to, RENAME_NOREPLACE) == 0) return true;
  // ENOSYS: an old kernel; EINVAL: a file system, EPERM: a sandbox that does not know it.
  if (errno != ENOSYS && errno != EINVAL && errno != EPERM) return false;
#endif
  struct ::stat info = {};
  const bool taken = ::fstatat(dir, to, &info, AT_SYMLINK_NOFOLLOW) == 0;
  if (taken) errno = EEXIST;
  return !taken && errno == ENOENT && ::renameat(dir, from, dir, to) == 0;
}

} // namespace

Replacement::Replacement(const char *path, int dir, int source, NewFile where) {
  if (where == NewFile::InPlace) {
    // A new file is the usual case: it is made before anything is asked about it.
    spot_.base = dir;
    spot_.name = path;
    if (make(spot_.name, DefaultMode) || cause_.number != EEXIST) return;
  }
  spot_ = find_spot(dir, path);
  open(source);
}

Replacement::~Replacement() { discard(); }

/// Opens what `spot_` says.
void Replacement::open(int source) {
  cause_ = spot_.cause;
  if (cause_) return;
  if (spot_.exists()) {
    open_existing(source);
    return;
  }
  if (make_beside(DefaultMode) || is_scarcity(cause_.number)) return;
  make(spot_.name, DefaultMode);
}

void Replacement::open_existing(int source) {
  struct ::stat read = {};
  const bool reads = source >= 0 && ::fstat(source, &read) == 0;
  same_ = reads && same_inode(read, spot_.info);
  if (same_) return;
  const char *name = spot_.name.c_str();
  if (!admitted(spot_.info, Allow::Target)) {
    cause_ = last_cause();
    return;
  }
  old_ = open_at_once(spot_.at(), name, O_WRONLY | spot_.follow);
  cause_ = old_ ? Cause{} : last_cause();
  // A program that runs cannot be written to, but it can be replaced.
  const bool busy = cause_.number == ETXTBSY;
  if (busy) old_ = open_at_once(spot_.at(), name, O_RDONLY | spot_.follow);
  struct ::stat old = {};
  if (!old_ || ::fstat(old_.get(), &old) != 0 || !admitted(old, Allow::Target)) {
    if (!cause_) cause_ = last_cause();
    return;
  }
  same_ = reads && same_inode(read, old);
  spot_.info = old;
  if (same_ || open_beside(old) || busy || cause_) return;
  open_in_place(old);
}

/// Creates a file that must not be there.
bool Replacement::make(const std::string &name, ::mode_t mode) {
  out_ = open_at_once(spot_.at(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, mode);
  cause_ = out_ ? Cause{} : last_cause();
  if (out_) made_ = name;
  return static_cast<bool>(out_);
}

/// False, with the cause, when no file can be made beside.
bool Replacement::make_beside(::mode_t mode) {
  if (spot_.name.back() == Sep) return false; // no file can have this name
  const std::string name = "." + spot_.name + ".installer-new";
  if (make(name, mode)) return true;
  // One that is there was left behind by a run that was killed.
  if (cause_.number != EEXIST) return false;
  if (::unlinkat(spot_.at(), name.c_str(), 0) == 0) return make(name, mode);
  cause_ = last_cause();
  return false;
}

/// False: the file is to be written in place, or, with a cause, not at all.
bool Replacement::open_beside(const struct ::stat &old) {
  if (!S_ISREG(old.st_mode) || old.st_nlink != 1 || spot_.linked || is_mount_point(old_.get()))
    return false;
  const Cause before = cause_;
  if (!make_beside(first_mode(old.st_mode))) {
    if (!is_scarcity(cause_.number)) cause_ = before;
    return false;
  }
  const bool given = give_all(old, old_.get(), out_.get(), fragile_, new_);
  if (given && !fragile_) old_ = Descriptor{};
  if (given) return true;
  cause_ = is_scarcity(errno) ? last_cause() : before;
  discard();
  return false;
}

void Replacement::open_in_place(const struct ::stat &old) {
  if (S_ISREG(old.st_mode) && ::ftruncate(old_.get(), 0) != 0) cause_ = last_cause();
  else out_ = std::move(old_);
}

/// Asks which file was made, while it is open.
void Replacement::identify() {
  const bool unknown = !made_.empty() && new_.st_nlink == 0;
  if (unknown && out_ && ::fstat(out_.get(), &new_) != 0) new_ = {};
}

/// Why the file that was made no longer has its name: another run has put its own there.
Cause Replacement::lost() const {
  struct ::stat info = {};
  const bool there = ::fstatat(spot_.at(), made_.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0;
  if (there && same_inode(info, new_)) return {};
  return there || errno == ENOENT ? Overtaken : last_cause();
}

void Replacement::discard() {
  identify();
  if (!made_.empty() && !lost()) ::unlinkat(spot_.at(), made_.c_str(), 0);
  made_.clear();
  out_ = Descriptor{};
}

std::size_t Replacement::write(const char *data, std::size_t size) {
  std::size_t written = 0;
  while (written < size) {
    const ::ssize_t count = ::write(out_.get(), data + written, size - written);
    if (count <= 0) {
      cause_ = count < 0 ? last_cause() : Cause{EIO};
      break;
    }
    written += static_cast<std::size_t>(count);
  }
  return written;
}

Stream Replacement::stream() {
  Descriptor second{::fcntl(out_.get(), F_DUPFD_CLOEXEC, 0)};
  Stream stream{second ? ::fdopen(second.get(), "w") : nullptr};
  if (stream) second.release();
  else cause_ = last_cause();
  return stream;
}

Cause Replacement::finish_contents() {
  const bool given =
      made_.empty() || !fragile_ || give_all(spot_.info, old_.get(), out_.get(), fragile_, new_);
  Cause cause = given ? Cause{} : last_cause();
  identify();
  if (!out_.close() && given) cause = last_cause();
  return cause;
}

/// Gives the file that was made beside its place the name of that.
Cause Replacement::take_name() {
  if (made_.empty() || made_ == spot_.name) return {};
  if (const Cause cause = lost()) return cause;
  const char *name = spot_.name.c_str();
  const bool named = spot_.exists() ? ::renameat(spot_.at(), made_.c_str(), spot_.at(), name) == 0
                                    : rename_new(spot_.at(), made_.c_str(), name);
  return named ? Cause{} : last_cause();
}

bool Replacement::commit() {
  cause_ = finish_contents();
  if (!cause_) cause_ = take_name();
  if (!cause_) made_.clear();
  return !cause_;
}

Cause write_text(const char *file, const std::function<const char *()> &value) {
  Replacement out{file};
  if (!out) return out.cause();
  const char *text = or_empty(value());
  const std::size_t size = std::strlen(text);
  if (out.write(text, size) == size && out.commit()) return {};
  return out.cause();
}

} // namespace installer
