#pragma once

// The lines that do something, in the order of a run: data file, init script, the questions of a
// section, the copy commands of the section of that name. Each line becomes a `Step`, each of its
// words a `Use` that knows what is known of its setting at that moment.

#include "check/model.h"

namespace installer::check {

/// Fills the steps of the init script and of all sections, with the settings that each section
/// sets, and `start`. Needs the lines of the data file in `settings`.
void make_steps(Product &product);

/// The name in a word that is nothing but a reference; else the word.
[[nodiscard]] std::string_view bare_name(std::string_view word);

} // namespace installer::check
