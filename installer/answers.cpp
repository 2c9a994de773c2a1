#include "installer/answers.h"

#include "installer/lines.h"
#include "installer/links.h"
#include "installer/quest.h"

#include <cctype>
#include <cstring>
#include <set>
#include <utility>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace installer {

namespace {

constexpr ::mode_t RecordPermissions = 0600;
constexpr Cause NotRegular = {ENOTSUP, "not a regular file"};

/// What continues a comment is a comment.
constexpr LineRules AnswerLines = {.joined_comments = true};

void load_answer(Answers &answers, char *line, const Lines &lines, const Faults &faults) {
  const auto tell = [&](FaultKind kind, const std::string &text) {
    faults(lines.fault(Severity::Error, kind, text));
  };
  const std::string name = or_empty(next_word(&line));
  const char *value = line + std::strspn(line, " \t");
  if (*value == '\0') tell(FaultKind::MissingWord, "'" + name + "' has no answer");
  else if (find_answer(answers, name.c_str()) != nullptr)
    tell(FaultKind::Repeated, "'" + name + "' is given twice");
  else set_answer(answers, {name, value, lines.number()});
}

/// A file without a name, in memory where the kernel can: answers hold secrets.
Stream nameless_file() {
  Descriptor memory{static_cast<int>(::syscall(SYS_memfd_create, "answers", MFD_CLOEXEC))};
  Stream stream{memory ? ::fdopen(memory.get(), "w+") : std::tmpfile()};
  if (memory && stream) memory.release();
  return stream;
}

/// All of standard input, for lines must be able to go back.
Stream read_input() {
  Stream copy = nameless_file();
  char piece[LineSize];
  while (const std::size_t size = copy ? read_piece(stdin, piece, sizeof piece) : 0)
    std::fwrite(piece, 1, size, copy.get());
  if (!copy || std::ferror(stdin) != 0 || std::fflush(copy.get()) != 0) return {};
  std::clearerr(stdin); // a terminal can go on
  std::rewind(copy.get());
  return copy;
}

/// The settings of all questions in the file that are asked; none when it cannot be read.
std::optional<std::set<std::string>> asked_settings(const char *questions) {
  Lines lines{questions};
  const QuestOwner quest{quest_init(nullptr)};
  const Faults silent = [](const Fault &) {};
  while (lines.enter_next()) quest_read(quest.get(), lines, silent);
  std::set<std::string> settings;
  if (lines.failed()) return {};
  for (const Quest &entry : quest->list)
    if (quest_keyword(entry.type).accept != nullptr) settings.insert(*entry.setting);
  return settings;
}

/// True when answers_load would read the answer back.
bool fits_line(const Answer &answer) {
  const std::string &value = answer.value;
  const auto space = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
  return !value.empty() && !space(value.front()) && !space(value.back()) &&
         value.find('\n') == value.npos && answer.name.front() != '#' &&
         answer.name.size() + 1 + value.size() < LineSize;
}

std::string record_text(const Answers &answers, const std::string &title) {
  std::string text = "# " + escape_controls(title) + "\n";
  for (const Answer &answer : answers.list)
    text += fits_line(answer)
                ? answer.name + " " + answer.value + "\n"
                : "# " + escape_controls(answer.name) + ": no line can hold the answer\n";
  return text;
}

/// True when all of the text has reached the system.
bool write_new(int dir, const std::string &name, const std::string &text) {
  ::unlinkat(dir, name.c_str(), 0);
  Descriptor fd =
      open_file(dir, name.c_str(), O_WRONLY | O_CREAT | O_EXCL, Allow::Plain, RecordPermissions);
  if (!fd || ::fchmod(fd.get(), RecordPermissions) != 0) return false;
  Stream out{::fdopen(fd.get(), "w")};
  if (!out) return false;
  fd.release();
  std::fwrite(text.data(), 1, text.size(), out.get());
  return finish(std::move(out));
}

} // namespace

Text answers_load(Answers &answers, const char *file, const Faults &faults) {
  const bool standard_input = std::strcmp(file, "-") == 0;
  Cause cause;
  Stream in = standard_input ? read_input() : open_text(file, cause);
  if (cause) return cause_text(cause);
  Lines lines{std::move(in), standard_input ? "standard input" : file, {}, AnswerLines};
  std::size_t told = 0; // a line that is too long comes in pieces
  for (char *line : lines) {
    const bool whole = !lines.cut() && !lines.continued();
    if (whole) load_answer(answers, line, lines, faults);
    else if (told != lines.number())
      faults(lines.fault(Severity::Error, FaultKind::Cut, "The line is too long"));
    if (!whole) told = lines.number();
  }
  return lines.failed() ? Text{lines.reason()} : Text{};
}

void answers_check(const Answers &answers, const char *file, const char *questions,
                   const Faults &faults) {
  const std::optional<std::set<std::string>> asked = asked_settings(questions);
  if (!asked) return;
  for (const Answer &answer : answers.list)
    if (!asked->contains(answer.name))
      faults({Severity::Error, FaultKind::UnknownKeyword, file, answer.line,
              "No question asks for '" + answer.name + "'", answer.name});
}

Answer *find_answer(Answers &answers, const char *name) {
  const auto found = answers.index.find(name);
  return found != answers.index.end() ? &answers.list[found->second] : nullptr;
}

void set_answer(Answers &answers, const Answer &answer) {
  const auto [known, fresh] = answers.index.try_emplace(answer.name, answers.list.size());
  if (fresh) answers.list.push_back(answer);
  else answers.list[known->second].value = answer.value;
}

Cause answers_write(const Answers &answers, const char *file, const std::string &title) {
  const Spot place = find_place(AT_FDCWD, file);
  if (place.cause) return place.cause;
  const int dir = place.at();
  const char *name = place.name.c_str();
  struct ::stat info = {};
  if (::fstatat(dir, name, &info, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISREG(info.st_mode))
    return NotRegular;
  const std::string beside = "." + place.name + ".installer-new";
  if (write_new(dir, beside, record_text(answers, title)) &&
      ::renameat(dir, beside.c_str(), dir, name) == 0)
    return {};
  const Cause cause = last_cause();
  ::unlinkat(dir, beside.c_str(), 0);
  return cause;
}

} // namespace installer
