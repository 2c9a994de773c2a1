#include "check/words.h"

#include "installer/lib.h"

#include <algorithm>
#include <array>
#include <bit>

namespace installer::check {

namespace {

constexpr std::size_t LongestShown = 80;
constexpr std::size_t LongestCompared = 40;
/// What a comparison costs, in words that are passed over.
constexpr std::size_t ComparisonSteps = 50;

char folded(char c) { return static_cast<char>(charmap[static_cast<unsigned char>(c)]); }

bool is_digit(char c) { return c >= '0' && c <= '9'; }

/// How far a word may be from one of `length` letters and still be meant for it.
std::size_t reach(std::size_t length) {
  if (length < 3) return 0;
  return length < 6 ? 1 : 2;
}

std::uint64_t letters_of(std::string_view word) {
  std::uint64_t letters = 0;
  for (const char c : word)
    letters |= std::uint64_t{1} << (static_cast<unsigned char>(folded(c)) % 64U);
  return letters;
}

std::string without_digits(std::string_view word) {
  std::string rest;
  for (const char c : word)
    if (!is_digit(c)) rest += c;
  return rest;
}

} // namespace

std::vector<Reference> references(std::string_view text) {
  std::vector<Reference> found;
  std::size_t at = 0;
  while ((at = text.find("$(", at)) != std::string_view::npos) {
    const std::size_t close = text.find(')', at);
    const bool closed = close != std::string_view::npos;
    found.push_back({text.substr(at + 2, closed ? close - at - 2 : close), closed});
    if (!closed) break;
    at = close + 1;
  }
  return found;
}

std::string quoted(std::string_view word) {
  std::string text = "'";
  for (const char c : word.substr(0, LongestShown))
    text += static_cast<unsigned char>(c) < ' ' || c == '\x7f' ? '?' : c;
  return text + (word.size() > LongestShown ? "...'" : "'");
}

std::size_t distance(std::string_view a, std::string_view b, std::size_t most) {
  const std::size_t longer = std::max(a.size(), b.size());
  if (longer - std::min(a.size(), b.size()) > most || longer > LongestCompared) return most + 1;
  using Row = std::array<std::size_t, LongestCompared + 1>;
  Row before{};
  Row last{};
  Row row{};
  for (std::size_t j = 0; j <= b.size(); ++j) last[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const bool same = folded(a[i - 1]) == folded(b[j - 1]);
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (same ? 0 : 1)});
      const bool swapped = i > 1 && j > 1 && folded(a[i - 1]) == folded(b[j - 2]) &&
                           folded(a[i - 2]) == folded(b[j - 1]);
      if (swapped) row[j] = std::min(row[j], before[j - 2] + 1);
    }
    before = last;
    last = row;
  }
  return last[b.size()];
}

void Nearest::add(std::string_view word) { words_.push_back({word, letters_of(word)}); }

std::string_view Nearest::find(std::string_view word) const {
  std::string_view best;
  std::size_t least = reach(word.size()) + 1;
  const std::uint64_t letters = letters_of(word);
  for (const Word &known : words_) {
    if (least == 0 || left_ == 0) break;
    --left_;
    // Each change of a letter concerns two bits at most.
    const auto others = static_cast<std::size_t>(std::popcount(known.letters ^ letters));
    if (known.text == word || others > 2 * (least - 1)) continue;
    left_ -= std::min(left_, ComparisonSteps);
    const std::size_t far = distance(word, known.text, least - 1);
    if (far >= least || (far > 0 && without_digits(known.text) == without_digits(word))) continue;
    best = known.text;
    least = far;
  }
  return best;
}

std::string Nearest::hint(std::string_view word) const {
  const std::string_view near = find(word);
  return near.empty() ? "" : "; did you mean " + quoted(near) + "?";
}

std::string plain_path(std::string_view path, std::string_view base) {
  std::string whole{path};
  std::replace(whole.begin(), whole.end(), '\\', '/');
  const bool placed = whole.starts_with('/') || whole.starts_with("$(");
  if (!placed) whole = std::string{base} + "/" + whole;
  const bool rooted = whole.starts_with('/');
  std::vector<std::string_view> parts;
  for (std::string_view rest = whole; !rest.empty();) {
    const std::size_t end = std::min(rest.find('/'), rest.size());
    const std::string_view part = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (part.empty() || part == ".") continue;
    if (part == ".." && !parts.empty() && parts.back() != "..") parts.pop_back();
    else if (part != ".." || !rooted) parts.push_back(part);
  }
  std::string plain;
  for (const std::string_view part : parts) {
    if (rooted || !plain.empty()) plain += '/';
    plain += part;
  }
  return plain.empty() && rooted ? "/" : plain;
}

std::string_view parent_of(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return {};
  return path.substr(0, slash == 0 ? 1 : slash);
}

std::string_view name_of(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

} // namespace installer::check
