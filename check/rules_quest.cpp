// Rules for the questions.

#include "check/rules.h"
#include "check/values.h"
#include "check/words.h"

#include "installer/lib.h"

#include <cstdlib>
#include <string_view>
#include <unordered_set>

namespace installer::check {

namespace {

constexpr std::size_t LongestPrompt = 999;

bool is_asked(const Step &step) {
  return quest_keyword(static_cast<QType>(step.type)).accept != nullptr;
}

/// Calls `look` with each question and its section.
template <class Look> void each_question(const Product &product, Look look) {
  for (const QuestSection &section : product.questions)
    for (const Step &step : section.steps)
      if (is_asked(step)) look(section, step);
}

struct Jump {
  const QuestSection &section;
  const Step &step;
  const std::string &text; // the target as it is written
  bool number;
  std::size_t target;
};

/// Calls `look` with each Loop.
template <class Look> void each_jump(const Product &product, Look look) {
  for (const QuestSection &section : product.questions)
    for (const Step &step : section.steps) {
      if (step.type != QLoop) continue;
      const std::string &text = *section.owner->list[step.index].text;
      const bool number =
          text.find_first_not_of("0123456789") == std::string::npos && text.size() < 10;
      look(Jump{section, step, text, number, number ? std::strtoul(text.c_str(), nullptr, 10) : 0});
    }
}

/// "entry 3 is line 12", for a finding about a Loop.
std::string where(const Jump &jump) {
  if (jump.target >= jump.section.steps.size())
    return "the entries of [" + jump.section.name + "] are 0 to " +
           std::to_string(jump.section.steps.size() - 1);
  return "entry " + std::to_string(jump.target) + " is line " +
         std::to_string(jump.section.steps[jump.target].line);
}

/// True when an entry from the target on up to the Loop sets its setting: `asks`, a question;
/// else, an entry of another kind.
bool sets_between(const Jump &jump, std::string_view setting, bool asks) {
  for (std::size_t i = jump.target; i < jump.step.index; ++i) {
    const Use *result = use_of(jump.section.steps[i], Role::Result);
    if (result != nullptr && result->text == setting && is_asked(jump.section.steps[i]) == asks)
      return true;
  }
  return false;
}

/// False when its control is known to keep it from being asked unattended.
bool may_be_asked(const Step &step) {
  const Use *control = use_of(step, Role::Control);
  const Use *compare = use_of(step, Role::Compare);
  if (control == nullptr || control->known == nullptr || !control->known->value) return true;
  const char *value = text_of(control->known->value);
  if (compare == nullptr) return gate_allows(value, nullptr, Case::Counts);
  const bool other = compare->known != nullptr && compare->known->value;
  const std::string wanted = other ? *compare->known->value : std::string{compare->text};
  return gate_allows(value, wanted.c_str(), Case::Counts);
}

void loop_target(const Product &product, const Find &find) {
  each_jump(product, [&](const Jump &jump) {
    if (!jump.number)
      find(jump.step, quoted(jump.text) +
                          " is no number of an entry, counted from 0; it goes to line " +
                          std::to_string(jump.section.steps.front().line));
    else if (jump.target == jump.step.index)
      find(jump.step, "the Loop goes to itself: " + where(jump));
  });
}

void loop_end(const Product &product, const Find &find) {
  each_jump(product, [&](const Jump &jump) {
    if (jump.number && jump.target >= jump.section.steps.size())
      find(jump.step, "there is no entry " + std::to_string(jump.target) +
                          ", so the questions end: " + where(jump));
  });
}

void loop_repeats(const Product &product, const Find &find) {
  each_jump(product, [&](const Jump &jump) {
    if (!jump.number || jump.target >= jump.step.index) return;
    const Use &setting = *use_of(jump.step, Role::Decision);
    const bool asked = sets_between(jump, setting.text, true);
    const bool changed = sets_between(jump, setting.text, false);
    const char *value = setting.known != nullptr ? text_of(setting.known->value) : nullptr;
    if (setting.known == nullptr) return;
    if (!asked && !changed)
      find(jump.step,
           "nothing from there on sets " + quoted(setting.text) + " again: " + where(jump));
    else if (!changed && isfalse(value) != 0)
      find(jump.step, "the default of " + quoted(setting.text) +
                          " is a no, which repeats for ever unattended: " + where(jump));
  });
}

void no_default(const Product &product, const Find &find) {
  std::unordered_set<std::string_view> told; // a line for the setting mends them all
  each_question(product, [&](const QuestSection &, const Step &step) {
    const Use &setting = *use_of(step, Role::Result);
    const bool none =
        setting.known == nullptr || (!setting.known->open && setting.known->values.empty());
    const Traffic &traffic = product.settings.at(setting.text);
    if (none && traffic.reads > 0 && !traffic.excused && may_be_asked(step) &&
        told.insert(setting.text).second)
      find(step, quoted(setting.text) + " has no default for an unattended run" +
                     (setting.known == nullptr ? product.names.hint(setting.text) : ""));
  });
}

void letter_default(const Product &product, const Find &find) {
  each_question(product, [&](const QuestSection &, const Step &step) {
    const Use &setting = *use_of(step, Role::Result);
    if (setting.known == nullptr || !setting.known->value || step.type == QYN) return;
    const std::string &value = *setting.known->value;
    if (value == "q" || value == "Q")
      find(step, "the default " + quoted(value) + " quits the action unattended");
    if (value == "b" || value == "B")
      find(step, "the default " + quoted(value) + " goes back, which fails unattended");
  });
}

void yes_no_default(const Product &product, const Find &find) {
  each_question(product, [&](const QuestSection &, const Step &step) {
    const Use &setting = *use_of(step, Role::Result);
    if (step.type != QYN || setting.known == nullptr || !setting.known->value) return;
    const std::string &value = *setting.known->value;
    if (istrue(value.c_str()) == 0 && isfalse(value.c_str()) == 0)
      find(step, "the default " + quoted(value) + " of " + quoted(setting.text) +
                     " is taken for a no; write true or false");
  });
}

void error_reference(const Product &product, const Find &find) {
  for (const QuestSection &section : product.questions)
    for (const Step &step : section.steps)
      if (const Use *text = use_of(step, Role::Literal))
        if (has_reference(text->text))
          find(step, "'$(" + std::string{references(text->text).front().name} +
                         ")' is shown as it is written in [" + section.name + "]");
}

void long_prompt(const Product &product, const Find &find) {
  if (product.dropped) return; // of a long line the default is only a part
  each_question(product, [&](const QuestSection &, const Step &step) {
    const Use *text = use_of(step, Role::Shown);
    const Use &setting = *use_of(step, Role::Result);
    const Text prompt = text != nullptr ? value_of(product, *text) : Text{};
    const std::size_t answer =
        setting.known != nullptr && setting.known->value ? setting.known->value->size() : 0;
    if (prompt && prompt->size() + answer + 4 > LongestPrompt)
      find(step, "the prompt has more than 999 characters with its default");
  });
}

void ignored_control(const Product &product, const Find &find) {
  for (const QuestSection &section : product.questions)
    for (const Step &step : section.steps)
      if (step.type == QCopy && (use_of(step, Role::Control) || use_of(step, Role::Compare)))
        find(step, "a Copy is always done; write '-' for control and comparison");
}

using enum Level;
using enum Needs;
using enum Line;

// Rows of unequal length are more than the formatter can align.
// clang-format off
constexpr Rule table[] = {
    {"loop-target", Error,
     "A Loop does not name the number of an entry.",
     loop_target, Nothing},
    {"loop-end", Warning,
     "A Loop goes behind the last entry, which ends the questions.",
     loop_end, Nothing},
    {"loop-repeats", Error,
     "A Loop repeats for ever, at least unattended.",
     loop_repeats},
    {"no-default", Warning,
     "A question has no default for an unattended run.",
     no_default},
    {"letter-default", Error,
     "A default of a lone q or b quits, or goes back.",
     letter_default},
    {"yes-no-default", Error,
     "The default of a yes-or-no question is neither.",
     yes_no_default},
    {"error-reference", Error,
     "The text of Error is shown with its references as they are written, but in [upgrade].",
     error_reference, Nothing},
    {"long-prompt", Warning,
     "A prompt is longer than 999 characters.",
     long_prompt, Nothing},
    {"ignored-control", Error,
     "The control of a Copy has no effect.",
     ignored_control, Nothing},
};
// clang-format on

} // namespace

std::span<const Rule> quest_rules() { return table; }

} // namespace installer::check
