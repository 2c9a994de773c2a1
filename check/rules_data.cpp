// Rules for the data file.

#include "check/rules.h"
#include "check/words.h"

#include "installer/lib.h"

#include <algorithm>
#include <unordered_map>

namespace installer::check {

namespace {

std::string_view value_of_line(const DataLine &line) { return or_empty(text_of(line.value)); }

/// Lines of the data file by name, letter case ignored.
using ByName = std::unordered_map<std::string_view, const DataLine *, FoldedName, FoldedName>;

ByName lines_by_name(const Product &product) {
  ByName lines;
  for (const DataLine &line : product.data) lines.emplace(line.name, &line);
  return lines;
}

/// The setting that `line` was worked out from, directly or not, and that `wanted` holds; empty for
/// none. `seen` keeps what is known, and ends circles.
class Origins {
public:
  Origins(const ByName &lines, const Names &wanted) : lines_(lines), wanted_(wanted) {}

  std::string_view find(const DataLine &line) {
    const auto [place, fresh] = seen_.try_emplace(&line);
    if (!fresh) return place->second;
    std::string_view found;
    for (const Reference &reference : references(value_of_line(line))) {
      const auto base = lines_.find(reference.name);
      if (base == lines_.end()) continue;
      if (found.empty() && wanted_.contains(base->second->name)) found = base->second->name;
      if (found.empty() && depth_ < MostDepth) found = deeper(*base->second);
    }
    return seen_[&line] = found;
  }

private:
  static constexpr int MostDepth = 1000;
  std::string_view deeper(const DataLine &line) {
    ++depth_;
    const std::string_view found = find(line);
    --depth_;
    return found;
  }

