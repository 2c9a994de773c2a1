#include "installer/lines.h"

#include <cctype>
#include <cstring>
#include <utility>

namespace installer {

namespace {

constexpr const char *ByteOrder = "\xef\xbb\xbf";

bool is_blank(int c) { return c != EOF && c != '\n' && std::isspace(c) != 0; }

/// The name in a header.
std::string header_name(const char *line) {
  std::string name{line + 1};
  if (name.ends_with(']')) name.pop_back();
  return name;
}

} // namespace

Lines::Lines(const char *file, Faults faults, LineRules rules)
    : Lines(Stream{s_fopen(file, "r")}, file, std::move(faults), rules) {}

Lines::Lines(Stream stream, const char *file, Faults faults, LineRules rules)
    : stream_(std::move(stream)), faults_(std::move(faults)), file_(or_empty(file)), rules_(rules) {
  if (!stream_) failure_ = last_cause();
}

bool Lines::enter(const char *section) {
  while (enter_next())
    if (s_stricmp(section_.c_str(), section) == 0) return true;
  return false;
}

bool Lines::enter_next() {
  if (header_ != nullptr && zero_) failure_ = ZeroByte;
  const char *line = header_ != nullptr ? header_ : read(Want::Headers);
  header_ = nullptr;
  in_section_ = line != nullptr && !failed();
  if (in_section_) section_ = header_name(line);
  return in_section_;
}

std::string Lines::reason() const {
  if (zero_byte()) return "line " + std::to_string(number_) + " holds a zero byte";
  return cause_text(failure_);
}

Fault Lines::fault(Severity severity, FaultKind kind, const std::string &text,
                   const char *word) const {
  const std::string section = in_section_ ? section_ : std::string{};
  return {severity, kind, file_, number_, text, or_empty(word), {}, {}, section};
}

Fault Lines::unreadable(const std::string &doing) const {
  const FaultKind kind = zero_byte() ? FaultKind::Binary : FaultKind::Unreadable;
  return {Severity::Error,
          kind,
          file_,
          zero_byte() ? number_ : 0,
          doing + " '" + file_ + "', " + reason(),
          {}};
}

/// Reads up to the end of the line or of the buffer; 0 at the end or after an error.
std::size_t Lines::read_buffer() {
  if (!stream_ || failed()) return 0;
  const std::size_t size = read_piece(stream_.get(), buffer_, sizeof buffer_);
  if (std::ferror(stream_.get()) != 0) failure_ = last_cause();
  if (size == 0) return 0;
  continued_ = open_;
  if (!continued_) ++number_;
  open_ = buffer_[size - 1] != '\n';
  zero_ = std::strlen(buffer_) < size;
  cut_ = open_ && size + 1 == sizeof buffer_ && more_follows();
  return size;
}

/// True when the current line goes on with more than white space. A run of it is looked at once,
/// however many pieces it takes.
bool Lines::more_follows() {
  std::FILE *in = stream_.get();
  const ::off_t here = ::ftello(in);
  if (here < surplus_end_) return surplus_has_text_;
  int c = std::getc(in);
  while (is_blank(c)) c = std::getc(in);
  surplus_has_text_ = c != EOF && c != '\n';
  surplus_end_ = ::ftello(in);
  if (::fseeko(in, here, SEEK_SET) != 0) failure_ = last_cause();
  return surplus_has_text_;
}

/// False when the line is one of those that are wanted.
bool Lines::skips(const char *line, Want want) {
  comment_ = *line == '#' || (comment_ && continued_ && rules_.joined_comments);
  if (comment_) return true;
  const bool header = is_header(line);
  const bool wanted = want == Want::Lines || header;
  // A header that ends the section belongs to the next one.
  const bool harmless = !wanted || rules_.zero_ends_line || (in_section_ && header);
  if (zero_ && !harmless) failure_ = ZeroByte;
  return *line == '\0' || !wanted;
}

void Lines::remark(FaultKind kind, const char *text, bool &once) const {
  if (!once) faults_(fault(Severity::Remark, kind, text));
  once = true;
}

/// What may be odd about the line as it was read, `size` characters.
void Lines::remark_raw(std::size_t size) {
  if (number_ == 1 && !continued_ && std::strncmp(buffer_, ByteOrder, 3) == 0)
    remark(FaultKind::ByteOrderMark, "The file begins with a byte order mark", mark_told_);
  if (size > 1 && buffer_[size - 1] == '\n' && buffer_[size - 2] == '\r')
    remark(FaultKind::CarriageReturn, "The line ends with a carriage return", return_told_);
}

/// What may be odd about the line that is not blank.
void Lines::remark_line(const char *line, Want want) {
  bool each = false;
  if (cut_ && !continued_ && !(comment_ && rules_.joined_comments))
    remark(FaultKind::LongLine, "The line is longer than 999 characters", each);
  if (want == Want::Headers && section_.empty() && !comment_ && !is_header(line))
    remark(zero_ ? FaultKind::Binary : FaultKind::Outside,
           zero_ ? "The line holds a zero byte" : "The line stands before the first section",
           outside_told_);
}

char *Lines::read(Want want) {
  while (const std::size_t size = read_buffer()) {
    if (faults_) remark_raw(size);
    char *line = s_strtrm(buffer_);
    const bool skipped = skips(line, want);
    if (faults_ && *line != '\0') remark_line(line, want);
    if (failed()) return nullptr;
    if (!skipped) return line;
  }
  return nullptr;
}

char *Lines::next() {
  if (header_ != nullptr) return nullptr;
  char *line = read(Want::Lines);
  if (line == nullptr || !in_section_ || !is_header(line)) return line;
  header_ = line;
  return nullptr;
}

} // namespace installer
