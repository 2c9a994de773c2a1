#include "installer/file.h"

#include "installer/file_parts.h"
#include "installer/links.h"
#include "installer/log.h"
#include "installer/replace.h"

namespace installer {

namespace {

/// The unit in which copied bytes are counted.
constexpr std::size_t ChunkSize = 8192;
/// What one read or write takes: many chunks, for a system call costs as much as copying several.
/// Twice as many make kernels use larger pieces of memory, which are slower to get than they save.
constexpr std::size_t BlockSize = 8 * ChunkSize;

Descriptor open_source(const Place &src, Cause &cause) {
  if (!S_ISREG(src.type))
    return open_spot(find_spot(src.dir, src.name), O_RDONLY, Allow::Plain, 0, cause);
  // No status call for what the listing called a regular file; should it have been replaced since,
  // these flags neither block nor follow, and `still_plain` finds out.
  Descriptor fd = open_at_once(src.dir, src.name, O_RDONLY | O_NOFOLLOW);
  cause = fd ? Cause{} : last_cause();
  return fd;
}

/// False, with errno set, when what was opened is no plain file. A pipe has no first byte and a
/// device no last one, so that only an empty or a full first block needs to be asked about.
bool still_plain(const Descriptor &source) {
  struct ::stat info = {};
  return ::fstat(source.get(), &info) == 0 && admitted(info, Allow::Plain);
}

/// Reads until the block is full, the file ends or reading fails; the bytes read.
std::size_t fill_block(int fd, char *block, Cause &cause) {
  std::size_t used = 0;
  while (used < BlockSize) {
    const ::ssize_t count = ::read(fd, block + used, BlockSize - used);
    if (count < 0) cause = last_cause();
    if (count <= 0) break;
    used += static_cast<std::size_t>(count);
  }
  return used;
}

Cause failed_open(const Copying &c, const Place &src, const Cause &cause) {
  file_failure(c.sink, "cannot read", src.path, cause, "Error opening '%s' for read", src.path);
  return cause;
}

Cause failed_read(const Copying &c, const Place &src, const Cause &cause) {
  file_failure(c.sink, "cannot read", src.path, cause, "Error reading from '%s'", src.path);
  return cause;
}

Cause failed_create(const Copying &c, const Place &dst, const Cause &cause) {
  file_failure(c.sink, "cannot write", dst.path, cause, "Error opening '%s' for write", dst.path);
  return cause;
}

Cause failed_write(const Copying &c, const Place &dst, const Cause &cause) {
  file_failure(c.sink, "cannot write", dst.path, cause, "Error writing to '%s'", dst.path);
  return cause;
}

/// Writes the first block, `size` bytes that have been read, and all that follow.
Cause copy_blocks(const Copying &c, const Place &src, const Descriptor &in, const Place &dst,
                  Replacement &out, std::size_t size) {
  Cause unread;
  while (size > 0) {
    const std::size_t written = out.write(c.block.get(), size);
    if (c.bytes != nullptr) *c.bytes += written == size ? size : written - written % ChunkSize;
    if (written < size) return failed_write(c, dst, out.cause());
    if (unread || size < BlockSize) break;
    size = fill_block(in.get(), c.block.get(), unread);
  }
  if (unread) return failed_read(c, src, unread);
  return out.commit() ? Cause{} : failed_write(c, dst, out.cause());
}

Cause copy_contents(Copying &c, const Place &src, const Place &dst) {
  Cause cause;
  const Descriptor in = open_source(src, cause);
  if (!in) return failed_open(c, src, cause);
  if (!c.block) c.block = std::make_unique_for_overwrite<char[]>(BlockSize);
  const std::size_t size = fill_block(in.get(), c.block.get(), cause);
  if (cause) return failed_read(c, src, cause);
  if (S_ISREG(src.type) && size % BlockSize == 0 && !still_plain(in))
    return failed_open(c, src, last_cause());
  if (dst.cause) return failed_create(c, dst, dst.cause);
  Replacement out{dst.name, dst.dir, in.get(), c.tree ? NewFile::InPlace : NewFile::Beside};
  if (out.same()) {
    imsg("'%s' and '%s' are the same file, nothing to copy", src.path, dst.path);
    return {};
  }
  if (!out) return failed_create(c, dst, out.cause());
  return copy_blocks(c, src, in, dst, out, size);
}

int copy_file(Copying &c, const Place &src, const Place &dst) {
  const Cause cause = copy_contents(c, src, dst);
  if (!cause) file_event(c.sink, {FileResult::Done, "copied", dst.path, {}});
  if (cause) call_fail(src.path, dst.path, 1, cause);
  else call_ok(src.path, dst.path, 1);
  return cause ? 0 : 1;
}

/// The path of the entry in the directory `into`. False, told as a failed copy, when it does not
/// fit.
bool target_path(const Copying &c, const file &x, const char *into, char (&target)[PathSize]) {
  if (join_path(target, sizeof target, into, entry_name(x)) != 0) return true;
  const Cause cause = last_cause();
  file_failure(c.sink, "cannot copy", x.name, cause, "Error copying '%s' into '%s'", x.name, into);
  call_fail(x.name, into, 1, cause);
  return false;
}

bool is_filled(const Copying &c, const file &x) {
  struct ::stat info = {};
  return ::fstatat(x.dir, name_at(x), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
         c.filled.contains({info.st_dev, info.st_ino});
}

// ---- Trees ----

Target enter(const char *path, const Spot &spot) {
  Target target{path, Descriptor{}, spot.cause};
  if (target.cause) return target;
  target.dir = Descriptor{
      ::openat(spot.at(), spot.name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC | spot.follow)};
  if (!target.dir) target.cause = last_cause();
  return target;
}

Spot entry_spot(const file &x, const Target &into) {
  Spot spot;
  if (into.cause) spot.cause = into.cause;
  else spot = find_spot(into.dir.get(), entry_name(x));
  return spot;
}

/// An empty directory of the name of `x`.
int copy_empty(Copying &c, const Spot &spot, const char *path) {
  const Cause cause = make_level(c, spot, path);
  if (!cause || cause.number == EEXIST) return 1;
  report_directory(c, path, cause);
  return 0;
}

/// Opens the directory `path` of the name of `x` in `into`, and counts it when it did not exist.
/// False: it cannot be created.
bool make_target(Copying &c, const file &x, const Target &into, const char *path, Target &target,
                 int &count) {
  const Spot spot = entry_spot(x, into);
  log_existence(path, spot.exists(), spot.info.st_mode);
  if (!spot.exists()) count = copy_empty(c, spot, path);
  if (!spot.exists() && count == 0) return false;
  target = enter(path, spot);
  if (target.cause) file_event(c.sink, {FileResult::Failed, "cannot enter", path, target.cause});
  return true;
}

int copy_tree(Copying &c, Entries entries, const Target &into);

/// A copied directory that cannot be opened is a part left out.
MissedSink missed_below(const Copying &c) {
  return [&c](const Missed &missed) {
    if (!excluded_below(missed.name, c.exclude)) file_missed(c.sink, missed, true);
  };
}

int copy_directory(Copying &c, const file &x, const Target &into) {
  if (c.recurse && is_filled(c, x)) {
    imsg("'%s' is being copied to, not copied", x.name);
    return 0;
  }
  // Not on the stack, of which a deep tree would need much.
  const auto path = std::make_unique<char[][PathSize]>(1);
  if (!target_path(c, x, into.path, path[0])) return 0;
  if (!c.recurse) return copy_empty(c, entry_spot(x, into), path[0]);
  Target target;
  int count = 0;
  if (!make_target(c, x, into, path[0], target, count)) return 0;
  return count + copy_tree(c, Entries{x, missed_below(c)}, target);
}

int copy_tree(Copying &c, Entries entries, const Target &into) {
  int count = 0;
  for (File entry : entries) {
    if (excluded_below(entry_name(*entry), c.exclude)) continue;
    count += is_dir(*entry) ? copy_directory(c, *entry, into) : file_copy_entry(c, *entry, into);
  }
  return count;
}

} // namespace

int file_copy(const char *src, const char *dst, int overwrite, std::uint64_t *bytes) {
  if (src == nullptr || dst == nullptr) {
    call_fail(src, dst, 1, {});
    return 0;
  }
  struct ::stat info = {};
  if (overwrite == 0 && ::stat(dst, &info) == 0) return -1;
  Copying c{.bytes = bytes};
  return copy_file(c, by_path(src), by_path(dst));
}

int file_xcopy(const char *path, const char *wild, const char *exclude, const char *dst,
               int recurse, std::uint64_t *bytes) {
  Copying c{.exclude = exclude, .recurse = recurse != 0, .tree = true, .bytes = bytes};
  if (path == nullptr || !takes_path(c, dst)) return 0;
  std::string target{dst};
  setsep(target.data(), Sep);
  const bool there = file_exist(target.c_str()) != 0;
  if (there) c.fill(target.c_str());
  else if (make_directory(c, trimmed(target.c_str()), true) == 0) return 0;
  // The directory that was named is for the caller to judge.
  const MissedSink missed = [&c](const Missed &m) {
    if (!excluded_below(m.name, c.exclude)) file_missed(c.sink, m, !m.opening);
  };
  return (there ? 0 : 1) +
         copy_tree(c, Entries{path, wild ? wild : "*", missed}, open_target(target.c_str()));
}

void Copying::fill(const char *directory) { note_filled(*this, AT_FDCWD, directory, 0); }

Target open_target(const char *path) {
  Target target{path, Descriptor{}, {}};
  target.dir = open_directory(path, O_PATH, target.cause);
  return target;
}

int file_copy_entry(Copying &copying, const file &entry, const Target &into) {
  char target[PathSize];
  if (!target_path(copying, entry, into.path, target)) return 0;
  return copy_file(copying, by_entry(entry),
                   {target, entry_name(entry), into.dir.get(), 0, into.cause});
}

int file_xcopy_entry(Copying &copying, const file &entry, const Target &into) {
  return copy_directory(copying, entry, into);
}

} // namespace installer
