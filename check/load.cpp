#include "check/load.h"

#include "check/effect.h"
#include "check/flow.h"
#include "check/switches.h"
#include "check/words.h"

#include "installer/entries.h"
#include "installer/shared.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <set>

namespace installer::check {

namespace {

constexpr std::size_t TemplateLineSize = 3000;
constexpr std::array<const char *, 3> companions = {".int", ".q", ".cpy"};
constexpr std::array<const char *, 3> actions = {"install", "upgrade", "remove"};

std::string in_folder(const std::string &folder, const std::string &name) {
  if (folder.empty()) return name;
  return folder.ends_with('/') ? folder + name : folder + "/" + name;
}

// ---- The data file ----

/// The store that the values are worked out in. Its faults are those of the values.
using Store = std::unique_ptr<ini, Release<ini_free>>;

SettingList own_record(const char *name, const char *value) {
  return {name, value, Ini_Replace | Ini_Fixed};
}

void resolve_values(Product &product, const Faults &faults) {
  std::vector<SettingList> records = {own_record("host", "localhost"),
                                      own_record("system_dir", "/etc"),
                                      own_record("current_dir", Here)};
  records.push_back({"action", "install", Ini_None});
  const auto own = static_cast<std::int32_t>(records.size());
  for (const DataLine &line : product.data)
    records.push_back({line.name, line.value, Ini_Replace, line.line});
  records.emplace_back();
  const Store store{ini_init()};
  ini_setup(store.get(), records.data(), nullptr, 1);
  static_cast<void>(ini_process(store.get(), faults));
  for (std::size_t i = 0; i < product.data.size(); ++i)
    product.data[i].resolved =
        make_text(ini_value(store.get(), own + static_cast<std::int32_t>(i)));
}

/// A line with a sign between name and value is taken for what it means.
DataLine meant_line(const SettingList &record) {
  DataLine line{*record.setting, record.dflt, {}, record.line};
  const std::size_t sign = line.name.find_first_of("=:");
  std::string value = line.value.value_or("");
  if (sign != std::string::npos && sign > 0) {
    value = line.name.substr(sign + 1) + value;
    line.name.resize(sign);
    line.assigned = true;
  } else if (value == "=" || value == ":" || value.starts_with("= ") || value.starts_with(": ") ||
             value.starts_with(":=")) {
    value.erase(0, value.find_first_not_of(":= \t"));
    line.assigned = true;
  }
  if (line.assigned) line.value = value.empty() ? Text{} : Text{value};
  return line;
}

void load_data(Product &product, const Faults &faults) {
  Lines lines{product.data_file.c_str(), faults};
  std::vector<SettingList> records;
  if (lines) read_datfile(lines, records);
  if (!lines || lines.failed()) return faults(lines.unreadable("Error reading"));
  for (const SettingList &record : records) product.data.push_back(meant_line(record));
  const Faults placed = [&](Fault fault) {
    fault.file = product.data_file;
    const auto line = std::lower_bound(
        product.data.begin(), product.data.end(), fault.line,
        [](const DataLine &data, std::size_t number) { return data.line < number; });
    if (line != product.data.end() && line->name == fault.word) line->circular = true;
    faults(fault);
  };
  resolve_values(product, placed);
}

// ---- The scripts ----

void load_init(Product &product, const Faults &faults) {
  product.init.reset(init_init());
  Lines lines{product.init_file.c_str(), faults, InitLines};
  if (lines) init_read(product.init.get(), lines, faults);
  if (!lines || lines.failed()) faults(lines.unreadable("Error reading"));
}

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

// ---- Misspelt sections ----

using FoldedNames = std::unordered_set<std::string, FoldedName, FoldedName>;

FoldedNames names_in(const Product &product, const std::string &file) {
  FoldedNames names;
  for (const Header &header : product.headers)
    if (header.file == &file) names.insert(header.meant);
  return names;
}

/// Takes each section of `file` that neither an action nor the other file knows for the one of a
/// similar name that is missing here.
template <class Sections>
void guess_sections(Product &product, const std::string &file, const FoldedNames &here,
                    const FoldedNames &there, Sections &sections) {
  Nearest missing;
  for (const char *action : actions)
    if (!here.contains(action)) missing.add(action);
  for (const std::string &name : there)
    if (!here.contains(name)) missing.add(name);
  for (Header &header : product.headers) {
    if (header.file != &file || there.contains(header.meant)) continue;
    if (std::find_if(actions.begin(), actions.end(), [&](const char *action) {
          return s_stricmp(action, header.meant.c_str()) == 0;
        }) != actions.end())
      continue;
    const std::string_view meant = missing.find(header.meant);
    if (meant.empty()) continue;
    header.meant = meant;
    for (auto &section : sections)
      if (section.line == header.line) section.name = meant;
  }
}

void guess_all_sections(Product &product) {
  const FoldedNames asked = names_in(product, product.quest_file);
  const FoldedNames copied = names_in(product, product.copy_file);
  if (product.questions.size() + product.scripts.size() > 1000) return;
  guess_sections(product, product.quest_file, asked, copied, product.questions);
  guess_sections(product, product.copy_file, copied, names_in(product, product.quest_file),
                 product.scripts);
}

// ---- Templates ----

void add_line(Template &text, std::size_t number, const std::string &line, std::size_t most,
              const Faults &faults) {
  if (line.size() > most)
    faults({Severity::Remark,
            FaultKind::LongLine,
            text.file,
            number,
            "The line is longer than " + std::to_string(most) + " characters",
            {}});
  if (number == 1 && line.starts_with("#!")) text.program = true;
  if (has_reference(line)) text.lines.push_back({number, line});
}

/// Reads the lines with references of a text in which sections have no meaning.
void read_template(Template &text, std::size_t most, const Faults &faults) {
  const Stream in{s_fopen(text.file.c_str(), "r")};
  if (!in) return;
  std::array<char, TemplateLineSize> piece{};
  std::string line;
  std::size_t number = 1;
  bool zero = false;
  while (const std::size_t size = read_piece(in.get(), piece.data(), piece.size())) {
    zero = zero || std::strlen(piece.data()) < size;
    if (line.size() <= TemplateLineSize) line.append(piece.data(), size);
    if (piece[size - 1] != '\n') continue;
    line.erase(line.find_last_not_of("\r\n") + 1);
    add_line(text, number++, line, most, faults);
    line.clear();
  }
  if (!line.empty()) add_line(text, number, line, most, faults);
  if (zero) faults({Severity::Error, FaultKind::Binary, text.file, 0, "it holds a zero byte", {}});
}

void load_templates(Product &product, const Faults &faults) {
  std::map<std::string, std::size_t> known;
  for (const CopySection &section : product.scripts)
    for (const Step &step : section.steps) {
      if (static_cast<CType>(step.type) != CType::CpyIni) continue;
      const std::string path = path_of(product, step, step.uses.front());
      const PayloadEntry *entry = find_entry(product.payload, path);
      // What cannot be read may have named any setting.
      product.dropped = product.dropped || (entry != nullptr && entry->kind != EntryKind::File);
      if (entry == nullptr || entry->kind != EntryKind::File) continue;
      const auto [place, fresh] = known.try_emplace(path, product.templates.size());
      if (fresh) {
        Template text;
        text.file = in_folder(product.folder, path.substr(std::string_view{Here}.size() + 1));
        read_template(text, TemplateLineSize - 1, faults);
        product.templates.push_back(std::move(text));
      }
      auto &sections = product.templates[place->second].sections;
      if (sections.empty() || sections.back() != &section) sections.push_back(&section);
    }
}

void load_blurb(Product &product, const Faults &faults) {
  Template blurb;
  blurb.file = product.blurb_file;
  blurb.blurb = true;
  read_template(blurb, LineSize - 1, faults);
  for (const CopySection &section : product.scripts)
    if (s_stricmp(section.name.c_str(), "install") == 0) blurb.sections.push_back(&section);
  product.templates.push_back(std::move(blurb));
}

// ---- Files ----

bool is_file(const Product &product, const std::string &name) {
  const PayloadEntry *entry = find_entry(product.payload, Here + ("/" + name));
  return entry != nullptr && entry->kind != EntryKind::Dir && entry->kind != EntryKind::LinkedDir;
}

/// Why a file of the product is not there, and what is there instead.
std::string missing_text(const Product &product, const std::string &name) {
  const PayloadEntry *entry = find_entry(product.payload, Here + ("/" + name));
  if (entry != nullptr) return quoted(name) + " is a directory";
  const std::string here = std::string{Here} + "/";
  const std::string extension = name.substr(name.rfind('.'));
  std::vector<std::string> others;
  for (auto at = product.payload.entries.lower_bound(here);
       at != product.payload.entries.end() && at->first.starts_with(here); ++at) {
    const std::string other = at->first.substr(here.size());
    const bool alike =
        other.size() > extension.size() &&
        s_stricmp(other.c_str() + other.size() - extension.size(), extension.c_str()) == 0;
    if (alike && other.find('/') == std::string::npos) others.push_back(other);
  }
  Nearest near;
  for (const std::string &other : others) near.add(other);
  return "there is no file " + quoted(name) + near.hint(name);
}

/// False, with a fault, when the file is not there.
bool require(Product &product, const std::string &name) {
  if (is_file(product, name)) return true;
  product.faults.push_back({Severity::Error,
                            FaultKind::Unreadable,
                            in_folder(product.folder, name),
                            0,
                            missing_text(product, name),
                            {}});
  product.whole = false;
  return false;
}

void name_files(Product &product) {
  product.data_file = in_folder(product.folder, product.name + ".dat");
  product.init_file = in_folder(product.folder, product.name + ".int");
  product.quest_file = in_folder(product.folder, product.name + ".q");
  product.copy_file = in_folder(product.folder, product.name + ".cpy");
  product.blurb_file = in_folder(product.folder, "blurb.txt");
}

/// A fault that leaves so much out that nothing can be said about names any more.
bool hides_much(const Fault &fault) {
  return fault.kind == FaultKind::Unreadable || fault.kind == FaultKind::Binary ||
         fault.kind == FaultKind::ByteOrderMark;
}

} // namespace

bool drops_line(const Fault &fault) {
  return fault.kind == FaultKind::MissingWord || fault.kind == FaultKind::UnknownKeyword ||
         fault.kind == FaultKind::Cut || fault.kind == FaultKind::LongLine;
}

Cause find_products(const std::string &folder, std::vector<std::string> &names) {
  Cause unreadable;
  std::set<std::string> all;
  for (File entry : Entries{folder.empty() ? "." : folder.c_str(), "*", [&](const Missed &missed) {
                              if (missed.opening) unreadable = missed.cause;
                            }})
    all.insert(entry_name(*entry));
  std::vector<std::string> alone;
  for (const std::string &file : all) {
    if (file.size() <= 4 || !file.ends_with(".dat")) continue;
    const std::string name = file.substr(0, file.size() - 4);
    const bool has_more = std::any_of(companions.begin(), companions.end(),
                                      [&](const char *ext) { return all.contains(name + ext); });
    (has_more ? names : alone).push_back(name);
  }
  if (names.empty()) names = std::move(alone);
  return unreadable;
}

void load_product(const std::string &folder, const std::string &name, Product &product,
                  Report &report) {
  product.folder = folder;
  product.name = name;
  product.payload = look_at(folder.empty() ? "." : folder);
  name_files(product);
  const Faults faults = [&product](const Fault &fault) {
    if (hides_much(fault)) product.whole = false;
    // What was read of a binary file before its first zero byte is no text either.
    if (fault.kind == FaultKind::Binary) {
      std::erase_if(product.faults, [&](const Fault &told) { return told.file == fault.file; });
      std::erase_if(product.headers,
                    [&](const Header &header) { return *header.file == fault.file; });
    }
    if (drops_line(fault)) product.dropped = true;
    product.faults.push_back(fault);
  };
  if (name.find('.') != std::string::npos)
    faults({Severity::Error,
            FaultKind::Unreadable,
            product.data_file,
            0,
            "the program's name ends at its first dot, so it reads " +
                quoted(name.substr(0, name.find('.')) + ".dat"),
            {}});
  const auto load = [&](const char *extension, auto read) {
    if (require(product, name + extension)) read(product, faults);
    else product.whole = false;
  };
  load(".dat", load_data);
  load(".int", load_init);
  load(".q", load_questions);
  load(".cpy", load_scripts);
  guess_all_sections(product);
  trace_settings(product);
  load_templates(product, faults);
  const PayloadEntry *blurb = find_entry(product.payload, Here + std::string{"/blurb.txt"});
  if (blurb != nullptr && blurb->kind == EntryKind::File) load_blurb(product, faults);
  else if (blurb != nullptr && blurb->kind == EntryKind::Other)
    faults({Severity::Error,
            FaultKind::Unreadable,
            product.blurb_file,
            0,
            "'blurb.txt' is no plain file",
            {}});
  else if (blurb != nullptr ||
           missing_text(product, "blurb.txt").find("did you mean") != std::string::npos)
    require(product, "blurb.txt");
  trace_readers(product);
  trace_effects(product);
  read_switches(product, report);
}

} // namespace installer::check
