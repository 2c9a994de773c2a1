#pragma once

// Answers to questions, by the names of their settings: a file of them that stands in for the
// operator, and the record of those that were given.
//
// A line is a name and its answer, "name value", with the blank lines and comments of the data
// file; the answer goes to the end of the line, as it stands.

#include "installer/fault.h"
#include "installer/lib.h"

#include <cstddef>
#include <string>
#include <unordered_map>
#include <vector>

namespace installer {

/// `line`: where it stands in its file, 0 for none.
struct Answer {
  std::string name;
  std::string value;
  std::size_t line = 0;
};
/// `list`: in their order, one of each name. `index`: where that of a name stands.
struct Answers {
  std::vector<Answer> list;
  std::unordered_map<std::string, std::size_t> index;
};

/// Appends the answers of `file`, "-" for standard input. `faults` takes a name that has an answer
/// already (the first holds), a name without one and a line that is too long; these are left out.
/// None; else the reason why the file cannot be read.
[[nodiscard]] Text answers_load(Answers &answers, const char *file, const Faults &faults);
/// Hands a fault of `file` to the sink for each answer whose name no question of any section of the
/// question file `questions` has. Nothing when that cannot be read to its end.
void answers_check(const Answers &answers, const char *file, const char *questions,
                   const Faults &faults);
/// The answer of that name, or null.
[[nodiscard]] Answer *find_answer(Answers &answers, const char *name);
/// Puts the value in place of the answer of that name, or appends the answer.
void set_answer(Answers &answers, const Answer &answer);
/// Writes the answers to `file`, after the comment `title`, in the form that answers_load reads;
/// one that a line cannot hold is named in a comment. An old file, which must be a regular one, is
/// replaced as a whole; the new one has mode 0600. Links to its directory must be trusted. No
/// cause: written.
[[nodiscard]] Cause answers_write(const Answers &answers, const char *file,
                                  const std::string &title);

} // namespace installer
