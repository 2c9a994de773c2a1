#include "check/flow.h"

#include "check/steps.h"
#include "check/values.h"
#include "check/words.h"

#include "installer/shared.h"

namespace installer::check {

namespace {

Traffic &traffic(Product &product, std::string_view name) { return product.settings[name]; }

void note_data(Product &product) {
  for (const OwnSetting &own : own_settings()) traffic(product, own.name).own = true;
  for (DataLine &line : product.data) {
    Traffic &setting = traffic(product, line.name);
    line.repeated = setting.data != nullptr;
    if (!line.repeated) setting.data = &line;
  }
}

void note_setters(Product &product) {
  for (const Step &step : product.init_steps)
    for (const Use &use : step.uses)
      if (use.role == Role::Result) traffic(product, use.text).init = true;
  for (const QuestSection &section : product.questions)
    for (const std::string_view name : section.sets)
      if (traffic(product, name).asked == nullptr)
        traffic(product, name).asked = section.name.c_str();
  for (const CopySection &section : product.scripts)
    for (const std::string_view name : section.sets) traffic(product, name).copied = true;
}

void note_reader(Product &product, Role role, std::string_view name) {
  const bool names = role == Role::Source || role == Role::Decision || role == Role::Control;
  const bool may_name = role == Role::Word || role == Role::Compare;
  if (names) ++traffic(product, name).reads;
  const auto found = may_name ? product.settings.find(name) : product.settings.end();
  if (found != product.settings.end()) ++found->second.reads;
}

/// What is not a reference, but was meant for one.
void note_wrong(Product &product, std::string_view text, bool prose) {
  note_reader(product, Role::Word, wrong_reference_in(product, text, prose).name);
  for (const Reference &reference : references(text))
    if (!reference.closed)
      note_reader(product, Role::Word,
                  reference.name.substr(0, reference.name.find_first_of("/ \t")));
}

void note_use(Product &product, const Use &use) {
  note_reader(product, use.role, use.text);
  for (const Named &reference : use.references) ++traffic(product, reference.text).reads;
  if (is_replaced(use.role)) note_wrong(product, use.text, use.role == Role::Shown);
}

/// References between values of the data file ignore letter case.
void note_data_readers(Product &product) {
  std::unordered_map<std::string_view, Traffic *, FoldedName, FoldedName> folded;
  for (const DataLine &line : product.data) folded.emplace(line.name, &traffic(product, line.name));
  for (const DataLine &line : product.data)
    note_wrong(product, or_empty(text_of(line.value)), true);
  for (const DataLine &line : product.data)
    for (const Reference &reference : references(or_empty(text_of(line.value)))) {
      const auto found = folded.find(reference.name);
      ++(found != folded.end() ? *found->second : traffic(product, reference.name)).reads;
    }
}

void note_readers(Product &product) {
  for (const char *name : {ProductSetting, ActionSetting})
    if (const auto found = product.settings.find(name); found != product.settings.end())
      ++found->second.reads;
  note_data_readers(product);
  each_step(product, [&](const Step &step) {
    for (const Use &use : step.uses) note_use(product, use);
  });
  for (const Template &text : product.templates)
    for (const TextLine &line : text.lines)
      for (const Reference &reference : references(line.text))
        ++traffic(product, reference.name).reads;
}

/// Of a name that is read and not set, and a name like it that is set and not read, the one that
/// stands in fewer places is wrong, and the other one is no second fault.
void blame(Product &product) {
  for (auto &[name, setting] : product.settings) {
    if (setting.data != nullptr || setting.own || setting.init || setting.copied) continue;
    const auto meant = product.settings.find(product.names.find(name));
    if (meant == product.settings.end() || meant->second.reads > 0) continue;
    if (setting.asked != nullptr && (meant->second.asked != nullptr || setting.reads == 0))
      continue;
    (setting.reads > 1 || setting.asked != nullptr ? setting : meant->second).excused = true;
  }
}

/// A setting of the data file without a value, that something refers to before it has one.
void blame_empty(Product &product) {
  each_step(product, [&](const Step &step) {
    each_reference(step, [&](const Named &reference) {
      const auto setting = product.settings.find(reference.text);
      if (setting == product.settings.end()) return;
      const bool none =
          reference.known == nullptr || (reference.known->values.empty() && !reference.known->open);
      if (!none || setting->second.data == nullptr || setting->second.init) return;
      if (!setting->second.excused)
        product.empty_settings.emplace_back(setting->second.data, &step);
      setting->second.excused = true;
    });
  });
}

} // namespace

void trace_settings(Product &product) {
  note_data(product);
  make_steps(product);
  note_setters(product);
}

void trace_readers(Product &product) {
  note_readers(product);
  for (const auto &[name, setting] : product.settings) {
    if (setting.is_set()) product.names.add(name);
    if (setting.reads > 0) product.read_names.add(name);
  }
  blame(product);
  blame_empty(product);
}

} // namespace installer::check
