#include "installer/file.h"

#include "installer/file_parts.h"
#include "installer/links.h"
#include "installer/log.h"

#include <algorithm>
#include <cstring>

#include <grp.h>
#include <pwd.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace installer {

namespace {

constexpr ::mode_t DirectoryPermissions = 0775;
constexpr ::mode_t PermissionBits = 07777;

constexpr Cause LinkToRoot = {EPERM, "it is a link to the root directory"};

FileCallback ok = nullptr;
FileCallback fail = nullptr;

/// The one place where errno is set for the callbacks.
void call(FileCallback callback, const char *src, const char *dst, int mode, const Cause &cause) {
  errno = cause.number;
  if (callback != nullptr) callback(src, dst, mode);
}

// ---- Directories ----

/// A link that cannot be followed is there all the same.
bool is_there(const char *path) {
  const Spot place = find_place(AT_FDCWD, path);
  struct ::stat info = {};
  return !place.cause && ::fstatat(place.at(), place.name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0;
}

Cause make_level(Copying &c, const char *path) {
  const Spot spot = find_spot(AT_FDCWD, path);
  return spot.cause && is_there(path) ? Cause{EEXIST} : make_level(c, spot, path);
}

/// Tells the sink when what is there is no directory and leads to none.
void judge_existing(const Copying &c, const char *path) {
  if (c.sink == nullptr) return;
  const Spot spot = find_spot(AT_FDCWD, path);
  if (!spot.cause && spot.exists() && S_ISDIR(spot.info.st_mode)) return;
  file_event(c.sink, {FileResult::Failed, "cannot create directory", path,
                      spot.cause ? spot.cause : Cause{EEXIST}});
}

/// Where the first component of a path may end, behind a leading "/" or a drive.
std::size_t first_end(const std::string &path) {
  return std::min<std::size_t>(path.size(), path.size() > 1 && path[1] == ':' ? 3 : 1);
}

/// Creates the missing parents of `path`. `cause`: why the first that could not be created was not.
bool make_parents(Copying &c, const std::string &path, Cause &cause) {
  bool created = false;
  for (std::size_t i = first_end(path); i < path.size(); ++i) {
    if (path[i] != Sep) continue;
    const Cause level = make_level(c, path.substr(0, i).c_str());
    if (!level) created = true;
    else if (level.number != EEXIST && !cause) cause = level;
  }
  return created;
}

// ---- Removal ----

struct Removing {
  const char *exclude;
  const FileSink *sink;
};

/// `kept`: an excluded entry stays below; `cause`: why the directory does.
struct Removed {
  int count = 0;
  bool kept = false;
  Cause cause;
};

Removed remove_tree(const Removing &r, const Place &dir, Entries *entries);

void report_removed(const Removing &r, const char *path, const Removed &removed) {
  if (!removed.cause) file_event(r.sink, {FileResult::Done, "removed", path, {}});
  else if (removed.kept) file_event(r.sink, {FileResult::Kept, "kept", path, {}});
  else file_event(r.sink, {FileResult::Failed, "cannot remove", path, removed.cause});
  call(removed.cause ? fail : ok, path, nullptr, 0, removed.cause);
}

Removed remove_entry(const file &x) {
  if (::unlinkat(x.dir, name_at(x), 0) == 0) return {1, false, {}};
  return {0, false, last_cause()};
}

MissedSink missed_removal(const Removing &r) {
  return [&r](const Missed &missed) {
    if (!excluded_below(missed.name, r.exclude)) file_missed(r.sink, missed, false);
  };
}

Removed remove_directory(const Removing &r, const file &x) {
  Entries entries{x, missed_removal(r)};
  return remove_tree(r, by_entry(x), &entries);
}

Removed remove_listed(const Removing &r, const file &x) {
  if (!is_dir(x)) {
    const Removed removed = remove_entry(x);
    report_removed(r, x.name, removed);
    return removed;
  }
  const Removed removed = remove_directory(r, x);
  call(removed.count != 0 ? ok : fail, x.name, nullptr, 0, removed.cause);
  return removed;
}

/// `entries`: null leaves what is in the directory.
Removed remove_tree(const Removing &r, const Place &dir, Entries *entries) {
  Removed all;
  if (entries != nullptr) {
    for (File entry : *entries) {
      const bool keeps = excluded_below(entry_name(*entry), r.exclude);
      const Removed removed = keeps ? Removed{0, true, {}} : remove_listed(r, *entry);
      all.count += removed.count;
      all.kept = all.kept || removed.kept;
    }
  }
  if (::unlinkat(dir.dir, dir.name, AT_REMOVEDIR) == 0) ++all.count;
  else all.cause = last_cause();
  report_removed(r, dir.path, all);
  return all;
}

// ---- Owners and modes ----

/// What is to be changed, held without opening it: that may need a right to read, or set off a
/// device. `cause`: why it is not held, which a link that took its place never is.
struct Held {
  Descriptor fd;
  struct ::stat info = {};
  Cause cause;
};

Held hold(int dir, const char *name, int follow) {
  Held held{Descriptor{::openat(dir, name, O_PATH | O_CLOEXEC | follow)}, {}, {}};
  if (!held.fd || ::fstat(held.fd.get(), &held.info) != 0) held.cause = last_cause();
  else if (S_ISLNK(held.info.st_mode)) held.cause = UntrustedLink;
  return held;
}

/// Linux fchmodat2, which old kernels and C libraries do not have.
constexpr long Fchmodat2 = 452;

/// The way of old kernels, for which /proc has a name of what is held.
Cause change_held_mode(int dir, const char *name, ::mode_t mode, int follow) {
  const Held held = hold(dir, name, follow);
  if (held.cause) return held.cause;
  if (::chmod(("/proc/self/fd/" + std::to_string(held.fd.get())).c_str(), mode) == 0) return {};
  if (errno != ENOENT) return last_cause();
  // A system that is only being set up may lack /proc. Nothing else is safe to be opened.
  if (!S_ISREG(held.info.st_mode) && !S_ISDIR(held.info.st_mode)) return {ENOTSUP};
  const Descriptor fd = open_at_once(dir, name, O_RDONLY | follow);
  return fd && ::fchmod(fd.get(), mode) == 0 ? Cause{} : last_cause();
}

Cause change_mode(int dir, const char *name, ::mode_t mode, int follow) {
  const int flags = follow != 0 ? AT_SYMLINK_NOFOLLOW : 0;
  if (::syscall(Fchmodat2, dir, name, mode, flags) == 0) return {};
  const Cause cause = last_cause();
  // EPERM also comes from a sandbox that does not know the call.
  if (cause.number != ENOSYS && cause.number != EPERM) return cause;
  const Cause other = change_held_mode(dir, name, mode, follow);
  return other && cause.number == EPERM ? cause : other;
}

/// A link that took the entry's place must not become the new owner's: it would be trusted.
Cause change_owner(int dir, const char *name, ::uid_t uid, ::gid_t gid, int follow) {
  const Held held = hold(dir, name, follow);
  if (held.cause) return held.cause;
  return ::fchownat(held.fd.get(), "", uid, gid, AT_EMPTY_PATH) == 0 ? Cause{} : last_cause();
}

/// What a look-up that found nothing may leave in errno when it could not be made. It leaves other
/// numbers there by chance.
constexpr int lookup_errors[] = {EACCES, EINTR, EIO, EMFILE, ENFILE, ENOMEM, ERANGE};

void explain_lookup(Cause *cause) {
  const int *end = std::end(lookup_errors);
  if (cause != nullptr && std::find(std::begin(lookup_errors), end, errno) != end)
    *cause = last_cause();
}

bool is_root(const struct ::stat &info) {
  struct ::stat root = {};
  return ::stat("/", &root) == 0 && same_inode(info, root);
}

/// Calls `change(dir, name, flag)` for what the entry is or leads to.
template <class Change> Cause change_entry(const file &x, Change change) {
  const ::mode_t type = x.info.st_mode & S_IFMT;
  if (type != 0 && type != S_IFLNK) return change(x.dir, name_at(x), O_NOFOLLOW);
  const Spot spot = find_spot(x.dir, name_at(x));
  if (spot.cause) return spot.cause;
  if (!spot.exists()) return {ENOENT};
  if (spot.linked && is_root(spot.info)) return LinkToRoot;
  return change(spot.at(), spot.name.c_str(), spot.follow);
}

} // namespace

void call_ok(const char *src, const char *dst, int mode) { call(ok, src, dst, mode, {}); }

void call_fail(const char *src, const char *dst, int mode, const Cause &cause) {
  call(fail, src, dst, mode, cause);
}

Cause make_level(Copying &c, const Spot &spot, const char *path) {
  if (spot.cause) return spot.cause;
  if (spot.linked || spot.exists()) return {EEXIST};
  if (::mkdirat(spot.at(), spot.name.c_str(), DirectoryPermissions) != 0) return last_cause();
  dmsg("Directory created '%s'", path);
  note_filled(c, spot.at(), spot.name.c_str(), AT_SYMLINK_NOFOLLOW);
  file_event(c.sink, {FileResult::Done, "created", path, {}});
  call(ok, path, nullptr, 1, {});
  return {};
}

void note_filled(Copying &c, int dir, const char *name, int flags) {
  struct ::stat info = {};
  if (::fstatat(dir, name, &info, flags) == 0) c.filled.emplace(info.st_dev, info.st_ino);
}

void report_directory(const Copying &c, const char *path, const Cause &cause) {
  file_failure(c.sink, "cannot create directory", path, cause, "Error creating directory '%s'",
               path);
  call(fail, path, nullptr, 1, cause);
}

int make_directory(Copying &c, const std::string &path, bool make_all) {
  Cause cause = make_level(c, path.c_str());
  bool parents = false;
  // Only then is a parent missing; trying them all each time would cost more than the directory.
  if (make_all && cause.number == ENOENT) {
    Cause above;
    parents = make_parents(c, path, above);
    cause = make_level(c, path.c_str());
    if (cause.number == ENOENT && above) cause = above;
  }
  if (cause.number == EEXIST) judge_existing(c, path.c_str());
  if (!cause || cause.number == EEXIST) return 1;
  report_directory(c, path.c_str(), cause);
  // Something was created even where only some of the parents were, but not without a word.
  return parents ? 1 : 0;
}

bool takes_path(const Copying &c, const char *dir) {
  if (dir == nullptr) return false;
  if (std::strlen(dir) < PathSize) return true;
  report_directory(c, dir, {ENAMETOOLONG});
  return false;
}

std::string trimmed(const char *dir) {
  std::string path{dir};
  while (path.size() > 1 && last_separator(path.c_str()) == &path.back()) path.pop_back();
  return path;
}

bool excluded_below(const char *name, const char *exclude) { return wild_list(name, exclude) != 0; }

void log_existence(const char *path, bool exists, ::mode_t mode) {
  if (!exists) dmsg("'%s' does not exist", path);
  else dmsg("'%s' exists and is a %s", path, S_ISDIR(mode) ? "directory" : "file");
}

void file_setup_fn(FileCallback xok, FileCallback xfail) {
  ok = xok;
  fail = xfail;
}

void file_error(const char *format, ...) {
  if (format == nullptr) return;
  const int number = errno;
  std::va_list arg;
  va_start(arg, format);
  const Message message = make_message(format, arg);
  va_end(arg);
  emsg("%s, %s", message.text, std::strerror(number));
}

void file_event(const FileSink *sink, const FileEvent &event) {
  if (sink != nullptr && *sink) (*sink)(event);
}

int file_failure(const FileSink *sink, const char *what, const char *path, const Cause &cause,
                 const char *line, ...) {
  std::va_list arg;
  va_start(arg, line);
  emsg_cause(cause, "%s", make_message(line, arg).text);
  va_end(arg);
  file_event(sink, {FileResult::Failed, what, path, cause});
  return 0;
}

void file_missed(const FileSink *sink, const Missed &missed, bool fails) {
  const char *const dir = missed.path;
  const char *const path = missed.name != nullptr ? missed.name : dir;
  if (missed.unread) {
    const std::string whole =
        std::string{dir} + (*dir != '\0' && dir[std::strlen(dir) - 1] == Sep ? "" : "/") + path;
    return file_event(sink,
                      {FileResult::Failed, "cannot read the status", whole.c_str(), missed.cause});
  }
  if (missed.opening)
    file_failure(sink, "cannot list", path, missed.cause, "Error opening dir '%s'", dir);
  else if (missed.name == nullptr)
    file_failure(sink, "cannot list", path, missed.cause, "Error reading dir '%s'", dir);
  else
    file_failure(sink, "cannot list", path, missed.cause, "Error listing '%s' in '%s'", missed.name,
                 dir);
  if (fails) call(fail, path, nullptr, 1, missed.cause);
}

MissedSink log_missed() {
  return [](const Missed &missed) { file_missed(nullptr, missed, false); };
}

File file_first(FHandle *h, const char *path, const char *wild) {
  if (h != nullptr) *h = nullptr;
  if (h == nullptr || path == nullptr || wild == nullptr) return nullptr;
  *h = new xfilehandle;
  File x = new file;
  if (open_listing(**h, path, wild, log_missed()) && file_next(x, *h) == 1) return x;
  file_free(&x);
  file_last(h);
  return nullptr;
}

int file_next(File x, FHandle h) {
  if (x == nullptr || h == nullptr) return 0;
  file next;
  while (next_entry(next, *h, log_missed())) {
    next.dir = AT_FDCWD; // the entry may be used when the directory is closed
    if (file_stat(&next) == 0) continue;
    *x = std::move(next);
    return 1;
  }
  return 0;
}

void file_last(FHandle *h) { drop(h); }

void file_free(File *x) { drop(x); }

int file_stat(File x) {
  if (x == nullptr) return 0;
  Cause unread;
  if (read_status(*x, unread)) return 0;
  if (unread) emsg_cause(unread, "Error reading symlink '%s'", x->name);
  return 1;
}

const char *file_name(File x) { return x ? x->name : nullptr; }

char *file_filename(File x, char *buffer, std::size_t bfsz) {
  if (x == nullptr) return nullptr;
  scpy(buffer, entry_name(*x), bfsz);
  return buffer;
}

int file_exist(const char *file, Cause *cause) {
  if (file == nullptr) return 0;
  struct ::stat info = {};
  const bool exists = ::stat(file, &info) == 0;
  if (!exists && cause != nullptr) *cause = last_cause();
  log_existence(file, exists, info.st_mode);
  if (!exists) return 0;
  return S_ISDIR(info.st_mode) ? 2 : 1;
}

int file_mkdir(const char *dir, int make_all, const FileSink *sink) {
  Copying c{.sink = sink};
  if (!takes_path(c, dir)) return 0;
  std::string path = trimmed(dir);
  if (make_all != 0) setsep(path.data() + first_end(path), Sep);
  return make_directory(c, path, make_all != 0);
}

int file_rmdir(const char *dir, const char *exclude, int recurse) {
  if (dir == nullptr) return 0;
  const Removing r{exclude, nullptr};
  if (recurse == 0) return remove_tree(r, by_path(dir), nullptr).count;
  Entries entries{dir, "*", missed_removal(r)};
  return remove_tree(r, by_path(dir), &entries).count;
}

int file_rmdir_entry(const file &entry, const char *exclude, const FileSink *sink) {
  return remove_directory({exclude, sink}, entry).count;
}

int file_remove_entry(const file &entry, const FileSink *sink) {
  const Removed removed = remove_entry(entry);
  if (removed.cause)
    file_event(sink, {FileResult::Failed, "cannot remove", entry.name, removed.cause});
  else file_event(sink, {FileResult::Done, "removed", entry.name, {}});
  return removed.count;
}

::uid_t file_getuid(const char *name, Cause *cause) {
  errno = 0;
  const struct ::passwd *user = name ? ::getpwnam(name) : nullptr;
  if (user == nullptr) explain_lookup(cause);
  return user ? user->pw_uid : static_cast<::uid_t>(-1);
}

::gid_t file_getgid(const char *name, Cause *cause) {
  errno = 0;
  const struct ::group *group = name ? ::getgrnam(name) : nullptr;
  if (group == nullptr) explain_lookup(cause);
  return group ? group->gr_gid : static_cast<::gid_t>(-1);
}

int file_chmod(File x, ::mode_t mode, const FileSink *sink) {
  if (x == nullptr) return 0;
  const Cause cause = change_entry(*x, [=](int dir, const char *name, int follow) {
    return change_mode(dir, name, mode & PermissionBits, follow);
  });
  if (!cause) return 1;
  file_failure(sink, "cannot change mode", x->name, cause, "Error changing mode of '%s' to %d",
               x->name, static_cast<int>(mode));
  return 0;
}

int file_chown(File x, ::uid_t uid, ::gid_t gid, const FileSink *sink) {
  if (x == nullptr || uid == static_cast<::uid_t>(-1)) return 0;
  if (gid == static_cast<::gid_t>(-1)) gid = uid;
  const Cause cause = change_entry(*x, [=](int dir, const char *name, int follow) {
    return change_owner(dir, name, uid, gid, follow);
  });
  if (!cause) return 1;
  file_failure(sink, "cannot change owner", x->name, cause,
               "Error changing ownership of '%s' to uid=%d, gid=%d", x->name, static_cast<int>(uid),
               static_cast<int>(gid));
  return 0;
}

} // namespace installer
