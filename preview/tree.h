#pragma once

// Reaching entries of a tree whose paths have any length and any bytes.
//
// The directory walk of the modules keeps whole paths, of at most 255 characters, and its
// directories open on the way down, because it acts on entries while the machine is at work. What a
// previewed run left behind must be shown whole: also a tree that is deeper than a path can say, or
// than descriptors last. So these open each directory afresh, from the root of its tree and without
// following a link, and hand out all names at once; callers keep a list of what is to be visited.

#include "installer/lib.h"

#include <optional>
#include <string>
#include <vector>

namespace installer::preview {

/// Why something could not be had: a text for the console, and the errno it comes from (0: none).
struct Refusal {
  std::string text;
  int cause = 0;
};
/// A result: nothing when all went well.
using Refused = std::optional<Refusal>;

/// A refusal with the current errno.
[[nodiscard]] Refusal refusal(const std::string &text);

/// Opens the entry at `path` below the directory `root` (flags as for POSIX open; always closed on
/// exec). `path` has any length and is taken from `root` even when it begins with "/", "" for
/// `root` itself; with AT_FDCWD it is an ordinary path. No component may be a link. An empty
/// descriptor with errno set.
[[nodiscard]] Descriptor tree_open(int root, const std::string &path, int flags);
/// The directory at `path`, opened for reading its names.
[[nodiscard]] Descriptor tree_open_directory(int root, const std::string &path);
/// All names in an open directory but "." and "..", in no order; none when it cannot be read.
[[nodiscard]] std::vector<std::string> tree_names(int directory);
/// The number of entries at all depths below the directory `path`.
[[nodiscard]] std::size_t tree_count(int root, const std::string &path);
/// Removes the directory `path` and everything below it, as far as that is possible.
void tree_remove(int root, const std::string &path);
/// Creates the directory `name` in `parent` with exactly this mode. False with errno set.
[[nodiscard]] bool tree_make(int parent, const std::string &name, ::mode_t mode);

/// `directory` and `name` with one "/"; `name` alone in the directory "".
[[nodiscard]] std::string tree_join(const std::string &directory, const std::string &name);
/// True when `path` is `directory` ("/" or without a final "/") or lies below it.
[[nodiscard]] bool tree_within(const std::string &path, const std::string &directory);

} // namespace installer::preview
