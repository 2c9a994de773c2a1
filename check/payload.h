#pragma once

// What lies in a product's folder, looked at once and without leaving it: no link is followed out
// of the folder, and of a file no more than its first bytes are read.

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace installer::check {

/// The name that stands for the product's folder, which is the working directory of a run, in plain
/// paths (words.h): one that no file has.
inline constexpr const char *Here = "/\001";

/// `Other`: a device, a pipe or a socket. `LinkedDir`: a link to a directory; `Outside`: a link out
/// of the folder; `Dangling`: one to nothing. A link to a file of the folder is a `File`.
enum class EntryKind { File, Dir, Other, LinkedDir, Outside, Dangling };

/// `program`: begins with "#!", or is an ELF file that can be run.
struct PayloadEntry {
  EntryKind kind;
  bool program;
};

/// Plain paths from `Here` on, in order. A folder of more than a million entries is not `complete`.
struct Payload {
  std::map<std::string, PayloadEntry, std::less<>> entries;
  bool complete = true;
};

/// Looks at the folder; what cannot be read is left out and makes it incomplete.
[[nodiscard]] Payload look_at(const std::string &folder);

/// The kind of the entry with that plain path; null without one.
[[nodiscard]] const PayloadEntry *find_entry(const Payload &payload, std::string_view path);

} // namespace installer::check
