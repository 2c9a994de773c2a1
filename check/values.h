#pragma once

// What names and texts stand for: the settings that are known, and texts with their references
// replaced as in an unattended run.

#include "check/model.h"

#include <string>
#include <string_view>

namespace installer::check {

/// True when something sets a setting of that name, anywhere.
[[nodiscard]] bool is_setting(const Product &product, std::string_view name);
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

/// True when the setting has a value when the commands of the section run, or, without a section,
/// once the init script has run; also when it may have one.
[[nodiscard]] bool is_known_in(const Product &product, const CopySection *section,
                               std::string_view name);

/// The text of a use with its references replaced; one that has no known value stays as it is
/// written.
[[nodiscard]] std::string text_with_values(const Product &product, const Use &use);
/// The same as a plain path (words.h).
[[nodiscard]] std::string path_of(const Product &product, const Use &use);
/// The same of the first part of that text.
[[nodiscard]] std::string path_of(const Product &product, const Use &use, std::string_view text);
/// The whole text. None when a value is not known.
[[nodiscard]] Text value_of(const Product &product, const Use &use);

} // namespace installer::check
