#include "check/values.h"

#include "check/words.h"

namespace installer::check {

namespace {

/// The name of a setting behind `opener` and before `closer`, somewhere in the text.
WrongReference framed(const Product &product, std::string_view text, std::string_view opener,
                      std::string_view closer) {
  for (std::size_t at = 0; (at = text.find(opener, at)) != std::string_view::npos; ++at) {
    const std::string_view rest = text.substr(at + opener.size());
    const std::size_t end = closer.empty()
                                ? std::min(rest.find_first_of("/\\.,;:$ \t-"), rest.size())
                                : rest.find(closer);
    if (end == std::string_view::npos || end == 0) continue;
    const bool real = at > 0 && text[at - 1] == '$' && opener == "(";
    if (!real && is_setting(product, rest.substr(0, end)))
      return {rest.substr(0, end), text.substr(at, opener.size() + end + closer.size())};
  }
  return {};
}

struct Frame {
  const char *opener;
  const char *closer;
  bool in_prose; // it cannot be meant otherwise in a text for people
};
constexpr Frame frames[] = {
    {"${", "}", true },
    {"$[", "]", true },
    {"%(", ")", true },
    {"$",  "",  true },
    {"@",  "@", true },
    {"%",  "%", false},
    {"(",  ")", false},
    {"{",  "}", false},
};

/// The value of a setting, or of the one that a misspelt name was meant for.
Text value_meant(const Product &product, const Named &reference) {
  if (reference.known != nullptr) return reference.known->value;
  const KnownPtr meant = known_at_start(product, product.names.find(reference.text));
  return meant != nullptr ? meant->value : Text{};
}

/// A text that was meant for a reference: the name of a setting alone, or "${name}".
Text wrong_text(const Product &product, const Use &use) {
  const WrongReference wrong = wrong_reference_in(product, use.text, false);
  const std::string_view name = wrong.name.empty() && is_path(use.role) ? use.text : wrong.name;
  const KnownPtr known = known_at_start(product, name);
  if (known == nullptr || !known->value) return {};
  std::string text{use.text};
  const std::string_view whole = wrong.name.empty() ? use.text : wrong.whole;
  if (find_entry(product.payload, Here + ("/" + text)) != nullptr) return {};
  return text.replace(text.find(whole), whole.size(), *known->value);
}

/// `text`, or as much of it as is given, with the references of `use` replaced. `known`: all of
/// them have a value.
std::string replaced(const Product &product, const Use &use, std::string_view text, bool &known) {
  known = false;
  if (!has_reference(use.text))
    if (const Text meant = wrong_text(product, use)) return *meant;
  known = true;
  std::string whole;
  std::string_view rest = text;
  for (const Named &reference : use.references) {
    const std::size_t opener = rest.find("$(");
    if (!reference.closed || opener == std::string_view::npos) break;
    const std::size_t end = opener + 2 + reference.text.size() + 1;
    if (end > rest.size()) break; // the part ends within the reference
    whole += rest.substr(0, opener);
    const Text value = value_meant(product, reference);
    const bool has_value = value.has_value();
    if (has_value) whole += *value;
    else whole += rest.substr(opener, end - opener);
    known = known && has_value;
    rest.remove_prefix(end);
  }
  return whole + std::string{rest};
}

} // namespace

bool is_setting(const Product &product, std::string_view name) {
  const auto setting = product.settings.find(name);
  return setting != product.settings.end() && setting->second.is_set();
}

KnownPtr known_at_start(const Product &product, std::string_view name) {
  const auto found = product.start.find(name);
  return found != product.start.end() ? found->second : nullptr;
}

WrongReference wrong_reference_in(const Product &product, std::string_view text, bool prose) {
  for (const Frame &frame : frames) {
    if (prose && !frame.in_prose) continue;
    const WrongReference found = framed(product, text, frame.opener, frame.closer);
    if (!found.name.empty()) return found;
  }
  return {};
}

std::string not_set(const Product &product, std::string_view name) {
  const auto found = product.settings.find(name);
  if (found == product.settings.end() || !found->second.is_set())
    return "nothing sets " + quoted(name) + product.names.hint(name);
  const Traffic &setting = found->second;
  if (setting.data != nullptr) return quoted(name) + " has no value, and nothing here sets it";
  if (setting.asked != nullptr && !setting.init)
    return quoted(name) + " is set in [" + setting.asked + "] only";
  return quoted(name) + " is only set later";
}

bool is_known_in(const Product &product, const CopySection *section, std::string_view name) {
  if (const KnownPtr known = known_at_start(product, name); known != nullptr)
    if (known->open || !known->values.empty()) return true;
  if (section == nullptr) return false;
  return section->sets.contains(name) ||
         (section->questions != nullptr && section->questions->sets.contains(name));
}

std::string text_with_values(const Product &product, const Use &use) {
  bool known = false;
  return replaced(product, use, use.text, known);
}

std::string path_of(const Product &product, const Use &use) {
  return path_of(product, use, use.text);
}

std::string path_of(const Product &product, const Use &use, std::string_view text) {
  bool known = false;
  return plain_path(replaced(product, use, text, known), Here);
}

Text value_of(const Product &product, const Use &use) {
  bool known = false;
  std::string text = replaced(product, use, use.text, known);
  return known ? Text{std::move(text)} : Text{};
}

} // namespace installer::check
