#include "check/load.h"

#include "check/sections.h"
#include "check/words.h"

#include "installer/entries.h"
#include "installer/shared.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <set>

namespace installer::check {

namespace {

constexpr std::array<const char *, 3> companions = {".int", ".q", ".cpy"};

// ---- The data file ----

/// The store that the values are worked out in. Its faults are those of the values.
using Store = std::unique_ptr<ini, Release<ini_free>>;

/// A setting of the program's own, for a machine with nothing special.
SettingList own_record(const OwnSetting &own) {
  char value[LineSize] = "localhost";
  if (own.differs == Differs::WithFolder) scpy(value, Here, sizeof value);
  if (own.differs == Differs::Never) own.read(value, sizeof value);
  return {own.name, value, own.mode};
}

void resolve_values(Product &product, const Faults &faults) {
  std::vector<SettingList> records;
  for (const OwnSetting &own : own_settings()) records.push_back(own_record(own));
  const auto first = static_cast<std::int32_t>(records.size());
  for (const DataLine &line : product.data)
    records.push_back({line.name, line.value, Ini_Replace, line.line});
  records.emplace_back();
  const Store store{ini_init()};
  ini_setup(store.get(), records.data(), nullptr, 1);
  static_cast<void>(ini_process(store.get(), faults));
  for (std::size_t i = 0; i < product.data.size(); ++i)
    product.data[i].resolved =
        make_text(ini_value(store.get(), first + static_cast<std::int32_t>(i)));
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

// ---- Files ----

bool is_file(const Product &product, const std::string &name) {
  const PayloadEntry *entry = find_entry(product.payload, Here + ("/" + name));
  return entry != nullptr && entry->kind != EntryKind::Dir && entry->kind != EntryKind::LinkedDir;
}

/// Why a file of the product is not there, and what is there instead.
std::string missing_text(const Product &product, const std::string &name) {
  const PayloadEntry *entry = find_entry(product.payload, Here + ("/" + name));
  if (entry != nullptr) return quoted(name) + " is a directory";
  return "there is no file " + quoted(name) + likely_names(product, name).hint(name);
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

/// The program's own name ends at its first dot.
Fault dotted_name(const Product &product) {
  return {Severity::Error,
          FaultKind::Unreadable,
          product.data_file,
          0,
          "the program's name ends at its first dot, so it reads " +
              quoted(product.name.substr(0, product.name.find('.')) + ".dat"),
          {}};
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

Faults fault_sink(Product &product) {
  return [&product](const Fault &fault) {
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
}

std::string in_folder(const std::string &folder, const std::string &name) {
  if (folder.empty()) return name;
  return folder.ends_with('/') ? folder + name : folder + "/" + name;
}

Nearest likely_names(const Product &product, const std::string &name) {
  const std::string here = std::string{Here} + "/";
  const std::string extension = name.substr(name.rfind('.'));
  Nearest names;
  for (auto at = product.payload.entries.lower_bound(here);
       at != product.payload.entries.end() && at->first.starts_with(here); ++at) {
    const std::string_view other = std::string_view{at->first}.substr(here.size());
    const bool alike =
        other.size() > extension.size() &&
        s_stricmp(other.data() + other.size() - extension.size(), extension.c_str()) == 0;
    if (alike && other.find('/') == std::string_view::npos) names.add(other);
  }
  return names;
}

bool require_file(Product &product, const std::string &name) {
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

void read_files(const std::string &folder, const std::string &name, Product &product) {
  product.folder = folder;
  product.name = name;
  product.payload = look_at(folder.empty() ? "." : folder);
  name_files(product);
  const Faults faults = fault_sink(product);
  if (name.find('.') != std::string::npos) faults(dotted_name(product));
  constexpr struct {
    const char *extension;
    void (*load)(Product &product, const Faults &faults);
  } files[] = {
      {".dat", load_data     },
      {".int", load_init     },
      {".q",   load_questions},
      {".cpy", load_scripts  },
  };
  for (const auto &file : files)
    if (require_file(product, name + file.extension)) file.load(product, faults);
  guess_all_sections(product);
}

} // namespace installer::check
