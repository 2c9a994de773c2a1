#pragma once

// What the harnesses share, above all a plain reading of the formats to compare the modules with.

#include "installer/ini.h"
#include "installer/lines.h"
#include "installer/log.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

namespace installer {

using Texts = std::vector<std::string>;

/// What each harness defines. The store is empty.
void fuzz(const std::string &input, Ini ini);

/// Messages are formatted and dropped: without a current log errors would be kept for ever.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  static log silent;
  silent.Level = LogDebug;
  log_set(&silent);
  const SettingList none;
  ini store;
  ini_setup(&store, &none, nullptr, 1);
  fuzz({data, data + size}, &store);
  return 0;
}

/// The inputs that the formats refuse as a whole.
inline bool is_binary(const std::string &text) { return text.find('\0') != std::string::npos; }

inline void check(bool holds) { holds ? void() : __builtin_trap(); }

/// A regular file, in memory where /proc leads to it.
struct Scratch {
  Scratch() {
    if (::access(path.c_str(), R_OK) == 0) return;
    ::close(fd), fd = ::mkstemp((path = "/tmp/fuzz.XXXXXX").data());
  }
  ~Scratch() { ::unlink(path.c_str()); } // is refused in /proc
  Scratch(const Scratch &) = delete;
  Scratch &operator=(const Scratch &) = delete;

  int fd = ::memfd_create("input", MFD_CLOEXEC);
  std::string path = "/proc/self/fd/" + std::to_string(fd);
};

/// A file that holds `text`, until the next call.
inline const char *as_file(const std::string &text) {
  static const Scratch file;
  check(::ftruncate(file.fd, 0) == 0 && ::pwrite(file.fd, text.data(), text.size(), 0) >= 0);
  return file.path.c_str();
}

/// The pieces between separators, each up to its first null byte: with `fewest` at least that many,
/// else only those that are not empty.
inline Texts split(const std::string &text, const char *separators, std::size_t fewest = 0) {
  Texts pieces;
  for (std::size_t at = 0, end; at <= text.size(); at = end + 1) {
    end = std::min(text.find_first_of(separators, at), text.size());
    const std::string piece = text.substr(at, end - at).c_str();
    if (fewest > 0 || !piece.empty()) pieces.push_back(piece);
  }
  pieces.resize(std::max(pieces.size(), fewest));
  return pieces;
}

/// A line as itself and then its words. `number`: of the line in the file; `continued`: it is not
/// the beginning of that; `cut`: nor the end.
struct Line : Texts {
  std::size_t number = 0;
  bool continued = false;
  bool cut = false;
};

/// The lines that count: those of the whole file or, when `found` is 0, those of the first section
/// "install"; `found` then becomes 1.
inline int whole_file = 1;
inline std::vector<Line> lines_of(const std::string &text, LineRules rules = {},
                                  int &found = whole_file) {
  std::vector<Line> lines;
  const bool sections = found == 0;
  bool comment = false;
  for (std::size_t at = 0, end, begin = 0; at < text.size(); at = end) {
    end = std::min({text.find('\n', at), text.size() - 1, at + LineSize - 2}) + 1;
    std::string line = text.substr(at, end - at);
    const bool continued = at > begin;
    const auto number = static_cast<std::size_t>(std::count(&text[0], &text[at], '\n')) + 1;
    const std::size_t more = std::min(text.find_first_not_of(" \t\v\f\r", end), text.size());
    const bool cut = line.back() != '\n' && more < text.size() && text[more] != '\n';
    if (line.back() == '\n') begin = end;
    line = std::string{s_strtrm(line.data())};
    comment = line[0] == '#' || (comment && continued && rules.joined_comments);
    if (line.empty() || comment) continue;
    if (sections && line[0] == '[' && !continued) {
      if (found != 0) break;
      found = s_stricmp(line.c_str(), line.back() == ']' ? "[install]" : "[install") == 0 ? 1 : 0;
    } else if (found != 0) {
      lines.push_back({split(line, " \t"), number, continued, cut});
      lines.back().insert(lines.back().begin(), line);
    }
  }
  return lines;
}

/// `text` with its references replaced in one pass, without limit; `keep`: as the copy script does
/// it, where what is unknown or unclosed stays.
inline std::string expanded(Ini ini, const std::string &text, bool keep) {
  std::string result;
  std::size_t at = 0;
  for (std::size_t opener; (opener = text.find("$(", at)) != std::string::npos;) {
    const std::size_t close = text.find(')', opener);
    if (keep && close == std::string::npos) break;
    const std::size_t most = keep ? text.size() : LineSize - 1;
    const std::size_t length = std::min(std::min(close, text.size()) - opener - 2, most);
    const char *value = ini_value_name(ini, text.substr(opener + 2, length).c_str());
    result += text.substr(at, opener - at);
    at = std::min(opener + length + 3, text.size());
    result += value == nullptr && keep ? text.substr(opener, at - opener) : or_empty(value);
  }
  return result + text.substr(at);
}

} // namespace installer
