#pragma once

// Who sets and who reads each setting, in the order of a run: data file, init script, the questions
// of a section, the copy commands of the section of that name. `trace_settings` once, when all
// scripts of a product are loaded, and `trace_readers`, when its templates are too; then each word
// of each line knows what is known of its setting.

#include "check/model.h"

#include <string>
#include <string_view>

namespace installer::check {

/// Fills the steps of the init script and of all sections, `start`, and who sets each setting.
void trace_settings(Product &product);
/// Then, with the templates: who reads each setting, and the names.
void trace_readers(Product &product);

/// What is known of a setting once the init script has run; null when nothing has set it by then.
[[nodiscard]] KnownPtr known_at_start(const Product &product, std::string_view name);

/// The name of a setting that a text refers to as another language would do it ("${dir}", "$dir"),
/// and the whole of that. In `prose`, only what cannot be meant otherwise. Empty without one.
struct WrongReference {
  std::string_view name, whole;
};
[[nodiscard]] WrongReference wrong_reference_in(const Product &product, std::string_view text,
                                                bool prose);

/// Why a name has no value where it is used, for a message: "nothing sets 'prot'; did you mean
/// 'port'?", or that it is set elsewhere.
[[nodiscard]] std::string not_set(const Product &product, std::string_view name);

} // namespace installer::check
