#include "check/texts.h"

#include "check/load.h"
#include "check/values.h"
#include "check/words.h"

#include <array>
#include <cstring>
#include <map>

namespace installer::check {

namespace {

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

/// The template of that path, which is read when it is new.
Template &template_of(Product &product, std::map<std::string, std::size_t> &known,
                      const std::string &path, const Faults &faults) {
  const auto [place, fresh] = known.try_emplace(path, product.templates.size());
  if (fresh) {
    Template text;
    text.file = in_folder(product.folder, path.substr(std::string_view{Here}.size() + 1));
    read_template(text, TemplateLineSize - 1, faults);
    product.templates.push_back(std::move(text));
  }
  return product.templates[place->second];
}

/// The templates that the copy script fills, with the sections that do.
void load_templates(Product &product, const Faults &faults) {
  std::map<std::string, std::size_t> known;
  for (const CopySection &section : product.scripts)
    for (const Step &step : section.steps) {
      if (step.deed != Deed::Fills) continue;
      const std::string path = path_of(product, step.uses.front());
      const PayloadEntry *entry = find_entry(product.payload, path);
      // What cannot be read may have named any setting.
      product.dropped = product.dropped || (entry != nullptr && entry->kind != EntryKind::File);
      if (entry == nullptr || entry->kind != EntryKind::File) continue;
      auto &sections = template_of(product, known, path, faults).sections;
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

} // namespace

void read_texts(Product &product) {
  const Faults faults = fault_sink(product);
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
  else if (blurb != nullptr || !likely_names(product, "blurb.txt").find("blurb.txt").empty())
    require_file(product, "blurb.txt");
}

bool is_shell(const Template &text, const Reference &reference) {
  const bool odd = reference.name.find_first_of(" \t(\"'|;<>&") != std::string_view::npos;
  return odd || text.program;
}

} // namespace installer::check
