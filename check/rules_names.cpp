// Rules for references and names of settings, in all files.

#include "check/rules.h"
#include "check/texts.h"
#include "check/values.h"
#include "check/words.h"

#include "installer/shared.h"

#include <algorithm>
#include <cstring>
#include <unordered_map>

namespace installer::check {

namespace {

/// True when something has set it by then, or may have; also where a line that is lost may have.
bool has_value(const KnownPtr &known) {
  return known != nullptr && (known->open || !known->values.empty());
}

bool is_excused(const Product &product, std::string_view name) {
  const auto setting = product.settings.find(name);
  return setting != product.settings.end() && setting->second.excused;
}

/// A line that was dropped may have set what the data file only names.
bool is_lost(const Product &product, std::string_view name) {
  const auto setting = product.settings.find(name);
  return product.dropped && setting != product.settings.end() && setting->second.data != nullptr;
}

// ---- References ----

/// References between values of the data file ignore letter case and the order of lines.
void unknown_in_data(const Product &product, const Find &find) {
  std::unordered_set<std::string_view, FoldedName, FoldedName> names;
  for (const OwnSetting &own : own_settings())
    if (has(own.mode, Ini_Replace)) names.insert(own.name);
  for (const DataLine &line : product.data) names.insert(line.name);
  for (const DataLine &line : product.data)
    for (const Reference &reference : references(or_empty(text_of(line.value)))) {
      const bool fine = !reference.closed || names.contains(reference.name);
      if (fine || is_excused(product, reference.name)) continue;
      find(product.data_file, line.line,
           reference.name == ActionSetting ? "a reference to 'action' is removed here"
                                           : not_set(product, reference.name));
    }
}

void unknown_in_step(const Product &product, const Find &find, const Step &step,
                     const Names *results) {
  each_reference(step, [&](const Named &reference) {
    const bool looked_at = reference.closed && !has_value(reference.known);
    const bool late = results != nullptr && results->contains(reference.text);
    if (looked_at && !late && !is_excused(product, reference.text))
      find(step, not_set(product, reference.text));
  });
}

void unknown_in_template(const Product &product, const Find &find, const Template &text) {
  for (const TextLine &line : text.lines)
    for (const Reference &reference : references(line.text)) {
      if (!reference.closed || is_shell(text, reference) || is_excused(product, reference.name))
        continue;
      const auto known = [&](const CopySection *section) {
        return is_known_in(product, section, reference.name);
      };
      if (!std::all_of(text.sections.begin(), text.sections.end(), known))
        find(text.file, line.line, not_set(product, reference.name));
    }
}

// ---- Controls ----

/// A Copy of the question file, whose control has no effect. (Types of other files have the
/// number.)
bool is_ungated(const Product &product, const Step &step) {
  return step.file == &product.quest_file && step.type == QCopy;
}

/// The values that a control is compared with; empty when they are not known.
std::vector<std::string> compared_values(const Use &compare) {
  const std::string word{compare.text};
  if (compare.known == nullptr) return {word};
  if (compare.known->open) return {};
  std::vector<std::string> values = compare.known->values;
  if (compare.known->absent) values.push_back(word);
  return values;
}

bool can_hold(const Use &control, const Use *compare, Case letters) {
  const std::vector<std::string> wanted =
      compare != nullptr ? compared_values(*compare) : std::vector<std::string>{};
  for (const std::string &value : control.known->values) {
    if (compare == nullptr && gate_allows(value.c_str(), nullptr, letters)) return true;
    for (const std::string &want : wanted)
      if (gate_allows(value.c_str(), want.c_str(), letters)) return true;
  }
  return compare != nullptr && wanted.empty();
}

/// One value of a kind, and another word of that kind: "yes" and "true".
bool is_other_spelling(const Known &known, const Use *compare) {
  if (known.values.size() != 1 || compare == nullptr) return false;
  const char *value = known.values.front().c_str();
  const std::string word{compare->text};
  return (istrue(value) != 0 && istrue(word.c_str()) != 0) ||
         (isfalse(value) != 0 && isfalse(word.c_str()) != 0);
}

std::string shown(const std::vector<std::string> &values) {
  std::string text;
  for (const std::string &value : values) text += (text.empty() ? "" : " or ") + quoted(value);
  return text;
}

void never_true_in(const Product &product, const Find &find, const Step &step, Case letters) {
  const Use *control = use_of(step, Role::Control);
  const Use *compare = use_of(step, Role::Compare);
  if (control == nullptr || control->known == nullptr || is_ungated(product, step)) return;
  const Known &known = *control->known;
  if (known.open || known.absent) return;
  if (known.values.size() < 2 && !is_other_spelling(known, compare)) return; // a switch
  if (can_hold(*control, compare, letters)) return;
  find(step, quoted(control->text) + " is " + shown(known.values) + ", never " +
                 (compare != nullptr ? quoted(compare->text) : "a yes"));
}

// ---- Results ----

/// Results of one file's run that nothing has looked at yet.
class Pending {
public:
  explicit Pending(const Product &product) : product_(product) {}

