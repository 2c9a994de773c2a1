#pragma once

// What runs in the view have changed: the changed side of each layer against the machine's. Only
// what runs have touched is read; where a directory was replaced or moved, it is compared whole.

#include "preview/view.h"

#include <compare>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace installer::preview {

/// What of an entry's status is shown. `device`: the number of a device file.
struct FileStatus {
  ::mode_t mode = 0;
  ::uid_t user = 0;
  ::gid_t group = 0;
  ::off_t size = 0;
  ::dev_t device = 0;
};

enum class Verdict : char { Added = 'A', Modified = 'M', Permissions = 'P', Deleted = 'D' };

/// One path that differs. `path`: absolute, of a directory with a final "/". `before`: as it is on
/// the machine (all but `Added`); `after`: as it would be (all but `Deleted`). `target`: what a
/// link would point to, or pointed to. `below`: the entries below a directory that vanishes.
/// `rights`: what gives rights beyond the mode, and changes or is new ("capabilities, access
/// list").
struct Change {
  Verdict verdict{};
  std::string path;
  FileStatus before, after;
  std::string target;
  std::size_t below = 0;
  std::string rights{};
};

/// A regular file that runs wrote, moved or gave other rights: its absolute path, and the index of
/// the layer whose side `Both` has it.
struct Written {
  std::size_t layer = 0;
  std::string path;
};

/// A file system with changes. `point`: where it is mounted; `files`: added or modified ones;
/// `needed`, `free`: bytes, in whole blocks of it (what runs free is not counted: it may be freed
/// too late); `beside`: the part of `needed` for the largest file that was replaced by another one,
/// which lay beside it until then; `unchanged`: files that were written with the contents and
/// rights that they had.
struct Total {
  std::string point;
  std::uint64_t files = 0, needed = 0, free = 0, beside = 0, unchanged = 0;
};

/// `changes` are sorted by the bytes of their paths, `totals` by mount point, `written` not at all.
struct Comparison {
  std::vector<Change> changes;
  std::vector<Total> totals;
  std::vector<Written> written;
};

/// Compares all layers. Regular files whose paths `left_out` accepts count for nothing, unless they
/// give rights (set-user-ID and the like).
[[nodiscard]] Comparison compare_view(const View &view,
                                      const std::function<bool(const std::string &)> &left_out);

/// True when the file system has the room that is needed.
[[nodiscard]] bool total_fits(const Total &total);
/// The absolute path of an entry of a layer.
[[nodiscard]] std::string layer_path(const Layer &layer, const std::string &path);

} // namespace installer::preview
