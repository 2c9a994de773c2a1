#include "installer/copy.h"

#include "installer/log.h"

#include <algorithm>
#include <cstring>

namespace installer {

namespace {

constexpr std::size_t LongestPiece = 8999;
constexpr std::size_t LongestText = 9999;

constexpr CopySlot source_slot(Operand operand, const char *called) {
  return {&copy_cmd::source, "source", "Missing copy source path", operand, called};
}
constexpr CopySlot dest_slot(Operand operand, const char *called) {
  return {&copy_cmd::dest, "destination", "Missing copy destination path", operand, called};
}
constexpr CopySlot not_slot = {&copy_cmd::not_, "not", "Missing not wildcard", Operand::Exclusions,
                               "exclusion list"};
constexpr CopySlot pattern_slot = source_slot(Operand::Pattern, "source");
constexpr CopySlot bounded_slot = source_slot(Operand::Bounded, "source");
constexpr CopySlot file_slot = source_slot(Operand::Path, "path");

constexpr CopySlot copy_slots[] = {pattern_slot, not_slot,
                                   dest_slot(Operand::Directories, "destination")};
constexpr CopySlot chown_slots[] = {bounded_slot, not_slot, dest_slot(Operand::Owner, "owner")};
constexpr CopySlot chmod_slots[] = {bounded_slot, not_slot, dest_slot(Operand::Mode, "mode")};
constexpr CopySlot removal_slots[] = {bounded_slot, not_slot};
constexpr CopySlot path_slots[] = {file_slot};
constexpr CopySlot pair_slots[] = {file_slot, dest_slot(Operand::Path, "second path")};
constexpr CopySlot write_slots[] = {file_slot, dest_slot(Operand::Value, "value")};
constexpr CopySlot result_slots[] = {file_slot, dest_slot(Operand::Result, "setting")};
constexpr CopySlot decision_slots[] = {
    source_slot(Operand::Decision, "setting"),
    {&copy_cmd::dest, "error string", nullptr, Operand::Message, "message"}
};

/// A command that copies no bytes.
template <auto operation> int run(pCopy x, std::uint32_t index, std::uint64_t * /*bytes*/) {
  return operation(x, index);
}

int run_unknown(pCopy x, std::uint32_t index, std::uint64_t * /*bytes*/) {
  const FileSink *sink = x->watch != nullptr ? &x->watch->event : nullptr;
  return file_failure(sink, "unknown command", copy_src(x, index), {}, "How did we get here!");
}

constexpr bool Trees = true;
constexpr bool Single = false;
constexpr CopyCommand commands[] = {
    {"CopyFile", CType::CpyFile, Deed::Copies,  Single, copy_slots,     copy_files         },
    {"CopyDir",  CType::CpyDir,  Deed::Copies,  Trees,  copy_slots,     copy_files         },
    {"MkDir",    CType::MkDir,   Deed::Makes,   Single, path_slots,     run<copy_mkdir>    },
    {"Ini",      CType::CpyIni,  Deed::Fills,   Single, pair_slots,     run<copy_write_ini>},
    {"Rename",   CType::Rename,  Deed::Moves,   Trees,  pair_slots,     run<copy_rename>   },
    {"RmFile",   CType::RmFile,  Deed::Removes, Single, removal_slots,  run<copy_remove>   },
    {"RmDir",    CType::RmDir,   Deed::Removes, Trees,  removal_slots,  run<copy_remove>   },
    {"Exist",    CType::Exist,   Deed::Tests,   Single, result_slots,   run<copy_exist>    },
    {"Chown",    CType::Chown,   Deed::Changes, Trees,  chown_slots,    run<copy_chown>    },
    {"Chmod",    CType::Chmod,   Deed::Changes, Trees,  chmod_slots,    run<copy_chmod>    },
    {"Error",    CType::Error,   Deed::Stops,   Single, decision_slots, run<copy_seterror> },
    {"WFile",    CType::WFile,   Deed::Writes,  Single, write_slots,    run<copy_wfile>    },
    {"RFile",    CType::RFile,   Deed::Reads,   Single, result_slots,   run<copy_rfile>    },
};
constexpr CopyCommand unknown_command = {
    nullptr, static_cast<CType>(0), Deed::Stops, Single, copy_slots, run_unknown};

/// The line that is being read. `word`: its keyword; `rest`: what has not been taken of it yet.
struct CommandLine {
  const char *word;
  char *rest;
  const Lines &lines;
  const Faults &faults;

