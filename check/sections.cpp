#include "check/sections.h"

#include "check/words.h"

#include "installer/actions.h"

namespace installer::check {

namespace {

/// Reads all sections of a file; a second one of a name is never read by anybody.
template <class Read>
void load_sections(Product &product, const std::string &file, LineRules rules, const Faults &faults,
                   Read read) {
  Lines lines{file.c_str(), faults, rules};
  std::unordered_set<std::string, FoldedName, FoldedName> names;
  while (lines && lines.enter_next()) {
    Header header{&file, lines.number(), lines.section(), lines.section()};
    header.meant = header.meant.substr(0, header.meant.find(']'));
    header.twice = !names.insert(header.meant).second;
    if (!header.twice) read(header, lines);
    product.headers.push_back(std::move(header));
  }
  if (!lines || lines.failed()) faults(lines.unreadable("Error reading"));
}

// ---- Misspelt sections ----

/// Takes each section of `file` that neither an action nor the other file knows for the one of a
/// similar name that is missing here.
template <class Sections>
void guess_sections(Product &product, const std::string &file, const SectionNames &here,
                    const SectionNames &there, Sections &sections) {
  Nearest missing;
  for (const Action &action : actions())
    if (action.section != nullptr && !here.contains(action.section)) missing.add(action.section);
  for (const std::string &name : there)
    if (!here.contains(name)) missing.add(name);
  for (Header &header : product.headers) {
    if (header.file != &file || there.contains(header.meant)) continue;
    if (is_action(header.meant)) continue;
    const std::string_view meant = missing.find(header.meant);
    if (meant.empty()) continue;
    header.meant = meant;
    for (auto &section : sections)
      if (section.line == header.line) section.name = meant;
  }
}

} // namespace

void load_init(Product &product, const Faults &faults) {
  product.init.reset(init_init());
  Lines lines{product.init_file.c_str(), faults, InitLines};
  if (lines) init_read(product.init.get(), lines, faults);
  if (!lines || lines.failed()) faults(lines.unreadable("Error reading"));
}

void load_questions(Product &product, const Faults &faults) {
  load_sections(product, product.quest_file, {}, faults, [&](const Header &header, Lines &lines) {
    QuestSection section;
    section.name = header.meant;
    section.line = header.line;
    section.owner.reset(quest_init(nullptr));
    quest_read(section.owner.get(), lines, faults);
    product.questions.push_back(std::move(section));
  });
}

void load_scripts(Product &product, const Faults &faults) {
  load_sections(product, product.copy_file, CopyLines, faults,
                [&](const Header &header, Lines &lines) {
                  CopySection section;
                  section.name = header.meant;
                  section.line = header.line;
                  section.owner.reset(copy_init(nullptr));
                  copy_read(section.owner.get(), lines, faults);
                  product.scripts.push_back(std::move(section));
                });
}

void guess_all_sections(Product &product) {
  const SectionNames asked = sections_of(product, product.quest_file);
  const SectionNames copied = sections_of(product, product.copy_file);
  if (product.questions.size() + product.scripts.size() > 1000) return;
  guess_sections(product, product.quest_file, asked, copied, product.questions);
  guess_sections(product, product.copy_file, copied, sections_of(product, product.quest_file),
                 product.scripts);
}

bool is_action(const std::string &name) {
  return action_of_section(name.c_str()).section != nullptr;
}

SectionNames sections_of(const Product &product, const std::string &file) {
  SectionNames names;
  for (const Header &header : product.headers)
    if (*header.file == file) names.insert(header.meant);
  return names;
}

} // namespace installer::check
