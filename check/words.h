#pragma once

// Words and paths as the rules look at them: references in a text, the nearest known word to an
// unknown one, and paths in one form. Views point into the text that was given.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace installer::check {

/// A "$(name)" in a text. Without a ")" the name reaches to the end of the text.
struct Reference {
  std::string_view name;
  bool closed;
};
/// All references of a text, from left to right. None is looked for inside another one.
[[nodiscard]] std::vector<Reference> references(std::string_view text);
/// True when the text opens a reference.
[[nodiscard]] inline bool has_reference(std::string_view text) {
  return text.find("$(") != std::string_view::npos;
}

/// The reference to a setting: "$(name)".
[[nodiscard]] inline std::string in_brackets(std::string_view name) {
  return "$(" + std::string{name} + ")";
}

/// `word` between single quotes, a long one cut, control characters as "?".
[[nodiscard]] std::string quoted(std::string_view word);

/// The number of letters to insert, remove, replace or swap with their neighbour that turns `a`
/// into `b`, letter case ignored; more than `most` when it is more than that.
[[nodiscard]] std::size_t distance(std::string_view a, std::string_view b, std::size_t most);

/// Known words, for "did you mean". Words that differ in nothing but digits are not near. A search
/// that has compared millions of words finds nothing from then on, so that time stays linear.
class Nearest {
public:
  /// The word must outlive this.
  void add(std::string_view word);
  /// The nearest other word that is near enough to have been meant; empty without one.
  [[nodiscard]] std::string_view find(std::string_view word) const;
  /// "; did you mean 'port'?", or the empty text.
  [[nodiscard]] std::string hint(std::string_view word) const;

private:
  struct Word {
    std::string_view text;
    std::uint64_t letters; // a bit for each character, some of which share one
  };
  std::vector<Word> words_;
  mutable std::size_t left_ = 20'000'000;
};

/// The path without "." components, doubled separators and "name/..", with "/" as separator and
/// none at its end. A relative path gets `base` in front; one that begins with a reference is left
/// alone.
[[nodiscard]] std::string plain_path(std::string_view path, std::string_view base);
/// The part before the last "/" of a plain path; "/" for the root's entries; empty without one.
[[nodiscard]] std::string_view parent_of(std::string_view path);
/// The part behind the last "/".
[[nodiscard]] std::string_view name_of(std::string_view path);

} // namespace installer::check
