#pragma once

// The three files with lines of commands, through the loaders of installer: all sections of a file,
// not one of them as in a run, and what a misspelt section is taken for.

#include "check/model.h"
#include "check/words.h"

#include <string>
#include <unordered_set>

namespace installer::check {

/// Fill `init`, `questions` or `scripts` from the file, and `headers`. `faults` takes what is
/// wrong.
void load_init(Product &product, const Faults &faults);
void load_questions(Product &product, const Faults &faults);
void load_scripts(Product &product, const Faults &faults);

/// Takes each section that neither an action nor the other file knows for the one of a similar name
/// that is missing: its header and the section itself then have that name.
void guess_all_sections(Product &product);

/// True for the name of a section that the menu runs, letter case ignored.
[[nodiscard]] bool is_action(const std::string &name);

/// The names of the sections of a file, as they are meant; letter case ignored.
using SectionNames = std::unordered_set<std::string, FoldedName, FoldedName>;
[[nodiscard]] SectionNames sections_of(const Product &product, const std::string &file);

} // namespace installer::check
