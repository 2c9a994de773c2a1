#include "installer/file.h"

#include "installer/log.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <utility>

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

namespace installer {

/// A path, and how to reach what it names: `name` relative to the open directory `dir`.
struct Place {
  const char *path;
  const char *name;
  int dir = AT_FDCWD;
  bool regular = false; // a listing said so
  bool follow = true;   // a directory may be reached through a link

  [[nodiscard]] Entries list(const char *wild, Walk walk) const { return {*this, wild, walk}; }
};

namespace {

/// The unit in which copied bytes are counted.
constexpr std::size_t ChunkSize = 8192;
/// What one read or write takes: many chunks, for a system call costs as much as copying several.
/// Twice as many make kernels use larger pieces of memory, which are slower to get than they save.
constexpr std::size_t BlockSize = 8 * ChunkSize;
constexpr ::mode_t DirectoryPermissions = 0775;
constexpr ::mode_t FilePermissions = 0666;
constexpr ::mode_t PermissionBits = 07777;

FileCallback ok = nullptr;
FileCallback fail = nullptr;

/// Device and inode of the directories that the running copy made or fills.
std::set<std::pair<::dev_t, ::ino_t>> filled;
int fillings = 0;

void call(FileCallback callback, const char *src, const char *dst, int mode) {
  if (callback != nullptr) callback(src, dst, mode);
}

Place by_path(const char *path) { return {path, path}; }

Place by_entry(const file &x) {
  return {x.name, x.name + x.entry, x.dir, S_ISREG(x.info.st_mode), false};
}

// ---- Enumeration ----

bool open_handle(xfilehandle &h, const Place &place, const char *wild) {
  const int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (place.follow ? 0 : O_NOFOLLOW);
  Descriptor fd{::openat(place.dir, place.name, flags)};
  if (fd) h.handle.reset(::fdopendir(fd.get()));
  if (!h.handle) {
    file_error("Error opening dir '%s'", place.path);
    return false;
  }
  fd.release();
  h.path = place.path;
  h.wild = wild;
  h.literal = !has_wildcard(wild);
  return true;
}

void report_unlisted(xfilehandle &h, const char *name) {
  h.incomplete = true;
  if (h.report) call(fail, name, nullptr, 1);
}

/// The next name that may match, with its type if the listing knows it; null at the end.
const char *next_name(xfilehandle &h, ::mode_t &type) {
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
  if (errno != 0) {
    file_error("Error reading dir '%s'", h.path.c_str());
    report_unlisted(h, h.path.c_str());
  }
  return nullptr;
}

/// Fills `x` from the entry `name`. False: it is not there (any more) or its path does not fit.
bool take_entry(file &x, xfilehandle &h, const char *name, ::mode_t type) {
  file found;
  found.dir = ::dirfd(h.handle.get());
  found.info.st_mode = type;
  if (type == 0 && ::fstatat(found.dir, name, &found.info, AT_SYMLINK_NOFOLLOW) != 0) return false;
  if (join_path(found.name, sizeof found.name, h.path.c_str(), name) == 0) {
    file_error("Error listing '%s' in '%s'", name, h.path.c_str());
    report_unlisted(h, name);
    return false;
  }
  found.entry = static_cast<std::uint32_t>(std::strlen(found.name) - std::strlen(name));
  if (h.status && file_stat(&found) == 0) return false;
  x = std::move(found);
  return true;
}

bool is_dots(const char *name) {
  return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

// ---- Copying ----

Descriptor open_source(const Place &src) {
  if (!src.regular) return open_file(src.dir, src.name, O_RDONLY, Allow::Plain);
  // No status call for what the listing called a regular file; should it have been replaced since,
  // these flags neither block nor follow, and `still_plain` finds out.
  const int flags = O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC;
  return Descriptor{::openat(src.dir, src.name, flags)};
}

/// False, with errno set, when what was opened is no plain file. A pipe has no first byte and a
/// device no last one, so that only an empty or a full first block needs to be asked about.
bool still_plain(const Descriptor &source) {
  struct ::stat info = {};
  return ::fstat(source.get(), &info) == 0 && admitted(info, Allow::Plain);
}

/// Opens the destination for writing. A new file is the usual case; only an existing one can be
/// the source itself (then `same`, and nothing is opened) or unfit.
Descriptor open_target(const char *dst, int source, bool &same) {
  Descriptor out{::open(dst, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, FilePermissions)};
  if (out || errno != EEXIST) return out;
  struct ::stat source_info = {};
  struct ::stat info = {};
  const bool exists = ::stat(dst, &info) == 0;
  same = exists && ::fstat(source, &source_info) == 0 && same_inode(info, source_info);
  if (same) return out;
  return open_known(AT_FDCWD, dst, exists ? &info : nullptr, O_WRONLY | O_CREAT | O_TRUNC,
                    Allow::Target);
}

/// Reads until the block is full, the file ends or reading fails; the bytes read.
std::size_t fill_block(int fd, char *block, bool &failed) {
  std::size_t used = 0;
  while (used < BlockSize) {
    const ::ssize_t count = ::read(fd, block + used, BlockSize - used);
    failed = count < 0;
    if (count <= 0) break;
    used += static_cast<std::size_t>(count);
  }
  return used;
}

/// The bytes written, fewer than `size` when writing fails.
std::size_t write_block(int fd, const char *block, std::size_t size) {
  std::size_t written = 0;
  while (written < size) {
    const ::ssize_t count = ::write(fd, block + written, size - written);
    if (count <= 0) break;
    written += static_cast<std::size_t>(count);
  }
  return written;
}

int read_failed(const Place &src) {
  file_error("Error reading from '%s'", src.path);
  return 0;
}

int write_failed(const char *dst) {
  file_error("Error writing to '%s'", dst);
  return 0;
}

/// Writes the first block, `size` bytes that have been read, and all that follow.
int copy_blocks(const Place &src, const Descriptor &in, const char *dst, Descriptor &out,
                char *block, std::size_t size, std::uint64_t *bytes) {
  bool failed = false;
  while (size > 0) {
    const std::size_t written = write_block(out.get(), block, size);
    if (bytes != nullptr) *bytes += written == size ? size : written - written % ChunkSize;
    if (written < size) return write_failed(dst);
    if (failed || size < BlockSize) break;
    size = fill_block(in.get(), block, failed);
  }
  if (failed) return read_failed(src);
  return out.close() ? 1 : write_failed(dst);
}

int copy_contents(const Place &src, const char *dst, std::uint64_t *bytes) {
  const Descriptor in = open_source(src);
  if (!in) {
    file_error("Error opening '%s' for read", src.path);
    return 0;
  }
  char block[BlockSize];
  bool failed = false;
  const std::size_t size = fill_block(in.get(), block, failed);
  if (failed) return read_failed(src);
  if (src.regular && size % BlockSize == 0 && !still_plain(in)) {
    file_error("Error opening '%s' for read", src.path);
    return 0;
  }
  bool same = false;
  Descriptor out = open_target(dst, in.get(), same);
  if (same) {
    imsg("'%s' and '%s' are the same file, nothing to copy", src.path, dst);
    return 1;
  }
  if (!out) {
    file_error("Error opening '%s' for write", dst);
    return 0;
  }
  return copy_blocks(src, in, dst, out, block, size, bytes);
}

int copy_file(const Place &src, const char *dst, std::uint64_t *bytes) {
  errno = 0;
  const int copied = copy_contents(src, dst, bytes);
  if (copied != 0) errno = 0;
  call(copied != 0 ? ok : fail, src.path, dst, 1);
  return copied;
}

/// The path of the entry in the directory `into`. 0, reported as a failed copy, when it does not
/// fit.
int target_path(const file &x, const char *into, char (&target)[PathSize]) {
  if (join_path(target, sizeof target, into, entry_name(x)) != 0) return 1;
  file_error("Error copying '%s' into '%s'", x.name, into);
  call(fail, x.name, into, 1);
  return 0;
}

void note_filled(const char *directory) {
  const KeepErrno keep;
  struct ::stat info = {};
  if (::stat(directory, &info) == 0) filled.emplace(info.st_dev, info.st_ino);
}

bool is_filled(const file &x) {
  struct ::stat info = {};
  if (::fstatat(x.dir, x.name + x.entry, &info, AT_SYMLINK_NOFOLLOW) != 0) return false;
  return filled.contains({info.st_dev, info.st_ino});
}

/// Creates one level.
bool make_level(const char *path) {
  if (::mkdir(path, DirectoryPermissions) != 0) return false;
  dmsg("Directory created '%s'", path);
  if (fillings > 0) note_filled(path);
  call(ok, path, nullptr, 1);
  return true;
}

int failed_directory(const char *path) {
  file_error("Error creating directory '%s'", path);
  call(fail, path, nullptr, 1);
  return 0;
}

/// Copies a directory's path. 0 for null, or, as a directory that cannot be created, when it does
/// not fit.
int take_path(const char *dir, char (&path)[PathSize]) {
  if (dir == nullptr) return 0;
  if (dir[scpy(path, dir, sizeof path)] == '\0') return 1;
  errno = ENAMETOOLONG;
  return failed_directory(dir);
}

/// Where the first component of a path may end, behind a leading "/" or a drive.
std::size_t first_end(const char *path) {
  return std::min<std::size_t>(std::strlen(path), *path != '\0' && path[1] == ':' ? 3 : 1);
}

/// Creates the missing parents of `path`. `cause`: why the first that could not be created was not.
bool make_parents(char *path, int &cause) {
  bool created = false;
  for (std::size_t i = first_end(path); path[i] != '\0'; ++i) {
    if (path[i] != Sep) continue;
    path[i] = '\0';
    if (make_level(path)) created = true;
    else if (errno != EEXIST && cause == 0) cause = errno;
    path[i] = Sep;
  }
  return created;
}

/// file_mkdir for a path in which only "/" separates: an entry's name may hold a "\\".
int make_directory(char *path, bool make_all) {
  errno = 0;
  bool parents = false;
  bool there = make_level(path);
  // Only then is a parent missing; trying them all each time would cost more than the directory.
  if (!there && make_all && errno == ENOENT) {
    int cause = 0;
    parents = make_parents(path, cause);
    there = make_level(path);
    if (!there && errno == ENOENT && cause != 0) errno = cause;
  }
  // Something was created even where only some of the parents were, but not without a word.
  if (!there && errno != EEXIST) return failed_directory(path) + static_cast<int>(parents);
  errno = 0;
  return 1;
}

int copy_tree(const Place &src, const char *wild, const char *exclude, char *dst, bool recurse,
              std::uint64_t *bytes);

int copy_directory(const file &x, const char *exclude, const char *into, bool recurse,
                   std::uint64_t *bytes) {
  if (recurse && is_filled(x)) {
    imsg("'%s' is being copied to, not copied", x.name);
    return 0;
  }
  char target[PathSize];
  if (target_path(x, into, target) == 0) return 0;
  if (!recurse) return make_directory(target, true);
  return copy_tree(by_entry(x), "*", exclude, target, true, bytes);
}

int copy_tree(const Place &src, const char *wild, const char *exclude, char *dst, bool recurse,
              std::uint64_t *bytes) {
  Filling filling;
  int count = 0;
  if (file_exist(dst) == 0) {
    if (make_directory(dst, true) == 0) return 0;
    count = 1;
  } else {
    filling.add(dst);
  }
  for (File entry : src.list(wild, Walk::Copies)) {
    if (wild_list(entry_name(*entry), exclude) != 0) continue;
    if (is_dir(*entry)) count += copy_directory(*entry, exclude, dst, recurse, bytes);
    else count += file_copy_entry(entry, dst, bytes);
  }
  return count;
}

// ---- Removal ----

int remove_tree(const Place &dir, const char *exclude, bool recurse);

int remove_listed(const file &x, const char *exclude) {
  const int removed = is_dir(x) ? remove_tree(by_entry(x), exclude, true)
                                : static_cast<int>(::unlinkat(x.dir, entry_name(x), 0) == 0);
  call(removed != 0 ? ok : fail, x.name, nullptr, 0);
  return removed;
}

int remove_tree(const Place &dir, const char *exclude, bool recurse) {
  int count = 0;
  if (recurse) {
    for (File entry : dir.list("*", Walk::Types))
      if (wild_list(entry_name(*entry), exclude) == 0) count += remove_listed(*entry, exclude);
  }
  const bool removed = ::unlinkat(dir.dir, dir.name, AT_REMOVEDIR) == 0;
  call(removed ? ok : fail, dir.path, nullptr, 0);
  return count + static_cast<int>(removed);
}

} // namespace

void file_setup_fn(FileCallback xok, FileCallback xfail) {
  ok = xok;
  fail = xfail;
}

void file_error(const char *format, ...) {
  if (format == nullptr) return;
  const KeepErrno keep;
  std::va_list arg;
  va_start(arg, format);
  const Message message = make_message(format, arg);
  va_end(arg);
  emsg("%s, %s", message.text, std::strerror(errno));
}

File file_first(FHandle *h, const char *path, const char *wild) {
  if (h != nullptr) *h = nullptr;
  if (h == nullptr || path == nullptr || wild == nullptr) return nullptr;
  *h = new xfilehandle;
  File x = new file;
  if (open_handle(**h, by_path(path), wild) && file_next(x, *h) == 1) return x;
  file_free(&x);
  file_last(h);
  return nullptr;
}

int file_next(File x, FHandle h) {
  if (x == nullptr || h == nullptr || !h->handle) return 0;
  ::mode_t type = 0;
  while (const char *name = next_name(*h, type)) {
    if (is_dots(name) || wild_match(name, h->wild.c_str()) == 0) continue;
    if (take_entry(*x, *h, name, type)) return 1;
  }
  return 0;
}

void file_last(FHandle *h) { drop(h); }

void file_free(File *x) { drop(x); }

int file_stat(File x) {
  if (x == nullptr) return 0;
  x->link.reset();
  if (::fstatat(x->dir, x->name + x->entry, &x->info, AT_SYMLINK_NOFOLLOW) != 0) return 0;
  if (!S_ISLNK(x->info.st_mode)) return 1;
  char text[PathSize];
  const ::ssize_t count = ::readlinkat(x->dir, x->name + x->entry, text, sizeof text - 1);
  if (count < 0) file_error("Error reading symlink '%s'", x->name);
  x->link = count < 0 ? "READLINK FAILED" : std::string(text, static_cast<std::size_t>(count));
  return 1;
}

const char *file_name(File x) { return x ? x->name : nullptr; }

char *file_filename(File x, char *buffer, std::size_t bfsz) {
  if (x == nullptr) return nullptr;
  scpy(buffer, entry_name(*x), bfsz);
  return buffer;
}

const char *entry_name(const file &x) {
  if (x.entry != 0) return x.name + x.entry;
  const char *separator = last_separator(x.name);
  return separator != nullptr ? separator + 1 : x.name;
}

bool is_dir(const file &x) { return S_ISDIR(x.info.st_mode); }

Entries::Entries(const Place &place, const char *wild, Walk walk) {
  handle_.status = false;
  handle_.report = walk == Walk::Copies;
  const bool opened = open_handle(handle_, place, wild);
  // A directory that was named is for the caller to judge; one met on the way is a part left out.
  if (!opened && handle_.report && place.dir != AT_FDCWD) call(fail, place.path, nullptr, 1);
  more_ = opened && file_next(&entry_, &handle_) == 1;
}

Entries::Entries(const char *path, const char *wild, Walk walk)
    : Entries(by_path(path), wild, walk) {}

Entries::Entries(const file &directory, Walk walk) : Entries(by_entry(directory), "*", walk) {}

int file_copy(const char *src, const char *dst, int overwrite, std::uint64_t *bytes) {
  errno = 0;
  if (src == nullptr || dst == nullptr) {
    call(fail, src, dst, 1);
    return 0;
  }
  struct ::stat info = {};
  if (overwrite == 0 && ::stat(dst, &info) == 0) return -1;
  return copy_file(by_path(src), dst, bytes);
}

int file_xcopy(const char *path, const char *wild, const char *exclude, const char *dst,
               int recurse, std::uint64_t *bytes) {
  char target[PathSize];
  if (path == nullptr || take_path(dst, target) == 0) return 0;
  setsep(target, Sep);
  return copy_tree(by_path(path), wild ? wild : "*", exclude, target, recurse != 0, bytes);
}

int file_copy_entry(File entry, const char *into, std::uint64_t *bytes) {
  char target[PathSize];
  if (target_path(*entry, into, target) == 0) return 0;
  return copy_file(by_entry(*entry), target, bytes);
}

int file_xcopy_entry(File entry, const char *exclude, const char *into, std::uint64_t *bytes) {
  return copy_directory(*entry, exclude, into, true, bytes);
}

Filling::Filling() { ++fillings; }

Filling::~Filling() {
  if (--fillings == 0) filled.clear();
}

void Filling::add(const char *directory) { note_filled(directory); }

int file_exist(const char *file) {
  if (file == nullptr) return 0;
  struct ::stat info = {};
  if (::stat(file, &info) != 0) {
    dmsg("'%s' does not exist", file);
    return 0;
  }
  const bool directory = S_ISDIR(info.st_mode);
  dmsg("'%s' exists and is a %s", file, directory ? "directory" : "file");
  return directory ? 2 : 1;
}

int file_mkdir(const char *dir, int make_all) {
  char path[PathSize];
  if (take_path(dir, path) == 0) return 0;
  const std::size_t length = std::strlen(path);
  const bool root = std::strcmp(path, "/") == 0;
  if (length > 0 && !root && last_separator(path) == path + length - 1) path[length - 1] = '\0';
  if (make_all != 0) setsep(path + first_end(path), Sep);
  return make_directory(path, make_all != 0);
}

int file_rmdir(const char *dir, const char *exclude, int recurse) {
  return dir != nullptr ? remove_tree(by_path(dir), exclude, recurse != 0) : 0;
}

int file_rmdir_entry(File entry, const char *exclude) {
  return remove_tree(by_entry(*entry), exclude, true);
}

int file_remove_entry(File entry) {
  return ::unlinkat(entry->dir, entry_name(*entry), 0) == 0 ? 1 : 0;
}

::uid_t file_getuid(const char *name) {
  const struct ::passwd *user = name ? ::getpwnam(name) : nullptr;
  return user ? user->pw_uid : static_cast<::uid_t>(-1);
}

::gid_t file_getgid(const char *name) {
  const struct ::group *group = name ? ::getgrnam(name) : nullptr;
  return group ? group->gr_gid : static_cast<::gid_t>(-1);
}

int file_chmod(File x, ::mode_t mode) {
  if (x == nullptr) return 0;
  if (::fchmodat(x->dir, x->name + x->entry, mode & PermissionBits, 0) == 0) return 1;
  file_error("Error changing mode of '%s' to %d", x->name, static_cast<int>(mode));
  return 0;
}

int file_chown(File x, ::uid_t uid, ::gid_t gid) {
  if (x == nullptr || uid == static_cast<::uid_t>(-1)) return 0;
  if (gid == static_cast<::gid_t>(-1)) gid = uid;
  if (::fchownat(x->dir, x->name + x->entry, uid, gid, 0) == 0) return 1;
  file_error("Error changing ownership of '%s' to uid=%d, gid=%d", x->name, static_cast<int>(uid),
             static_cast<int>(gid));
  return 0;
}

} // namespace installer
