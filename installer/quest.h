#pragma once

// Questions: one section of the question file, and the dialogue that asks one question, checks the
// reply by the question's type and stores it as a setting. `quest_init`, `quest_load`, the
// accessors by index (from 0) with `quest_ask` and `quest_answer`, `quest_free`. Which questions
// are asked, and the entries that are not questions, are the caller's business.

#include "installer/ini.h"
#include "installer/lib.h"
#include "installer/lines.h"
#include "installer/log.h"

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace installer {

/// Types of entries. `QExist` ("must exist") and `QEmpty` ("must be empty") are flags in the types
/// that follow them; every directory type has the bit `QDir`. 0 is a question of no known type.
enum QType : std::uint32_t {
  QText = 0x1,
  QYN = 0x2,
  QDir = 0x4,
  QFile = 0x8,
  QFileName = 0x10,
  QExist = 0x100,
  QDirExist = 0x104,
  QFileExist = 0x108,
  QXExist = 0x200,
  QCopy = 0x400,
  QError = 0x800,
  QLoop = 0x1000,
  QEmpty = 0x2000,
  QDirEmpty = 0x2004,
};

/// One entry. `text`: the question; for `QXExist` the path to test, for `QLoop` the index to go to,
/// for `QCopy` the setting to copy, for `QError` the message. `setting`: receives the answer.
/// `control`, `control_cmp`: null for "-". `help_id` is kept, not used. `line`: where it stands in
/// the file, from 1.
struct quest {
  Text text;
  Text setting;
  Text control;
  Text control_cmp;
  Text help_id;
  QType type = static_cast<QType>(0);
  std::size_t line = 0;
};
using Quest = quest;

/// How a field is taken from a line: the next word as it is, or without white space that does not
/// separate words; or all that is left, trimmed, with its escapes turned into characters.
enum class QuestField { Word, Trimmed, Rest };

/// A field that a question line must have. `missing`: the error when it is not there; `called`:
/// what the manual calls it.
struct QuestSlot {
  Text quest::*field;
  const char *missing;
  QuestField taken;
  const char *called;
};

/// All about one keyword: its fields in the order of the line, and what it accepts as an answer.
/// `accept` may change the answer in place; it returns the text to store, or null after
/// `quest_seterror`. It is null for entries that are not asked.
struct QuestKeyword {
  const char *word;
  QType type;
  std::span<const QuestSlot> slots;
  const char *(*accept)(const quest &entry, char *answer);
};

/// All keywords; they are compared without case.
[[nodiscard]] std::span<const QuestKeyword> quest_keywords();
/// The row of a type; for a type of no keyword one without word that is asked like a `Text`.
[[nodiscard]] const QuestKeyword &quest_keyword(QType type);

/// A question set. `count`: entries in `list`; `section`: name of the loaded section, else null;
/// `ini`: the store for defaults and answers, not owned; `answer_for`: the answer that takes the
/// place of a setting's default, null for none; it may be empty.
struct questions {
  std::uint32_t count = 0;
  Text section;
  std::vector<Quest> list;
  Ini ini = nullptr;
  std::function<const char *(const char *setting)> answer_for;
};
using Questions = questions *;

/// A new empty set on the store `ini`, for `quest_free`.
[[nodiscard]] Questions quest_init(Ini ini);
/// Releases the set, not the store, and sets the variable to null. Nothing for a null address or
/// set.
void quest_free(Questions *x);
/// An owned set.
using QuestOwner = std::unique_ptr<questions, Release<quest_free>>;
/// Loads the section (named without case) in place of a loaded one; nothing is read when that very
/// section is loaded. `faults` takes what is wrong with it: a line that lacks a field is skipped,
/// an unknown type is kept as type 0. 1; 0 for a null argument, a file that cannot be read
/// (`quest_error`) or a missing section.
[[nodiscard]] int quest_load(Questions x, const char *file, const char *section,
                             const Faults &faults = log_fault);
/// Appends the entries of the section that `lines` has entered.
void quest_read(Questions x, Lines &lines, const Faults &faults);
/// Empties the set.
void quest_clear(Questions x);

/// Accessors; null or 0 for a null set or an index out of range.
[[nodiscard]] std::uint32_t quest_count(Questions x);
[[nodiscard]] const char *quest_text(Questions x, std::uint32_t i);
[[nodiscard]] const char *quest_setting(Questions x, std::uint32_t i);
[[nodiscard]] const char *quest_control(Questions x, std::uint32_t i);
[[nodiscard]] const char *quest_control_cmp(Questions x, std::uint32_t i);
[[nodiscard]] QType quest_type(Questions x, std::uint32_t i);

/// Puts the default (the answer for the question's setting, as it is, else its value; for `QYN` "y"
/// or "n") into `buf`. `buf`; null and the empty text when there is none.
char *quest_default(Questions x, std::uint32_t i, char *buf, std::size_t size);
/// Shows the question with its default, in lines of at most 79 characters when it is longer than
/// 80, and reads a reply into `buf`, without white space at its end; an empty one becomes the
/// default. 1; 0 without a reply, or for one typed at a terminal that holds a control character
/// (`quest_error` says why), and, with `buf` empty, at the end of input (`input_ended`).
[[nodiscard]] int quest_ask(Questions x, std::uint32_t i, char *buf, std::size_t n);
/// Checks `answer` against the question's type, changing it in place where the type says so, and
/// stores it. 1 accepted, also when the store refuses it; 0 rejected (`quest_error` says why).
[[nodiscard]] int quest_answer(Questions x, std::uint32_t i, char *answer);

/// Sets and logs the module's last error; with errno set, ", " and the system's text are appended.
/// Nothing for a null format.
[[gnu::format(printf, 1, 2)]] void quest_seterror(const char *format, ...);
/// The last error, or the empty text. Borrowed until the next error.
[[nodiscard]] const char *quest_error();
/// The same without the system's text.
[[nodiscard]] std::string quest_reason();

} // namespace installer
