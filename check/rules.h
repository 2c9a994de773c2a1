#pragma once

// The table of rules. A rule is a row: its name, how bad a finding is, one sentence, and a function
// that looks at a product as the loaders delivered it. A new rule is a row in rules.cpp and a
// function in the source of its kind of file.

#include "check/model.h"
#include "check/report.h"

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace installer::check {

/// Where the findings of one rule for one product go.
class Find {
public:
  Find(Report &report, const Rule &rule) : report_(report), rule_(rule) {}
  void operator()(const std::string &file, std::size_t line, std::string text) const {
    report_.add({file, line, &rule_, std::move(text)});
  }
  /// A finding in the line of a step.
  void operator()(const Step &step, std::string text) const {
    (*this)(*step.file, step.line, std::move(text));
  }
  [[nodiscard]] const Rule &rule() const { return rule_; }

private:
  Report &report_;
  const Rule &rule_;
};

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

/// All rules, grouped by kind of file.
[[nodiscard]] std::span<const Rule> rules();
/// The rule of that name, or null.
[[nodiscard]] const Rule *find_rule(std::string_view name);
/// Lets all rules look at the product.
void run_rules(const Product &product, Report &report);

/// Calls `look` with each step of the init script, the questions and the copy script.
template <class Look> void each_step(const Product &product, Look look) {
  for (const Step &step : product.init_steps) look(step);
  for (const QuestSection &section : product.questions)
    for (const Step &step : section.steps) look(step);
  for (const CopySection &section : product.scripts)
    for (const Step &step : section.steps) look(step);
}

// rules_files.cpp
void unreadable_file(const Product &product, const Find &find);
void binary_file(const Product &product, const Find &find);
void byte_order_mark(const Product &product, const Find &find);
void carriage_return(const Product &product, const Find &find);
void long_line(const Product &product, const Find &find);
void unknown_keyword(const Product &product, const Find &find);
void missing_words(const Product &product, const Find &find);
void unread_words(const Product &product, const Find &find);
void outside_section(const Product &product, const Find &find);
void header_text(const Product &product, const Find &find);
void repeated_section(const Product &product, const Find &find);
void misspelt_section(const Product &product, const Find &find);
void missing_section(const Product &product, const Find &find);
void missing_action(const Product &product, const Find &find);
void bad_switch(const Product &product, const Find &find);

// rules_data.cpp
void assignment(const Product &product, const Find &find);
void quoted_value(const Product &product, const Find &find);
void comment_in_value(const Product &product, const Find &find);
void header_in_data(const Product &product, const Find &find);
void repeated_setting(const Product &product, const Find &find);
void program_setting(const Product &product, const Find &find);
void empty_value(const Product &product, const Find &find);
void circle(const Product &product, const Find &find);
void misspelt_setting(const Product &product, const Find &find);
void unread_setting(const Product &product, const Find &find);
void derived_value(const Product &product, const Find &find);

// rules_names.cpp
void unknown_reference(const Product &product, const Find &find);
void unclosed_reference(const Product &product, const Find &find);
void wrong_reference(const Product &product, const Find &find);
void reference_for_name(const Product &product, const Find &find);
void name_for_path(const Product &product, const Find &find);
void unknown_setting(const Product &product, const Find &find);
void unknown_control(const Product &product, const Find &find);
void never_true(const Product &product, const Find &find);
void comparison_alone(const Product &product, const Find &find);
void control_alone(const Product &product, const Find &find);
void comment_behind(const Product &product, const Find &find);
void fixed_setting(const Product &product, const Find &find);
void lost_result(const Product &product, const Find &find);
void bad_action(const Product &product, const Find &find);

// rules_quest.cpp
void loop_target(const Product &product, const Find &find);
void loop_end(const Product &product, const Find &find);
void loop_repeats(const Product &product, const Find &find);
void no_default(const Product &product, const Find &find);
void letter_default(const Product &product, const Find &find);
void yes_no_default(const Product &product, const Find &find);
void error_reference(const Product &product, const Find &find);
void long_prompt(const Product &product, const Find &find);
void ignored_control(const Product &product, const Find &find);

// rules_copy.cpp
void place_form(const Product &product, const Find &find);
void place_missing(const Product &product, const Find &find);
void source_missing(const Product &product, const Find &find);
void payload_entry(const Product &product, const Find &find);
void file_expected(const Product &product, const Find &find);
void nested_copy(const Product &product, const Find &find);
void pattern_in_path(const Product &product, const Find &find);
void bad_mode(const Product &product, const Find &find);
void mode_of_tree(const Product &product, const Find &find);
void never_executable(const Product &product, const Find &find);
void owner_form(const Product &product, const Find &find);
void group_of_owner(const Product &product, const Find &find);
void matches_nothing(const Product &product, const Find &find);
void may_match_nothing(const Product &product, const Find &find);
void may_be_empty(const Product &product, const Find &find);
void exclusion_form(const Product &product, const Find &find);
void late_result(const Product &product, const Find &find);
void several_words(const Product &product, const Find &find);
void left_behind(const Product &product, const Find &find);
void early_marker(const Product &product, const Find &find);

// rules_text.cpp
void shell_reference(const Product &product, const Find &find);
void lost_indentation(const Product &product, const Find &find);

} // namespace installer::check