  void run(const Step &step, bool looks_at_all, const Find &find) {
    if (looks_at_all) waiting_.clear();
    for (const Use &use : step.uses)
      if (use.role != Role::Result) waiting_.erase(use.text);
    const Use *result = use_of(step, Role::Result);
    if (result == nullptr || product_.settings.at(result->text).data != nullptr ||
        product_.settings.at(result->text).own)
      return;
    const auto [first, fresh] = waiting_.try_emplace(result->text, &step);
    if (!fresh && !exclude(*first->second, step))
      find(step, quoted(result->text) + " keeps its result of line " +
                     std::to_string(first->second->line) + "; name it in " + product_.data_file);
  }

private:
  /// True when never both of them run.
  static bool exclude(const Step &a, const Step &b) {
    const Use *control_a = use_of(a, Role::Control);
    const Use *control_b = use_of(b, Role::Control);
    const Use *compare_a = use_of(a, Role::Compare);
    const Use *compare_b = use_of(b, Role::Compare);
    return control_a != nullptr && control_b != nullptr && control_a->text == control_b->text &&
           (compare_a == nullptr) == (compare_b == nullptr) &&
           (compare_a == nullptr || compare_a->text != compare_b->text);
  }

  const Product &product_;
  std::unordered_map<std::string_view, const Step *> waiting_;
};

/// A line that looks for the web server's settings, and finds either a result or that it is
/// missing.
bool may_miss(const Step &step) {
  return std::any_of(step.uses.begin(), step.uses.end(),
                     [](const Use &use) { return use.operand == Operand::Missing; });
}

void unknown_reference(const Product &product, const Find &find) {
  unknown_in_data(product, find);
  for (const Step &step : product.init_steps) unknown_in_step(product, find, step, nullptr);
  for (const QuestSection &section : product.questions)
    for (const Step &step : section.steps) unknown_in_step(product, find, step, nullptr);
  for (const CopySection &section : product.scripts)
    for (const Step &step : section.steps) unknown_in_step(product, find, step, &section.sets);
  for (const Template &text : product.templates)
    if (!text.program) unknown_in_template(product, find, text);
}

void unclosed_reference(const Product &product, const Find &find) {
  const auto look = [&find](const std::string &file, std::size_t line, std::string_view text) {
    for (const Reference &reference : references(text))
      if (!reference.closed)
        find(file, line, quoted("$(" + std::string{reference.name}) + " lacks its )");
  };
  for (const DataLine &line : product.data)
    look(product.data_file, line.line, or_empty(text_of(line.value)));
  each_step(product, [&](const Step &step) {
    for (const Use &use : step.uses)
      if (is_replaced(use.role)) look(*step.file, step.line, use.text);
  });
  for (const Template &text : product.templates)
    if (!text.program)
      for (const TextLine &line : text.lines) look(text.file, line.line, line.text);
}

void wrong_reference(const Product &product, const Find &find) {
  const auto look = [&](const std::string &file, std::size_t line, std::string_view text,
                        bool prose) {
    const WrongReference found = wrong_reference_in(product, text, prose);
    if (!found.name.empty())
      find(file, line, quoted(found.whole) + " is no reference; write " + in_brackets(found.name));
    else if (text.starts_with("~/") || text.starts_with("$HOME") || text.starts_with("${HOME}"))
      find(file, line, quoted(text.substr(0, text.find('/'))) + " is not replaced by a directory");
  };
  for (const DataLine &line : product.data)
    look(product.data_file, line.line, or_empty(text_of(line.value)), true);
  each_step(product, [&](const Step &step) {
    for (const Use &use : step.uses)
      if (is_replaced(use.role) || use.role == Role::Word)
        look(*step.file, step.line, use.text, use.role == Role::Shown);
  });
}

void reference_for_name(const Product &product, const Find &find) {
  each_step(product, [&](const Step &step) {
    for (const Use &use : step.uses) {
      const bool name = is_name(use.role) || use.role == Role::Exclusions;
      if (use.wrapped) find(step, "the name of a setting is meant; write " + quoted(use.text));
      else if (name && has_reference(use.text))
        find(step, "no reference is replaced in " + quoted(use.text));
    }
  });
}

void name_for_path(const Product &product, const Find &find) {
  each_step(product, [&](const Step &step) {
    for (const Use &use : step.uses) {
      const bool path = is_path(use.role) && use.text.find_first_of("/$") == std::string_view::npos;
      if (path && is_setting(product, use.text) &&
          find_entry(product.payload, Here + ("/" + std::string{use.text})) == nullptr)
        find(step, quoted(use.text) + " is a path here; write " + in_brackets(use.text) +
                       " for the setting");
    }
  });
}

void unknown_setting(const Product &product, const Find &find) {
  each_step(product, [&](const Step &step) {
    for (const Use &use : step.uses) {
      const bool reads = use.role == Role::Source || use.role == Role::Decision;
      if (reads && !has_value(use.known) && !is_lost(product, use.text) &&
          !is_excused(product, use.text))
        find(step, not_set(product, use.text));
    }
  });
}

void unknown_control(const Product &product, const Find &find) {
  each_step(product, [&](const Step &step) {
    const Use *control = use_of(step, Role::Control);
    const Use *compare = use_of(step, Role::Compare);
    if (control == nullptr || has_value(control->known) || control->text == "-") return;
    if (step.file == &product.init_file && compare == nullptr) return;
    if (!is_ungated(product, step) && !has_reference(control->text) &&
        !is_lost(product, control->text) && !is_excused(product, control->text))
      find(step, not_set(product, control->text));
  });
}

void never_true(const Product &product, const Find &find) {
  each_step(product, [&](const Step &step) {
    const bool of_init = step.file == &product.init_file;
    if (of_init && use_of(step, Role::Compare) == nullptr) return;
    const bool copies = step.file == &product.copy_file;
    never_true_in(product, find, step, copies ? Case::Ignored : Case::Counts);
  });
}

void comparison_alone(const Product &product, const Find &find) {
  each_step(product, [&](const Step &step) {
    const Use *control = use_of(step, Role::Control);
    const Use *compare = use_of(step, Role::Compare);
    const bool none = control == nullptr || control->text == "-";
    if (!none || compare == nullptr || is_ungated(product, step)) return;
    find(step, step.file == &product.init_file ? "without a control the line never runs"
                                               : "without a control the comparison " +
                                                     quoted(compare->text) + " means nothing");
  });
}

void control_alone(const Product &product, const Find &find) {
  for (const Step &step : product.init_steps)
    if (const Use *control = use_of(step, Role::Control))
      if (use_of(step, Role::Compare) == nullptr)
        find(step, "without a comparison the line always runs; write '" +
                       std::string{control->text} + " true'");
}

bool is_fixed(std::string_view name) {
  const auto own = own_settings();
  return std::any_of(own.begin(), own.end(), [=](const OwnSetting &setting) {
    return setting.name == name && has(setting.mode, Ini_Fixed);
  });
}

void fixed_setting(const Product &product, const Find &find) {
  each_step(product, [&](const Step &step) {
    for (const Use &use : step.uses)
      if (use.role == Role::Result && is_fixed(use.text))
        find(step, quoted(use.text) + " is set by the program and cannot be changed");
  });
}

void lost_result(const Product &product, const Find &find) {
  Pending init{product};
  for (const Step &step : product.init_steps)
    if (!may_miss(step)) init.run(step, false, find);
  for (const CopySection &section : product.scripts) {
    Pending copy{product};
    for (const Step &step : section.steps) copy.run(step, step.deed == Deed::Fills, find);
  }
}

void bad_action(const Product &product, const Find &find) {
  for (const Step &step : product.init_steps) {
    const Use *result = use_of(step, Role::Result);
    const Use *word = use_of(step, Role::Word);
    const bool action = result != nullptr && result->text == ActionSetting && word != nullptr;
    if (result != nullptr && word != nullptr && word->text == ActionSetting &&
        step.deed == Deed::Copies)
      find(step, "this sets " + quoted(result->text) + "; did you mean 'Copy action " +
                     std::string{result->text} + "'?");
    if (action && word->known == nullptr && word->text != "install" && word->text != "upgrade")
      find(step,
           "the action " + quoted(word->text) + " is an install" +
               (s_stricmp(std::string{word->text}.c_str(), "upgrade") == 0 ? "; write 'upgrade'"
                                                                           : ""));
  }
}

using enum Level;
using enum Needs;
using enum Line;

// Rows of unequal length are more than the formatter can align.
// clang-format off
constexpr Rule table[] = {
    {"unknown-reference", Error,
     "A reference names a setting that has no value there.",
     unknown_reference},
    {"unclosed-reference", Error,
     "A reference lacks its closing bracket.",
     unclosed_reference, Nothing},
    {"wrong-reference", Error,
     "A setting is referred to as another language would do it.",
     wrong_reference, Whole, Alone},
    {"reference-for-name", Error,
     "A reference stands where it is not replaced, or where a name is meant.",
     reference_for_name, Nothing, Alone},
    {"name-for-path", Error,
     "The name of a setting stands where a path is meant.",
     name_for_path, Whole, Alone},
    {"unknown-setting", Error,
     "A line reads a setting that has no value there.",
     unknown_setting},
    {"unknown-control", Error,
     "A control has no value there, so it decides nothing.",
     unknown_control},
    {"never-true", Error,
     "A control can never have the value that it is compared with.",
     never_true},
    {"comparison-alone", Error,
     "A comparison has no control.",
     comparison_alone, Nothing},
    {"control-alone", Error,
     "A control has no comparison, without which it decides nothing here.",
     control_alone, Nothing},
    {"fixed-setting", Error,
     "A line sets a setting that cannot be changed.",
     fixed_setting, Nothing},
    {"lost-result", Error,
     "A second result for a setting is kept behind the first, which stays its value.",
     lost_result},
    {"bad-action", Error,
     "The action can only be install or upgrade.",
     bad_action, Nothing},
};
// clang-format on

} // namespace

std::span<const Rule> name_rules() { return table; }

} // namespace installer::check
