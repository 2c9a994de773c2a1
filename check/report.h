#pragma once

// The findings of one run: collected in any order, printed in the order of file and line, each
// once, in the form that editors read ("FILE:LINE: error: TEXT [RULE]").

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace installer::check {

/// `Error`: as it is written, the line is dropped, fails or does something else than it says, or
/// the product cannot start. `Warning`: it runs, but is probably not what was meant.
enum class Level { Error, Warning };

struct Rule;

/// `file`: as it is reached from the working directory; `line`: from 1, 0 for the file as a whole;
/// `order`: the place of the rule among all, which decides what explains a line.
struct Finding {
  std::string file;
  std::size_t line;
  const Rule *rule;
  std::size_t order;
  std::string text;
};

class Report {
public:
  void add(Finding finding) { findings_.push_back(std::move(finding)); }
  /// From now on findings of `rule` are dropped: in `line` of `file`, or with 0 in all of it.
  void switch_off(const std::string &file, std::size_t line, std::string_view rule);
  /// Puts what was added into order and drops what was switched off, what follows from
  /// another finding in its line, and what is there twice.
  void finish();
  /// The number of findings of a level.
  [[nodiscard]] std::size_t count(Level level) const;
  /// Prints all findings on standard output, in colour or not. False when they did not all arrive.
  [[nodiscard]] bool print(bool colour) const;

private:
  void drop_consequences();
  [[nodiscard]] bool is_off(const Finding &finding) const;

  std::vector<Finding> findings_;
  std::set<std::tuple<std::string, std::size_t, std::string>> off_;
};

} // namespace installer::check