  void fault(FaultKind kind, const std::string &text, const char *about) const {
    const bool remark = kind == FaultKind::Surplus;
    faults(lines.fault(remark ? Severity::Remark : Severity::Error, kind, text, about));
  }
  void lacks(const CopySlot &slot) const {
    Fault fault = lines.fault(Severity::Error, FaultKind::MissingWord, slot.missing, word);
    fault.lacks = slot.called;
    faults(fault);
  }
};

const CopyCommand &read_keyword(const CommandLine &line) {
  const CopyCommand *command = find_word(commands, line.word, s_stricmp);
  if (command != nullptr) return *command;
  line.fault(FaultKind::UnknownKeyword, "Unknown copy type '" + std::string{line.word} + "'",
             line.word);
  return unknown_command;
}

/// Takes the next word of the line as a field; that of a slot must be there.
bool read_field(Text &field, const char *name, const CopySlot *slot, CommandLine &line) {
  field = make_text(next_word(&line.rest));
  if (!field && slot != nullptr) line.lacks(*slot);
  if (field || slot != nullptr) dmsg("Copy line '%s' is [%s]", name, text_of(field));
  return field.has_value();
}

/// False when required fields are missing; each is reported.
bool read_slots(CCmd &command, std::span<const CopySlot> slots, CommandLine &line) {
  bool complete = true;
  for (const CopySlot &slot : slots)
    if (slot.operand != Operand::Message)
      complete = read_field(command.*slot.field, slot.name, &slot, line) && complete;
  return complete;
}

void read_control(CCmd &command, CommandLine &line) {
  if (read_field(command.control, "control", nullptr, line))
    read_field(command.control_cmp, "control_cmp", nullptr, line);
}

void read_message(CCmd &command, const CommandLine &line) {
  if (*line.rest != '\0') command.dest = line.rest;
  dmsg("Copy list error string is '%s'", text_of(command.dest));
}

void add_command(pCopy x, CCmd command) {
  x->list.push_back(std::move(command));
  if (x->ini != nullptr) copy_processpaths(x, static_cast<std::int32_t>(x->count));
  ++x->count;
}

void load_command(pCopy x, CommandLine line) {
  dmsg("Process .cpy file line [%s]", line.rest);
  line.word = next_word(&line.rest);
  if (line.word == nullptr) return;
  const CopyCommand &keyword = read_keyword(line);
  CCmd command;
  command.type = keyword.type;
  command.line = line.lines.number();
  dmsg("Copy line 'type' is [%d]", static_cast<int>(command.type));
  const bool complete = read_slots(command, keyword.slots, line);
  const bool message = keyword.slots.back().operand == Operand::Message;
  if (complete && !message) read_control(command, line);
  // Words behind the last field, and a message, may be cut.
  const bool cut = line.lines.cut() && *line.rest == '\0';
  if (!complete && !cut) return;
  command.cut = cut || line.lines.continued();
  if (message) read_message(command, line);
  else if (const char *surplus = next_word(&line.rest))
    line.fault(FaultKind::Surplus, "Words that are never read", surplus);
  add_command(x, std::move(command));
}

const char *field(pCopy x, std::uint32_t index, Text copy_cmd::*member) {
  return index < copy_count(x) ? text_of(x->list[index].*member) : nullptr;
}

/// The directory part of an operand.
char *path_part(const char *operand, char *buffer, std::size_t bfsz) {
  if (operand == nullptr || buffer == nullptr) return nullptr;
  const char *separator = last_separator(operand);
  if (separator == nullptr) {
    currentdir(buffer, bfsz);
    return buffer;
  }
  const auto length = static_cast<std::size_t>(separator + 1 - operand);
  scpy(buffer, operand, std::min(length + 1, bfsz));
  return buffer;
}

} // namespace

std::span<const CopyCommand> copy_commands() { return commands; }

const CopyCommand &copy_command(CType type) {
  for (const CopyCommand &command : commands)
    if (command.type == type) return command;
  return unknown_command;
}

Operand source_operand(const CopyCommand &command) { return command.slots.front().operand; }

pCopy copy_init(Ini ini) {
  auto *x = new copy;
  x->ini = ini;
  return x;
}

void copy_free(pCopy *x) { drop(x); }

void copy_setup(pCopy /*x*/, FileCallback xok, FileCallback xfail) { file_setup_fn(xok, xfail); }

int copy_load(pCopy x, const char *file, const char *section, const Faults &faults) {
  if (x == nullptr || file == nullptr || section == nullptr) return 0;
  x->list.clear();
  x->count = 0;
  Lines lines{file, faults, CopyLines};
  const bool found = lines && lines.enter(section);
  if (found) copy_read(x, lines, faults);
  if (lines.failed()) faults(lines.unreadable(lines ? "Error reading" : "Error opening"));
  return found && !lines.failed() ? 1 : 0;
}

void copy_read(pCopy x, Lines &lines, const Faults &faults) {
  for (char *line : lines) load_command(x, {nullptr, line, lines, faults});
}

std::uint32_t copy_count(pCopy x) { return x ? x->count : 0; }

const char *copy_src(pCopy x, std::uint32_t index) { return field(x, index, &copy_cmd::source); }

const char *copy_dst(pCopy x, std::uint32_t index) { return field(x, index, &copy_cmd::dest); }

const char *copy_not(pCopy x, std::uint32_t index) { return field(x, index, &copy_cmd::not_); }

const char *copy_control(pCopy x, std::uint32_t index) {
  return field(x, index, &copy_cmd::control);
}

const char *copy_control_cmp(pCopy x, std::uint32_t index) {
  return field(x, index, &copy_cmd::control_cmp);
}

char *copy_src_path(pCopy x, std::uint32_t index, char *buffer, std::size_t bfsz) {
  return path_part(copy_src(x, index), buffer, bfsz);
}

char *copy_src_file(pCopy x, std::uint32_t index, char *buffer, std::size_t bfsz) {
  const char *operand = copy_src(x, index);
  if (operand == nullptr || buffer == nullptr) return nullptr;
  const char *separator = last_separator(operand);
  const char *pattern = separator != nullptr ? separator + 1 : operand;
  scpy(buffer, *pattern != '\0' || separator == nullptr ? pattern : "*", bfsz);
  return buffer;
}

char *copy_dst_path(pCopy x, std::uint32_t index, char *buffer, std::size_t bfsz) {
  return path_part(copy_dst(x, index), buffer, bfsz);
}

char *copy_dst_file(pCopy x, std::uint32_t index, char *buffer, std::size_t bfsz) {
  const char *separator = last_separator(copy_dst(x, index));
  if (separator == nullptr || separator[1] == '\0' || buffer == nullptr) return nullptr;
  scpy(buffer, separator + 1, bfsz);
  return buffer;
}

Text replace_vars(pCopy x, const char *string, Text *emptied) {
  if (x == nullptr || string == nullptr || std::strstr(string, "$(") == nullptr) return {};
  std::string result;
  // Nothing is built that would be cut, but each setting is looked up.
  const auto add = [&result](const char *text, std::size_t most) {
    result.append(text, ::strnlen(text, std::min(most, LongestText - result.size())));
  };
  const char *scan = string;
  while (const char *opener = std::strstr(scan, "$(")) {
    const char *close = std::strchr(opener, ')');
    if (close == nullptr) break;
    add(scan, static_cast<std::size_t>(opener - scan));
    const std::string name(opener + 2, close);
    scan = close + 1;
    const char *value = ini_value_name(x->ini, name.c_str());
    if (value == nullptr) add(opener, static_cast<std::size_t>(scan - opener));
    else add(value, LongestPiece);
    if (value != nullptr && *value == '\0' && emptied != nullptr) *emptied = name;
  }
  add(scan, LongestPiece);
  return result;
}

void copy_processpaths(pCopy x, std::int32_t index) {
  if (x == nullptr || index < 0 || static_cast<std::size_t>(index) >= x->list.size()) return;
  CCmd &command = x->list[static_cast<std::size_t>(index)];
  if (command.not_ == "-") command.not_.reset();
  if (Text source = replace_vars(x, text_of(command.source), &command.empty_setting))
    command.source = std::move(source);
  if (Text dest = replace_vars(x, text_of(command.dest), &command.empty_dest))
    command.dest = std::move(dest);
}

void cerror(const char *format, ...) {
  if (format == nullptr) return;
  std::va_list arg;
  va_start(arg, format);
  Message message = make_message(format, arg);
  va_end(arg);
  add_cause(message, last_cause());
  emsg("%s", message.text);
}

} // namespace installer
