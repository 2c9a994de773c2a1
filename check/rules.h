#pragma once

// The rules. A rule is a row: its name, how bad a finding is, one sentence, and a function that
// looks at a product as the loaders delivered it. Both stand in the source of their kind of file.

#include "check/model.h"
#include "check/report.h"

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace installer::check {

class Find;

/// `sentence`: what is wrong, as -list and installer-check(1) show it. `run` looks at a product.
/// `needs`: `Whole`: all files of the product could be read, else the rule has no meaning. `alone`:
/// with such a finding in a line, all others in that line follow from it and are dropped.
enum class Needs { Nothing, Whole };
enum class Line { Shared, Alone };
struct Rule {
  const char *name;
  Level level;
  const char *sentence;
  void (*run)(const Product &product, const Find &find);
  Needs needs = Needs::Whole;
  Line line = Line::Shared;
};

/// Where the findings of one rule for one product go. `order`: the place of the rule among all.
class Find {
public:
  Find(Report &report, const Rule &rule, std::size_t order)
      : report_(report), rule_(rule), order_(order) {}
  void operator()(const std::string &file, std::size_t line, std::string text) const {
    report_.add({file, line, &rule_, order_, std::move(text)});
  }
  /// A finding in the line of a step.
  void operator()(const Step &step, std::string text) const {
    (*this)(*step.file, step.line, std::move(text));
  }

private:
  Report &report_;
  const Rule &rule_;
  std::size_t order_;
};

/// The rules of one kind of file each, in the order in which they are listed: all files; names and
/// references; data file; questions; copy script; templates and blurb.
[[nodiscard]] std::span<const Rule> file_rules();
[[nodiscard]] std::span<const Rule> name_rules();
[[nodiscard]] std::span<const Rule> data_rules();
[[nodiscard]] std::span<const Rule> quest_rules();
[[nodiscard]] std::span<const Rule> copy_rules();
[[nodiscard]] std::span<const Rule> text_rules();

/// All rules, in that order.
[[nodiscard]] std::vector<const Rule *> all_rules();
/// The rule of that name, or null.
[[nodiscard]] const Rule *find_rule(std::string_view name);
/// Lets all rules look at the product.
void run_rules(const Product &product, Report &report);

} // namespace installer::check
