#include "installer/quest.h"

#include "installer/file.h"
#include "installer/log.h"

#include <cstring>

#include <unistd.h>

namespace installer {

namespace {

/// Prompts longer than `WrapFrom` characters are shown in lines of at most `WrapAt`.
constexpr std::size_t WrapFrom = 80;
constexpr std::size_t WrapAt = 79;

/// The last error: its text, and how much of that comes before the system's text.
struct {
  std::string text;
  std::size_t reason = 0;
} last_error;

// ---- What is accepted as an answer ----

const char *accept_any(const quest & /*entry*/, char *answer) { return answer; }

const char *accept_existing(const quest &entry, char *answer) {
  if (file_exist(answer) != 0) return answer;
  if (has(entry.type, QDir)) quest_seterror("Directory '%s' must exist", answer);
  else quest_seterror("File '%s' must exist", answer);
  return nullptr;
}

const char *accept_empty_directory(const quest & /*entry*/, char *answer) {
  bool incomplete = false;
  const Entries entries{answer, "*",
                        [&](const Missed &missed) {
                          incomplete = incomplete || !missed.opening;
                          file_missed(nullptr, missed, false);
                        },
                        Follow::All};
  if (!entries && !incomplete) {
    errno = 0;
    return answer;
  }
  quest_seterror("Directory '%s' must be empty", answer);
  return nullptr;
}

const char *accept_yes_or_no(const quest & /*entry*/, char *answer) {
  if (istrue(answer) != 0) return "true";
  if (isfalse(answer) != 0) return "false";
  quest_seterror("You must answer either Yes or No");
  return nullptr;
}

const char *accept_file_name(const quest & /*entry*/, char *answer) {
  return strip_ext(strip_path(answer));
}

void drop_trailing_separator(char *answer) {
  const std::size_t length = std::strlen(answer);
  if (length > 0 && last_separator(answer) == answer + length - 1) answer[length - 1] = '\0';
}

// ---- The question file ----

using enum QuestField;
constexpr QuestSlot general_slots[] = {
    {&quest::setting,     "Missing setting label",      Word,    "setting"   },
    {&quest::control,     "Missing control",            Word,    "control"   },
    {&quest::control_cmp, "Missing control comparison", Word,    "comparison"},
    {&quest::help_id,     "Missing Help ID text",       Trimmed, "help word" },
    {&quest::text,        "Missing question text",      Rest,    "text"      },
};
constexpr QuestSlot error_slots[] = {
    {&quest::setting, "Missing setting label", Word,    "setting"  },
    {&quest::help_id, "Missing Help ID text",  Trimmed, "help word"},
    {&quest::text,    "Missing question text", Rest,    "text"     },
};
constexpr QuestSlot exist_slots[] = {
    {&quest::text,    "Missing setting label", Word, "path"   },
    {&quest::setting, "Missing Help ID text",  Word, "setting"},
};
constexpr QuestSlot loop_slots[] = {
    {&quest::setting, "Missing setting label", Word,    "setting"},
    {&quest::text,    "Missing Help ID text",  Trimmed, "number" },
};

constexpr QuestKeyword keywords[] = {
    {"Text",      QText,      general_slots, accept_any            },
    {"YN",        QYN,        general_slots, accept_yes_or_no      },
    {"Dir",       QDir,       general_slots, accept_any            },
    {"DirExist",  QDirExist,  general_slots, accept_existing       },
    {"DirEmpty",  QDirEmpty,  general_slots, accept_empty_directory},
    {"File",      QFile,      general_slots, accept_any            },
    {"FileExist", QFileExist, general_slots, accept_existing       },
    {"FileName",  QFileName,  general_slots, accept_file_name      },
    {"Copy",      QCopy,      general_slots, nullptr               },
    {"Exist",     QXExist,    exist_slots,   nullptr               },
    {"Error",     QError,     error_slots,   nullptr               },
    {"Loop",      QLoop,      loop_slots,    nullptr               },
};
constexpr QuestKeyword unknown_keyword = {nullptr, static_cast<QType>(0), general_slots,
                                          accept_any};

char escaped(char c) {
  if (c == 'n') return '\n';
  return c == 't' ? '\t' : c;
}

std::string unescape(const char *text) {
  std::string result;
  for (; *text != '\0'; ++text) {
    if (*text != '\\') result += *text;
    else if (text[1] != '\0') result += escaped(*++text);
  }
  return result;
}

bool read_slot(Quest &entry, const QuestSlot &slot, char **line) {
  char *value = slot.taken == Rest ? *line : next_word(line);
  if (slot.taken != Word) value = s_strtrm(value);
  if (value == nullptr || (slot.taken == Rest && *value == '\0')) return false;
  entry.*slot.field = slot.taken == Rest ? unescape(value) : std::string{value};
  return true;
}

void none_for_dash(Text &text) {
  if (text == "-") text.reset();
}

/// The first slot of the line that lacks its field, or null.
const QuestSlot *read_slots(Quest &entry, std::span<const QuestSlot> slots, char **line) {
  for (const QuestSlot &slot : slots)
    if (!read_slot(entry, slot, line)) return &slot;
  return nullptr;
}

void load_line(Questions x, char *line, const Lines &lines, const Faults &faults) {
  const char *word = next_word(&line);
  if (word == nullptr) return;
  const QuestKeyword *keyword = find_word(keywords, word, s_stricmp);
  if (keyword == nullptr) {
    faults(lines.fault(Severity::Error, FaultKind::UnknownKeyword,
                       "Unknown question type '" + std::string{word} + "'", word));
    keyword = &unknown_keyword;
  }
  Quest entry;
  entry.type = keyword->type;
  entry.line = lines.number();
  if (const QuestSlot *slot = read_slots(entry, keyword->slots, &line)) {
    Fault fault = lines.fault(Severity::Error, FaultKind::MissingWord, slot->missing, word);
    fault.lacks = slot->called;
    faults(fault);
    return;
  }
  const char *surplus = keyword->slots.back().taken == Rest ? nullptr : next_word(&line);
  if (surplus != nullptr)
    faults(lines.fault(Severity::Remark, FaultKind::Surplus, "Words that are never read", surplus));
  none_for_dash(entry.control);
  none_for_dash(entry.control_cmp);
  x->list.push_back(std::move(entry));
  ++x->count;
}

bool load_section(Questions x, const char *file, const char *section, const Faults &faults) {
  Lines lines{file, faults};
  const bool found = lines && lines.enter(section);
  if (found) quest_read(x, lines, faults);
  if (lines.failed()) {
    const Fault fault = lines.unreadable(lines ? "Error reading" : "Error opening");
    faults(fault);
    last_error = {fault.text, fault.text.size()};
    return false;
  }
  if (!found)
    faults({Severity::Error, FaultKind::NoSection, file, 0,
            "Section '" + std::string{section} + "' not found", section});
  return found;
}

void empty(questions &x) {
  x.list.clear();
  x.count = 0;
  x.section.reset();
}

const char *field(Questions x, std::uint32_t i, Text quest::*member) {
  return i < quest_count(x) ? text_of(x->list[i].*member) : nullptr;
}

// ---- The dialogue ----

bool is_blank(char c) { return c == ' ' || c == '\t'; }

/// Prints the first line of `prompt`, which is too long for one; what is left of it.
const char *print_line(const char *prompt) {
  std::size_t length = WrapAt;
  while (length > 0 && !is_blank(prompt[length])) --length;
  const bool at_blank = length > 0;
  if (!at_blank) length = WrapAt;
  std::printf("%.*s\n", static_cast<int>(length), prompt);
  prompt += length;
  while (at_blank && is_blank(*prompt)) ++prompt;
  return prompt;
}

void print_prompt(const char *prompt) {
  if (std::strlen(prompt) > WrapFrom)
    while (std::strlen(prompt) > WrapAt) prompt = print_line(prompt);
  std::printf("%s ", prompt);
}

/// True for a reply with the traces of a key that a terminal does not act on, such as an arrow: it
/// looks right there. What comes through a pipe is as somebody wrote it.
bool mistyped(const char *reply) {
  const KeepErrno keep;
  return has_controls(reply) && ::isatty(STDIN_FILENO) == 1;
}

} // namespace

std::span<const QuestKeyword> quest_keywords() { return keywords; }

const QuestKeyword &quest_keyword(QType type) {
  for (const QuestKeyword &keyword : keywords)
    if (keyword.type == type) return keyword;
  return unknown_keyword;
}

Questions quest_init(Ini ini) {
  auto *x = new questions;
  x->ini = ini;
  return x;
}

void quest_free(Questions *x) { drop(x); }

int quest_load(Questions x, const char *file, const char *section, const Faults &faults) {
  if (x == nullptr || file == nullptr || section == nullptr) return 0;
  if (x->section && s_stricmp(text_of(x->section), section) == 0) return 1;
  empty(*x);
  if (!load_section(x, file, section, faults)) {
    empty(*x);
    return 0;
  }
  x->section = section;
  return 1;
}

void quest_read(Questions x, Lines &lines, const Faults &faults) {
  for (char *line : lines) load_line(x, line, lines, faults);
}

void quest_clear(Questions x) {
  if (x != nullptr) empty(*x);
}

std::uint32_t quest_count(Questions x) { return x ? x->count : 0; }

const char *quest_text(Questions x, std::uint32_t i) { return field(x, i, &quest::text); }

const char *quest_setting(Questions x, std::uint32_t i) { return field(x, i, &quest::setting); }

const char *quest_control(Questions x, std::uint32_t i) { return field(x, i, &quest::control); }

const char *quest_control_cmp(Questions x, std::uint32_t i) {
  return field(x, i, &quest::control_cmp);
}

QType quest_type(Questions x, std::uint32_t i) {
  return i < quest_count(x) ? x->list[i].type : static_cast<QType>(0);
}

char *quest_default(Questions x, std::uint32_t i, char *buf, std::size_t size) {
  if (buf == nullptr || i >= quest_count(x)) return nullptr;
  scpy(buf, "", size);
  const char *value = ini_value_name(x->ini, quest_setting(x, i));
  const char *answer = x->answer_for ? x->answer_for(quest_setting(x, i)) : nullptr;
  if (value == nullptr && answer == nullptr) return nullptr;
  if (answer != nullptr) value = answer;
  else if (has(quest_type(x, i), QYN)) value = istrue(value) != 0 ? "y" : "n";
  scpy(buf, value, size);
  return buf;
}

int quest_ask(Questions x, std::uint32_t i, char *buf, std::size_t n) {
  if (i >= quest_count(x) || buf == nullptr || n == 0) return 0;
  char default_answer[LineSize];
  char text[LineSize];
  char prompt[LineSize];
  quest_default(x, i, default_answer, sizeof default_answer);
  scpy(text, quest_text(x, i), sizeof text);
  ini_replace(x->ini, quest_text(x, i), text, sizeof text);
  lprintf(prompt, sizeof prompt, "%s [%s]?", text, default_answer);
  print_prompt(prompt);
  if (read_reply(buf, n) == nullptr) {
    quest_seterror("End of input");
    return 0;
  }
  const char *reply = s_strtrm(buf);
  if (*reply != '\0' && mistyped(buf)) {
    quest_seterror("The answer holds a control character");
    return 0;
  }
  if (*reply != '\0') return 1;
  if (*default_answer == '\0') {
    quest_seterror("You must enter an answer");
    return 0;
  }
  scpy(buf, default_answer, n);
  return 1;
}

int quest_answer(Questions x, std::uint32_t i, char *answer) {
  if (i >= quest_count(x) || answer == nullptr) return 0;
  const Quest &entry = x->list[i];
  if (has(entry.type, QDir)) drop_trailing_separator(answer);
  const auto accept = quest_keyword(entry.type).accept;
  const char *accepted = accept != nullptr ? accept(entry, answer) : answer;
  if (accepted == nullptr) return 0;
  ini_add_name(x->ini, text_of(entry.setting), accepted);
  return 1;
}

void quest_seterror(const char *format, ...) {
  if (format == nullptr) return;
  std::va_list arg;
  va_start(arg, format);
  Message message = make_message(format, arg);
  va_end(arg);
  const std::size_t reason = std::strlen(message.text);
  add_cause(message, last_cause());
  emsg("%s", message.text);
  last_error = {message.text, reason};
}

const char *quest_error() { return last_error.text.c_str(); }

std::string quest_reason() { return last_error.text.substr(0, last_error.reason); }

} // namespace installer
