#pragma once

// The reader of line files: the five data formats, and whatever else comes in lines.
//
//     Lines lines{file};
//     if (!lines) ...                      // lines.reason() says why
//     if (!lines.enter(section)) ...       // only for files with sections
//     for (char *line : lines) ...         // the line may be changed; it lasts until the next
//     if (lines.failed()) ...              // the file could not be read to its end

#include "installer/fault.h"
#include "installer/lib.h"

#include <cstddef>
#include <string>

namespace installer {

/// What a format makes of odd lines. `joined_comments`: what continues a comment of more than 999
/// characters is a comment, and not a line of its own. `zero_ends_line`: a line ends at a zero
/// byte; else the file fails there.
struct LineRules {
  bool joined_comments = false;
  bool zero_ends_line = false;
};

/// The lines of a text file, read 999 characters at a time (a longer line arrives in pieces),
/// trimmed, without blank lines and "#" comments. In comments, and outside of the section that is
/// read, zero bytes do not matter.
class Lines {
public:
  /// Opens the file. `faults` takes the remarks; it is copied, and may be empty.
  explicit Lines(const char *file, Faults faults = {}, LineRules rules = {});
  /// The same for an open stream that can be positioned; `file` is the name that faults carry.
  Lines(Stream stream, const char *file, Faults faults = {}, LineRules rules = {});
  [[nodiscard]] explicit operator bool() const { return stream_ != nullptr; }

  /// Skips to the first header "[section]" (compared without case; the closing bracket counts as
  /// part of the header only at the end of the line). From then on the next header ends the lines.
  [[nodiscard]] bool enter(const char *section);
  /// Skips to the next header, whatever its name. The header that ended the lines is the next one.
  [[nodiscard]] bool enter_next();
  /// The name in the header that was entered last.
  [[nodiscard]] const std::string &section() const { return section_; }

  /// The number of the current line, or of the header that was entered last, in the file: from 1,
  /// as an editor counts, whatever a line's length.
  [[nodiscard]] std::size_t number() const { return number_; }
  /// True when the current line is not the end of the line that it was read from, and more than
  /// white space follows: its last word may be cut, and words may be missing.
  [[nodiscard]] bool cut() const { return cut_; }
  /// True when the current line is not the beginning of the line that it was read from. It is never
  /// taken for a header.
  [[nodiscard]] bool continued() const { return continued_; }

  /// True when reading ended with an error.
  [[nodiscard]] bool failed() const { return static_cast<bool>(failure_); }
  /// True when that was a zero byte.
  [[nodiscard]] bool zero_byte() const { return failure_.number == ZeroByte.number; }
  /// Why the file could not be opened or read to its end: the system's text, or "line N holds a
  /// zero byte".
  [[nodiscard]] std::string reason() const;

  /// A fault in the current line.
  [[nodiscard]] Fault fault(Severity severity, FaultKind kind, const std::string &text,
                            const char *word = nullptr) const;
  /// The fault of a file that cannot be opened or read: "DOING 'FILE', REASON".
  [[nodiscard]] Fault unreadable(const std::string &doing) const;

  struct End {};
  class Iterator {
  public:
    explicit Iterator(Lines &lines) : lines_(&lines), line_(lines.next()) {}
    char *operator*() const { return line_; }
    Iterator &operator++() {
      line_ = lines_->next();
      return *this;
    }
    bool operator==(End) const { return line_ == nullptr; }

  private:
    Lines *lines_;
    char *line_;
  };
  Iterator begin() { return Iterator{*this}; }
  static End end() { return {}; }

private:
  enum class Want { Lines, Headers };
  char *read(Want want);
  char *next();
  std::size_t read_buffer();
  bool more_follows();
  bool skips(const char *line, Want want);
  void remark(FaultKind kind, const char *text, bool &once) const;
  void remark_raw(std::size_t size);
  void remark_line(const char *line, Want want);
  [[nodiscard]] bool is_header(const char *line) const { return *line == '[' && !continued_; }

  Stream stream_;
  Faults faults_;
  std::string file_;
  std::string section_;
  LineRules rules_;
  Cause failure_;
  std::size_t number_ = 0;
  ::off_t surplus_end_ = 0;       // up to here the surplus of a long line is known to be blank
  bool surplus_has_text_ = false; // what stands there is not the end of the line
  bool in_section_ = false;
  bool open_ = false; // the line end has not been read yet
  bool cut_ = false;
  bool continued_ = false;
  bool comment_ = false;
  bool zero_ = false;
  bool mark_told_ = false;
  bool return_told_ = false;
  bool outside_told_ = false;
  char *header_ = nullptr; // the header that ended the lines
  char buffer_[LineSize] = {};
};

} // namespace installer
