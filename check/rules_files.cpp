// Rules for all files: what the loaders remarked, and which sections there are.

#include "check/rules.h"
#include "check/sections.h"
#include "check/words.h"

#include "installer/lib.h"

#include <algorithm>

namespace installer::check {

namespace {

/// What a loader says as it stands.
template <FaultKind kind> void fault_of(const Product &product, const Find &find) {
  for (const Fault &fault : product.faults)
    if (fault.kind == kind) find(fault.file, fault.line, fault.text);
}

/// The keywords of a file.
Nearest keywords_of(const Product &product, const std::string &file) {
  Nearest words;
  if (file == product.init_file)
    for (const InitCommand &row : init_commands()) words.add(row.word);
  if (file == product.quest_file)
    for (const QuestKeyword &row : quest_keywords()) words.add(row.word);
  if (file == product.copy_file)
    for (const CopyCommand &row : copy_commands()) words.add(row.word);
  return words;
}

bool has_section(const Product &product, const std::string &file, const char *name) {
  return std::any_of(product.headers.begin(), product.headers.end(), [&](const Header &header) {
    return *header.file == file && s_stricmp(header.meant.c_str(), name) == 0;
  });
}

/// What to write for a word that is missing, where that is the same for every line.
std::string remedy_for(const std::string &missing) {
  const struct {
    const char *words;
    const char *remedy;
  } rows[] = {
      {"not wildcard", "; '-' leaves nothing out"                                     },
      {"control",      "; '-' is for none"                                            },
      {"Too few",      "; a command has four, '-' is for no control and no comparison"},
  };
  for (const auto &row : rows)
    if (missing.find(row.words) != std::string::npos) return row.remedy;
  return {};
}

void unknown_keyword(const Product &product, const Find &find) {
  const Nearest init = keywords_of(product, product.init_file);
  const Nearest quest = keywords_of(product, product.quest_file);
  const Nearest copy = keywords_of(product, product.copy_file);
  for (const Fault &fault : product.faults) {
    if (fault.kind != FaultKind::UnknownKeyword) continue;
    const bool of_init = fault.file == product.init_file;
    const Nearest &words = of_init ? init : fault.file == product.quest_file ? quest : copy;
    find(fault.file, fault.line, "unknown command " + quoted(fault.word) + words.hint(fault.word));
  }
}

void missing_words(const Product &product, const Find &find) {
  const Fault *last = nullptr; // a line may lack several, and its keyword may be wrong
  for (const Fault &fault : product.faults) {
    const bool same = last != nullptr && last->line == fault.line && last->file == fault.file;
    if (fault.kind == FaultKind::MissingWord && !same)
      find(fault.file, fault.line,
           fault.text + ", so the line is dropped" + remedy_for(fault.text));
    last = &fault;
  }
}

void unread_words(const Product &product, const Find &find) {
  for (const Fault &fault : product.faults)
    if (fault.kind == FaultKind::Surplus)
      find(fault.file, fault.line,
           fault.word.starts_with('#')
               ? "a comment needs a line of its own"
               : "nothing reads " + quoted(fault.word) + " and what follows");
}

void comment_behind(const Product &product, const Find &find) {
  each_step(product, [&](const Step &step) {
    const Use *control = use_of(step, Role::Control);
    if (control != nullptr && control->text.starts_with('#'))
      find(step, quoted(control->text) + " is a control here; a comment needs a line of its own");
  });
}

void header_text(const Product &product, const Find &find) {
  for (const Header &header : product.headers)
    if (header.written.find(']') != std::string::npos)
      find(*header.file, header.line, "nothing may stand behind [" + header.meant + "]");
}

void repeated_section(const Product &product, const Find &find) {
  for (const Header &header : product.headers)
    if (header.twice)
      find(*header.file, header.line, "there is a section [" + header.meant + "] before this one");
}

void misspelt_section(const Product &product, const Find &find) {
  std::unordered_map<std::string_view, const Header *> meant; // tags: either may be the wrong one
  for (const Header &header : product.headers) {
    if (header.written.find(']') != std::string::npos || header.meant == header.written) continue;
    find(*header.file, header.line,
         "unknown section [" + header.written + "]; did you mean [" + header.meant + "]?");
    if (!is_action(header.meant)) meant[header.meant] = &header;
  }
  for (const Header &header : product.headers)
    if (const auto other = meant.find(header.meant);
        other != meant.end() && other->second->file != header.file)
      find(*header.file, header.line,
           "[" + header.meant + "] is called [" + other->second->written + "] in " +
               *other->second->file);
}

void missing_section(const Product &product, const Find &find) {
  const SectionNames asked = sections_of(product, product.quest_file);
  const SectionNames copied = sections_of(product, product.copy_file);
  for (const Header &header : product.headers) {
    const bool question = *header.file == product.quest_file;
    if (header.twice || (question ? copied : asked).contains(header.meant)) continue;
    find(*header.file, header.line,
         "[" + header.meant + "] has no section in " +
             (question ? product.copy_file + ", so it does nothing"
                       : product.quest_file + ", so it never runs; an empty one will do"));
  }
  if (!asked.contains("install") && !copied.contains("install"))
    find(product.quest_file, 0, "there is no section [install]");
}

void missing_action(const Product &product, const Find &find) {
  for (const char *name : {"upgrade", "remove"})
    if (!has_section(product, product.quest_file, name) &&
        !has_section(product, product.copy_file, name))
      find(product.quest_file, 0, "there is no section [" + std::string{name} + "]");
}

void bad_switch(const Product &product, const Find &find) {
  for (const Fault &fault : product.bad_switches) find(fault.file, fault.line, fault.text);
}

using enum Level;
using enum Needs;
using enum Line;

// Rows of unequal length are more than the formatter can align.
// clang-format off
constexpr Rule table[] = {
    {"unreadable-file", Error,
     "A file of the product is missing or cannot be read.",
     fault_of<FaultKind::Unreadable>, Nothing},
    {"binary-file", Error,
     "The file holds a zero byte where the program stops reading.",
     fault_of<FaultKind::Binary>, Nothing},
    {"byte-order-mark", Error,
     "The file begins with a byte order mark, which belongs to its first word.",
     fault_of<FaultKind::ByteOrderMark>, Nothing, Alone},
    {"carriage-return", Warning,
     "Lines end with a carriage return.",
     fault_of<FaultKind::CarriageReturn>, Nothing},
    {"long-line", Error,
     "What is behind the last character that a line may have is a line of its own.",
     fault_of<FaultKind::LongLine>, Nothing, Alone},
    {"unknown-keyword", Error,
     "The first word of the line is no keyword of this file.",
     unknown_keyword, Nothing, Alone},
    {"missing-words", Error,
     "The line lacks words and is dropped.",
     missing_words, Nothing, Alone},
    {"unread-words", Warning,
     "The line has more words than are read.",
     unread_words, Nothing},
    {"comment-behind", Warning,
     "A # behind the words of a line does not begin a comment.",
     comment_behind, Nothing, Alone},
    {"outside-section", Error,
     "A line before the first section is never read.",
     fault_of<FaultKind::Outside>, Nothing},
    {"header-text", Error,
     "Text behind the bracket of a header belongs to the section's name.",
     header_text, Nothing, Alone},
    {"repeated-section", Error,
     "Of two sections with one name the second is never read.",
     repeated_section, Nothing, Alone},
    {"misspelt-section", Error,
     "No action runs the section, but one of a similar name is missing.",
     misspelt_section, Whole, Alone},
    {"missing-section", Error,
     "A section is in the question file or the copy script, but not in both.",
     missing_section},
    {"missing-action", Warning,
     "The menu offers an upgrade or a removal for which there are no sections.",
     missing_action},
    {"bad-switch", Error,
     "A comment that switches rules off is not understood.",
     bad_switch, Nothing},
};
// clang-format on

} // namespace

std::span<const Rule> file_rules() { return table; }

} // namespace installer::check