  const ByName &lines_;
  const Names &wanted_;
  std::unordered_map<const DataLine *, std::string_view> seen_;
  int depth_ = 0;
};

/// The names that a copy section reads, its templates included.
template <class Look>
void each_name_read(const Product &product, const CopySection &section, Look look) {
  for (const Step &step : section.steps)
    for (const Use &use : step.uses) {
      if (use.role == Role::Word) look(use.text);
      for (const Named &reference : use.references) look(reference.text);
    }
  for (const Template &text : product.templates)
    for (const CopySection *writer : text.sections)
      if (writer == &section)
        for (const TextLine &line : text.lines)
          for (const Reference &reference : references(line.text)) look(reference.name);
}

/// Nothing but the data file sets it, in a run of that section.
bool stays(const Product &product, const QuestSection &asked, std::string_view name) {
  const auto setting = product.settings.find(name);
  return setting != product.settings.end() && setting->second.data != nullptr &&
         !setting->second.init && !asked.sets.contains(name);
}

/// Takes out of `circular` the lines to which none of the others refers, until none is left: they
/// lead into a circle and are not on it.
void keep_circles(const ByName &lines, std::unordered_set<const DataLine *> &circular) {
  std::unordered_map<const DataLine *, int> referred;
  const auto each = [&](const DataLine *line, auto look) {
    for (const Reference &reference : references(value_of_line(*line)))
      if (const auto found = lines.find(reference.name); found != lines.end()) look(found->second);
  };
  for (const DataLine *line : circular) each(line, [&](const DataLine *to) { ++referred[to]; });
  std::vector<const DataLine *> waiting;
  for (const DataLine *line : circular)
    if (!referred.contains(line)) waiting.push_back(line);
  while (!waiting.empty()) {
    const DataLine *line = waiting.back();
    waiting.pop_back();
    circular.erase(line);
    each(line, [&](const DataLine *to) {
      if (--referred[to] == 0 && circular.contains(to)) waiting.push_back(to);
    });
  }
}

bool has_script(const Product &product, const QuestSection &asked) {
  return std::any_of(product.scripts.begin(), product.scripts.end(),
                     [&](const CopySection &section) { return section.questions == &asked; });
}

void assignment(const Product &product, const Find &find) {
  for (const DataLine &line : product.data)
    if (line.assigned)
      find(product.data_file, line.line,
           "blanks separate name and value; write " +
               quoted(line.name + " " + std::string{value_of_line(line)}));
}

void quoted_value(const Product &product, const Find &find) {
  for (const DataLine &line : product.data) {
    const std::string_view value = value_of_line(line);
    if (value.size() < 2 || value.front() != value.back()) continue;
    const bool quote = value.front() == '"' || value.front() == '\'';
    if (quote && value.find(value.front(), 1) == value.size() - 1)
      find(product.data_file, line.line, "the quotes belong to the value of " + quoted(line.name));
  }
}

void comment_in_value(const Product &product, const Find &find) {
  for (const DataLine &line : product.data) {
    const std::string_view value = value_of_line(line);
    const std::size_t sign = value.find_first_of('#');
    const bool behind = sign != std::string_view::npos && sign > 0 &&
                        (value[sign - 1] == ' ' || value[sign - 1] == '\t');
    const bool at_once = sign == 0 && (value.size() == 1 || value[1] == ' ' || value[1] == '\t');
    if (behind || at_once)
      find(product.data_file, line.line,
           "what follows the # belongs to the value of " + quoted(line.name));
  }
}

void header_in_data(const Product &product, const Find &find) {
  for (const DataLine &line : product.data)
    if (line.name.starts_with('['))
      find(product.data_file, line.line, quoted(line.name) + " is a setting of that name here");
}

void repeated_setting(const Product &product, const Find &find) {
  for (const DataLine &line : product.data)
    if (line.repeated)
      find(product.data_file, line.line,
           quoted(line.name) + " is set in line " +
               std::to_string(product.settings.at(line.name).data->line) + " already");
}

void program_setting(const Product &product, const Find &find) {
  for (const DataLine &line : product.data)
    if (product.settings.at(line.name).own)
      find(product.data_file, line.line, "the program itself sets " + quoted(line.name));
}

void empty_value(const Product &product, const Find &find) {
  for (const auto &[line, step] : product.empty_settings)
    find(product.data_file, line->line,
         quoted(line->name) + " has no value yet where " + *step->file + ":" +
             std::to_string(step->line) + " refers to it");
}

void circle(const Product &product, const Find &find) {
  std::unordered_set<const DataLine *> circular;
  for (const DataLine &line : product.data)
    if (line.circular) circular.insert(&line);
  const auto all = circular;
  keep_circles(lines_by_name(product), circular);
  for (const DataLine *line : circular.empty() ? all : circular)
    find(product.data_file, line->line,
         "the value of " + quoted(line->name) + " leads back to itself");
}

void misspelt_setting(const Product &product, const Find &find) {
  for (const DataLine &line : product.data) {
    const Traffic &setting = product.settings.at(line.name);
    const bool used = setting.reads > 0 || setting.asked != nullptr || setting.own;
    if (used || setting.excused || line.repeated) continue;
    if (const std::string hint = product.read_names.hint(line.name); !hint.empty())
      find(product.data_file, line.line, "nothing reads " + quoted(line.name) + hint);
  }
  each_step(product, [&](const Step &step) {
    for (const Use &use : step.uses) {
      if (use.role != Role::Result) continue;
      const Traffic &setting = product.settings.at(use.text);
      if (setting.reads > 0 || setting.excused || setting.own) continue;
      if (const std::string hint = product.read_names.hint(use.text); !hint.empty())
        find(step, "nothing reads " + quoted(use.text) + hint);
    }
  });
}

void unread_setting(const Product &product, const Find &find) {
  if (product.dropped) return;
  for (const DataLine &line : product.data) {
    const Traffic &setting = product.settings.at(line.name);
    const bool used = setting.reads > 0 || setting.own || setting.asked != nullptr ||
                      setting.init || setting.copied;
    if (!used && !setting.excused && !line.repeated && product.read_names.find(line.name).empty())
      find(product.data_file, line.line, "nothing reads " + quoted(line.name));
  }
  for (const QuestSection &section : product.questions)
    for (const Step &step : section.steps) {
      const Use *result = use_of(step, Role::Result);
      if (result == nullptr || step.type == QXExist || step.type == QCopy) continue;
      const Traffic &setting = product.settings.at(result->text);
      if (setting.reads == 0 && !setting.excused && !setting.own && has_script(product, section) &&
          product.read_names.find(result->text).empty())
        find(step, "nothing reads the answer " + quoted(result->text));
    }
}

void derived_value(const Product &product, const Find &find) {
  const ByName lines = lines_by_name(product);
  std::unordered_set<const DataLine *> told;
  for (const CopySection &section : product.scripts) {
    if (section.questions == nullptr) continue;
    Origins origins{lines, section.questions->sets};
    each_name_read(product, section, [&](std::string_view name) {
      if (!stays(product, *section.questions, name)) return;
      const DataLine &line = *product.settings.at(name).data;
      const std::string_view base = origins.find(line);
      if (!base.empty() && told.insert(&line).second)
        find(product.data_file, line.line,
             quoted(line.name) + " keeps the default of " + quoted(base) + " when the answer in [" +
                 section.name + "] is another; write " + quoted(value_of_line(line)) +
                 " where it is used");
    });
  }
}

using enum Level;
using enum Needs;
using enum Line;

// Rows of unequal length are more than the formatter can align.
// clang-format off
constexpr Rule table[] = {
    {"assignment", Error,
     "Name and value are separated by more than blanks.",
     assignment, Nothing, Alone},
    {"quoted-value", Warning,
     "Quotes around a value belong to it.",
     quoted_value, Nothing},
    {"comment-in-value", Warning,
     "A # behind a value belongs to it.",
     comment_in_value, Nothing},
    {"header-in-data", Error,
     "This file has no sections.",
     header_in_data, Nothing, Alone},
    {"repeated-setting", Error,
     "Of two lines with one name the second is never seen.",
     repeated_setting, Nothing, Alone},
    {"program-setting", Error,
     "The program sets this setting itself; the line has no effect.",
     program_setting, Nothing, Alone},
    {"empty-value", Error,
     "A setting has no value yet where a text refers to it.",
     empty_value},
    {"circle", Error,
     "The value of a setting leads back to itself.",
     circle, Nothing},
    {"misspelt-setting", Error,
     "Nothing reads the setting, but one of a similar name is read.",
     misspelt_setting},
    {"unread-setting", Warning,
     "Nothing reads the setting.",
     unread_setting},
    {"derived-value", Error,
     "A value was worked out from the default of a question, and stays when the answer is another.",
     derived_value},
};
// clang-format on

} // namespace

std::span<const Rule> data_rules() { return table; }

} // namespace installer::check
