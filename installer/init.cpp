#include "installer/init.h"

#include "installer/file.h"
#include "installer/links.h"
#include "installer/log.h"
#include "installer/replace.h"

#include <cstring>
#include <ctime>
#include <new>

namespace installer {

namespace {

Text last_error;

void set_setting(Ini ini, const std::string &setting, const char *value) {
  ini_add_name(ini, setting.c_str(), value);
}

/// A path that does not fit arrives empty: nothing is there.
Cause run_exist(Ini ini, const init_item &item, const char *path) {
  Cause cause;
  set_setting(ini, item.b, file_exist(path, &cause) != 0 ? "true" : "false");
  return is_absence(cause) ? Cause{} : cause;
}

Cause run_copy(Ini ini, const init_item &item, const char * /*path*/) {
  set_setting(ini, item.a, ini_value_or_text(ini, item.b.c_str()));
  return {};
}

Cause run_http(Ini ini, const init_item &item, const char * /*path*/) {
  char value[LineSize] = "";
  char message[LineSize] = "";
  const auto wanted = [&](IItemMode mode) { return item.mode == mode ? value : nullptr; };
  if (init_find_http_conf(wanted(IHTTP_User), wanted(IHTTP_Group), wanted(IHTTP_Root),
                          wanted(IHTTP_Scripts), message) != 0) {
    set_setting(ini, item.a, value);
    return {};
  }
  std::printf("ERROR: %s\n", message);
  set_setting(ini, item.b, "true");
  return {};
}

Cause run_time_date(Ini ini, const init_item &item, const char * /*path*/) {
  const std::time_t now = std::time(nullptr);
  const char *format = ini_value_name(ini, item.a.c_str());
  if (format == nullptr) {
    emsg("TimeDate '%s' is NULL", item.a.c_str());
    return {};
  }
  struct ::tm local = {};
  char text[LineSize];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  const bool fits = ::localtime_r(&now, &local) != nullptr &&
                    std::strftime(text, sizeof text, format, &local) > 0;
#pragma GCC diagnostic pop
  set_setting(ini, item.b, fits ? text : "");
  return {};
}

Cause run_wfile(Ini ini, const init_item &item, const char *path) {
  return write_text(path, [&] { return ini_value_or_text(ini, item.b.c_str()); });
}

Cause run_rfile(Ini ini, const init_item &item, const char *path) {
  std::string text;
  Cause cause;
  const Stream in = open_text(path, cause);
  if (in) cause = read_text(in.get(), text);
  if (cause) return cause;
  if (!text.empty()) set_setting(ini, item.b, text.c_str());
  return {};
}

using enum Operand;
using enum Deed;
constexpr InitCommand commands[] = {
    {"Exist",        IExist,        Tests,  Path,   Result,  "test",  run_exist    },
    {"Copy",         ICopy,         Copies, Result, Value,   nullptr, run_copy     },
    {"HTTP_User",    IHTTP_User,    Reads,  Result, Missing, nullptr, run_http     },
    {"HTTP_Group",   IHTTP_Group,   Reads,  Result, Missing, nullptr, run_http     },
    {"HTTP_Root",    IHTTP_Root,    Reads,  Result, Missing, nullptr, run_http     },
    {"HTTP_Scripts", IHTTP_Scripts, Reads,  Result, Missing, nullptr, run_http     },
    {"TimeDate",     ITimeDate,     Fills,  Format, Result,  nullptr, run_time_date},
    {"WFile",        IWFile,        Writes, Path,   Value,   "write", run_wfile    },
    {"RFile",        IRFile,        Reads,  Path,   Result,  "read",  run_rfile    },
};

Text word_or_none(const char *word) { return std::strcmp(word, "-") == 0 ? Text{} : Text{word}; }

void add_item(Init x, init_item item) {
  auto owned = std::make_unique<init_item>(std::move(item));
  // A script that lacks some of its items must not run.
  if (array_add(x->list, owned.get()) == 0) throw std::bad_alloc{};
  static_cast<void>(owned.release());
}

void load_item(Init x, char *line, const Lines &lines, const Faults &faults) {
  const auto tell = [&](Severity severity, FaultKind kind, const std::string &text,
                        const char *word) { faults(lines.fault(severity, kind, text, word)); };
  const std::string word = or_empty(next_word(&line));
  const InitCommand *command = find_word(commands, word.c_str(), s_strcmp);
  if (command == nullptr)
    return tell(Severity::Error, FaultKind::UnknownKeyword, "Unknown init command '" + word + "'",
                word.c_str());
  const char *a = next_word(&line);
  const char *b = next_word(&line);
  const char *control = next_word(&line);
  const char *compare = next_word(&line);
  // Words behind the last argument may be cut.
  if (lines.continued() || (lines.cut() && *line == '\0'))
    return tell(Severity::Error, FaultKind::Cut,
                "Line too long, nothing done for '" + word + " " + or_empty(a) + "'", nullptr);
  if (compare == nullptr)
    return tell(Severity::Remark, FaultKind::MissingWord, "Too few words", word.c_str());
  if (const char *surplus = next_word(&line))
    tell(Severity::Remark, FaultKind::Surplus, "Words that are never read", surplus);
  add_item(x, {a, b, word_or_none(compare), word_or_none(control), command->mode, lines.number()});
}

/// The control may be the word itself here, and decides nothing without a comparison.
bool runs(Ini ini, const init_item &item) {
  if (!item.compare) return true;
  const char *value = ini_value_or_text(ini, text_of(item.control));
  return value != nullptr && gate_allows(value, text_of(item.compare), Case::Counts);
}

/// The fault of an item that could not do what it does with a path.
Fault failed(const init_s &script, const init_item &item, const InitCommand &command,
             const char *path, const Cause &cause) {
  const std::string doing = or_empty(command.doing);
  const std::string text = "Failed to " + doing + " (" + path + "), " + cause_text(cause);
  return {
      Severity::Error,
      FaultKind::Failed,
      script.file,
      item.line,
      text,
      command.word,
      {"cannot " + doing, path, cause}
  };
}

void run_item(const init_s &script, const init_item &item, Ini ini, const Faults &faults) {
  const InitCommand *command = init_command(item.mode);
  if (command == nullptr || !runs(ini, item)) return;
  char path[PathSize] = "";
  if (command->doing != nullptr && ini_replace_path(ini, item.a.c_str(), path, sizeof path) == 0) {
    faults(failed(script, item, *command, item.a.c_str(), last_cause()));
    if (item.mode != IExist) return;
  }
  const Cause cause = command->run(ini, item, path);
  if (!cause) return;
  Fault fault = failed(script, item, *command, path, cause);
  if (item.mode == IExist) fault.severity = Severity::Remark; // it has said "false"
  faults(fault);
}

} // namespace

std::span<const InitCommand> init_commands() { return commands; }

const InitCommand *init_command(IItemMode mode) {
  for (const InitCommand &command : commands)
    if (command.mode == mode) return &command;
  return nullptr;
}

Init init_init() { return new init_s; }

void init_free(Init *x) { drop(x); }

int init_load(Init x, const char *file, const Faults &faults) {
  if (x == nullptr || file == nullptr) return 0;
  x->file = file;
  Lines lines{file, faults, InitLines};
  init_read(x, lines, faults);
  if (!lines.failed()) return 1;
  const Fault fault = lines.unreadable("Failed to read");
  if (lines.zero_byte()) faults(fault);
  init_seterror("%s", fault.text.c_str());
  return 0;
}

void init_read(Init x, Lines &lines, const Faults &faults) {
  for (char *line : lines) load_item(x, line, lines, faults);
}

void init_evaluate(Init x, Ini ini, const Faults &faults) {
  for (IItem item = init_get_num(x, 0); item != nullptr; item = init_get(x)) {
    try {
      run_item(*x, *item, ini, faults);
    } catch (const std::bad_alloc &) {
      faults({
          Severity::Error,
          FaultKind::Failed,
          x->file,
          item->line,
          "Out of memory in init command for '" + item->a + "'",
          {        },
          { "out of memory", item->a, {ENOMEM}}
      });
    }
  }
}

IItem init_get_num(Init x, int index) { return x ? array_get_num(x->list, index) : nullptr; }

IItem init_get(Init x) { return x ? array_get(x->list) : nullptr; }

void init_item_free(IItem *x) { drop(x); }

void init_seterror(const char *format, ...) {
  if (format == nullptr) return;
  std::va_list arg;
  va_start(arg, format);
  last_error = make_message(format, arg).text;
  va_end(arg);
}

const char *init_error() { return or_empty(text_of(last_error)); }

} // namespace installer
