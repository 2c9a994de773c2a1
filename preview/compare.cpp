#include "preview/compare.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <set>
#include <unordered_set>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace installer::preview {

namespace {

constexpr std::size_t BlockSize = 65536;
constexpr std::uint64_t StatusBlock = 512; // the unit of st_blocks

/// A directory that is to be compared. `whole`: all entries that it has after the runs are in it;
/// else it only has those that runs touched. `moved`: it or one above it was moved, so that only
/// the side `Both` has its entries. `known`: the machine has a directory there too.
struct Folder {
  std::string path;
  bool whole = false;
  bool moved = false;
  bool known = true;
};

/// The comparison of one layer.
struct Comparing {
  const View &view;
  const Layer &layer;
  std::size_t index;
  const std::function<bool(const std::string &)> &left_out;
  Comparison &result;
  Total &total;
  Descriptor machine{}, changed{}, both{};
  std::uint64_t block = 1;
  std::vector<Folder> waiting{};
  std::set<::ino_t> linked{}; ///< counted files that have several names
};

/// One directory: its absolute path with a final "/", and its open sides, of which `machine` may be
/// none.
struct Opened {
  const Folder &folder;
  std::string prefix;
  Descriptor changed{}, machine{};
};

FileStatus status_of(const struct ::stat &info) {
  return {info.st_mode, info.st_uid, info.st_gid, info.st_size, info.st_rdev};
}

bool same_rights(const struct ::stat &a, const struct ::stat &b) {
  return a.st_mode == b.st_mode && a.st_uid == b.st_uid && a.st_gid == b.st_gid;
}

/// The mark of the overlay for a deleted entry.
bool is_whiteout(const struct ::stat &info) {
  return S_ISCHR(info.st_mode) && info.st_rdev == makedev(0, 0);
}

bool get_status(int directory, const std::string &name, struct ::stat &info) {
  return ::fstatat(directory, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0;
}

std::string read_link(int directory, const std::string &name) {
  std::array<char, BlockSize> target{};
  const ::ssize_t size = ::readlinkat(directory, name.c_str(), target.data(), target.size());
  return {target.data(), static_cast<std::size_t>(std::max<::ssize_t>(size, 0))};
}

/// Reads until the block is full or the file ends; -1 for an error.
::ssize_t read_block(int fd, std::array<char, BlockSize> &block) {
  std::size_t filled = 0;
  while (filled < block.size()) {
    const ::ssize_t got = ::read(fd, block.data() + filled, block.size() - filled);
    if (got < 0 && errno != EINTR) return -1;
    if (got == 0) break;
    filled += static_cast<std::size_t>(std::max<::ssize_t>(got, 0));
  }
  return static_cast<::ssize_t>(filled);
}

/// What cannot be read counts as different.
bool same_bytes(const Opened &place, const std::string &name) {
  constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  const Descriptor a{::openat(place.changed.get(), name.c_str(), flags)};
  const Descriptor b{::openat(place.machine.get(), name.c_str(), flags)};
  static std::array<char, BlockSize> left, right;
  while (a && b) {
    const ::ssize_t size = read_block(a.get(), left);
    if (size < 0 || size != read_block(b.get(), right)) return false;
    if (size == 0) return true;
    if (std::memcmp(left.data(), right.data(), static_cast<std::size_t>(size)) != 0) return false;
  }
  return false;
}

bool same_contents(const Opened &place, const std::string &name, const struct ::stat &before,
                   const struct ::stat &after) {
  switch (after.st_mode & S_IFMT) {
  case S_IFREG: return before.st_size == after.st_size && same_bytes(place, name);
  case S_IFLNK: return read_link(place.changed.get(), name) == read_link(place.machine.get(), name);
  case S_IFCHR:
  case S_IFBLK: return before.st_rdev == after.st_rdev;
  default: return true;
  }
}

// ---- Rights ----

struct RightAttribute {
  const char *name, *word;
};
constexpr RightAttribute right_attributes[] = {
    {"security.capability",      "capabilities"       },
    {"system.posix_acl_access",  "access list"        },
    {"system.posix_acl_default", "default access list"},
};

/// An extended attribute of an open entry, also of one that is open for its path alone; "" for
/// none.
std::string attribute_of(int entry, const std::string &name) {
  std::array<char, BlockSize> value{};
  const std::string path = "/proc/self/fd/" + std::to_string(entry);
  const ::ssize_t size = ::getxattr(path.c_str(), name.c_str(), value.data(), value.size());
  return {value.data(), static_cast<std::size_t>(std::max<::ssize_t>(size, 0))};
}

/// The value of one of the overlay's notes; "" for none.
std::string overlay_note(const Comparing &x, int entry, const char *name) {
  return attribute_of(entry, std::string{x.view.user ? "user" : "trusted"} + ".overlay." + name);
}

Descriptor open_entry(int directory, const std::string &name) {
  return Descriptor{::openat(directory, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC)};
}

/// The words for what differs between two entries; an empty descriptor has nothing.
std::string other_rights(const Descriptor &before, const Descriptor &after) {
  std::string words;
  for (const RightAttribute &row : right_attributes) {
    const std::string had = before ? attribute_of(before.get(), row.name) : std::string{};
    if (attribute_of(after.get(), row.name) != had)
      words += (words.empty() ? "" : ", ") + std::string{row.word};
  }
  return words;
}

/// `known`: the machine has such an entry.
std::string changed_rights(const Opened &place, const std::string &name, bool known) {
  return other_rights(known ? open_entry(place.machine.get(), name) : Descriptor{},
                      open_entry(place.changed.get(), name));
}

bool gives_rights(const struct ::stat &info, int directory, const std::string &name) {
  return (info.st_mode & (S_ISUID | S_ISGID)) != 0 ||
         !other_rights(Descriptor{}, open_entry(directory, name)).empty();
}

/// A file that counts for nothing.
bool is_left_out(const Comparing &x, const std::string &path, const struct ::stat &info,
                 int directory, const std::string &name) {
  return S_ISREG(info.st_mode) && x.left_out(path) && !gives_rights(info, directory, name);
}

// ---- Counting ----

/// What a file takes, in whole blocks. Holes take nothing.
std::uint64_t space(const Comparing &x, const struct ::stat &info) {
  if (S_ISDIR(info.st_mode)) return x.block;
  if (!S_ISREG(info.st_mode)) return 0;
  const auto whole = [&x](std::uint64_t bytes) {
    return (bytes + x.block - 1) / x.block * x.block;
  };
  return std::min(whole(static_cast<std::uint64_t>(info.st_size)),
                  whole(static_cast<std::uint64_t>(info.st_blocks) * StatusBlock));
}

bool counted_already(Comparing &x, const struct ::stat &info) {
  return !S_ISDIR(info.st_mode) && info.st_nlink > 1 && !x.linked.insert(info.st_ino).second;
}

void count(Comparing &x, const struct ::stat *before, const struct ::stat &after) {
  if (!S_ISDIR(after.st_mode)) ++x.total.files;
  if (counted_already(x, after)) return;
  const std::uint64_t had = before != nullptr ? space(x, *before) : 0;
  x.total.needed += std::max(space(x, after), had) - had;
}

/// What is not a copy of the machine's file any more lay beside it, before it took its name. Only
/// the largest counts: the room of one is free again for the next.
void count_beside(Comparing &x, const Opened &place, const std::string &name,
                  const struct ::stat &before, const struct ::stat &after) {
  const Descriptor entry = open_entry(place.changed.get(), name);
  if (overlay_note(x, entry.get(), "origin").empty())
    x.total.beside = std::max(x.total.beside, std::min(space(x, before), space(x, after)));
}

// ---- Verdicts ----

/// `path` is absolute.
void note(Comparing &x, Verdict verdict, std::string path, const struct ::stat *before,
          const struct ::stat *after, std::string target = {}, std::string rights = {}) {
  Change change{verdict, std::move(path), {}, {}, std::move(target), 0, std::move(rights)};
  if (before != nullptr) change.before = status_of(*before);
  if (after != nullptr) change.after = status_of(*after);
  const ::mode_t mode = after != nullptr ? after->st_mode : before->st_mode;
  if (S_ISDIR(mode) && !change.path.ends_with('/')) change.path += '/';
  x.result.changes.push_back(std::move(change));
}

std::string target_of(int directory, const std::string &name, const struct ::stat &info) {
  return S_ISLNK(info.st_mode) ? read_link(directory, name) : std::string{};
}

void vanished(Comparing &x, const Opened &place, const std::string &name,
              const struct ::stat &before) {
  std::string path = place.prefix + name;
  if (is_left_out(x, path, before, place.machine.get(), name)) return;
  note(x, Verdict::Deleted, std::move(path), &before, nullptr,
       target_of(place.machine.get(), name, before));
  if (S_ISDIR(before.st_mode))
    x.result.changes.back().below = tree_count(x.machine.get(), tree_join(place.folder.path, name));
}

void appeared(Comparing &x, const Opened &place, const std::string &name, std::string path,
              const struct ::stat &after) {
  note(x, Verdict::Added, std::move(path), nullptr, &after,
       target_of(place.changed.get(), name, after), changed_rights(place, name, false));
  count(x, nullptr, after);
}

void stayed(Comparing &x, const Opened &place, const std::string &name, std::string path,
            const struct ::stat &before, const struct ::stat &after) {
  std::string rights = changed_rights(place, name, true);
  std::string target = target_of(place.changed.get(), name, after);
  if (S_ISREG(after.st_mode)) count_beside(x, place, name, before, after);
  if (!same_contents(place, name, before, after)) {
    note(x, Verdict::Modified, std::move(path), &before, &after, std::move(target),
         std::move(rights));
    count(x, &before, after);
  } else if (!same_rights(before, after) || !rights.empty()) {
    note(x, Verdict::Permissions, std::move(path), &before, &after, std::move(target),
         std::move(rights));
  } else if (S_ISREG(after.st_mode)) {
    ++x.total.unchanged;
  }
}

// ---- Directories ----

void await(Comparing &x, const Opened &place, const std::string &name, bool known) {
  Folder folder{tree_join(place.folder.path, name), place.folder.whole, place.folder.moved, known};
  if (!folder.moved) {
    const Descriptor own = tree_open_directory(place.changed.get(), name);
    folder.moved = !overlay_note(x, own.get(), "redirect").empty();
    folder.whole = folder.whole || folder.moved || overlay_note(x, own.get(), "opaque") == "y";
  }
  x.waiting.push_back(std::move(folder));
}

void compare_entry(Comparing &x, const Opened &place, const std::string &name) {
  struct ::stat before = {}, after = {};
  const bool had = place.machine && get_status(place.machine.get(), name, before);
  if (!get_status(place.changed.get(), name, after)) return;
  if (!place.folder.moved && is_whiteout(after)) {
    if (had) vanished(x, place, name, before);
    return;
  }
  std::string path = place.prefix + name;
  if (is_left_out(x, path, after, place.changed.get(), name) &&
      (!had || is_left_out(x, path, before, place.machine.get(), name)))
    return;
  if (S_ISREG(after.st_mode)) x.result.written.push_back({x.index, path});
  const bool same_type = had && (before.st_mode & S_IFMT) == (after.st_mode & S_IFMT);
  if (same_type) stayed(x, place, name, std::move(path), before, after);
  else appeared(x, place, name, std::move(path), after);
  if (had && !same_type) vanished(x, place, name, before);
  if (S_ISDIR(after.st_mode)) await(x, place, name, same_type);
}

void compare_folder(Comparing &x, const Folder &folder) {
  const int side = folder.moved ? x.both.get() : x.changed.get();
  Opened place{folder, layer_path(x.layer, folder.path), tree_open_directory(side, folder.path)};
  if (!place.prefix.ends_with('/')) place.prefix += '/';
  if (folder.known) place.machine = tree_open_directory(x.machine.get(), folder.path);
  const std::vector<std::string> names = tree_names(place.changed.get());
  for (const std::string &name : names) compare_entry(x, place, name);
  if (!folder.whole || !place.machine) return;
  const std::unordered_set<std::string> present{names.begin(), names.end()};
  for (const std::string &name : tree_names(place.machine.get())) {
    struct ::stat before = {};
    if (!present.contains(name) && get_status(place.machine.get(), name, before))
      vanished(x, place, name, before);
  }
}

void compare_root(Comparing &x) {
  struct ::stat after = {};
  std::string rights = other_rights(Descriptor{}, x.changed); // it began with none
  if (::fstat(x.changed.get(), &after) == 0 &&
      (!same_rights(x.layer.start, after) || !rights.empty()))
    note(x, Verdict::Permissions, x.layer.mount.point, &x.layer.start, &after, {},
         std::move(rights));
}

void compare_layer(Comparing &x) {
  x.machine = view_side(x.view, x.layer, Side::Machine);
  x.changed = view_side(x.view, x.layer, Side::Changed);
  x.both = view_side(x.view, x.layer, Side::Both);
  struct ::statvfs space = {};
  if (::fstatvfs(x.machine.get(), &space) == 0) {
    x.block = std::max<std::uint64_t>(space.f_frsize, 1);
    x.total.free = space.f_bavail * x.block;
  }
  compare_root(x);
  x.waiting.push_back({});
  while (!x.waiting.empty()) {
    const Folder folder = std::move(x.waiting.back());
    x.waiting.pop_back();
    compare_folder(x, folder);
  }
}

} // namespace

bool total_fits(const Total &total) { return total.needed <= total.free; }

std::string layer_path(const Layer &layer, const std::string &path) {
  return path.empty() ? layer.mount.point : tree_join(layer.mount.point, path);
}

Comparison compare_view(const View &view,
                        const std::function<bool(const std::string &)> &left_out) {
  Comparison result;
  std::map<std::string, Total> totals; // of each file system, by its device
  for (std::size_t i = 0; i < view.layers.size(); ++i) {
    const Layer &layer = view.layers[i];
    Total fresh;
    Total &total = totals.try_emplace(layer.mount.device, fresh).first->second;
    const std::size_t first = result.changes.size();
    const std::uint64_t before = total.files + total.unchanged;
    Comparing x{view, layer, i, left_out, result, total};
    compare_layer(x);
    const bool changed = result.changes.size() > first || total.files + total.unchanged > before;
    if (changed && (total.point.empty() || layer.mount.top < total.point))
      total.point = layer.mount.top;
  }
  for (auto &[device, total] : totals) {
    total.needed += total.beside;
    if (!total.point.empty()) result.totals.push_back(std::move(total));
  }
  std::ranges::sort(result.changes, [](const Change &a, const Change &b) {
    return a.path != b.path ? a.path < b.path : a.verdict > b.verdict; // what goes, then what comes
  });
  std::ranges::sort(result.totals, {}, &Total::point);
  return result;
}

} // namespace installer::preview
