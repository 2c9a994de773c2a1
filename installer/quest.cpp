#include "installer/quest.h"

#include "installer/file.h"
#include "installer/lines.h"
#include "installer/log.h"

#include <cstring>
#include <span>

namespace installer {

namespace {

/// Prompts longer than `WrapFrom` characters are shown in lines of at most `WrapAt`.
constexpr std::size_t WrapFrom = 80;
constexpr std::size_t WrapAt = 79;

Text last_error;

// ---- The question file ----

/// A field of a line. `missing`: the error when it is not there. `rest`: it takes all that is left
/// of the line, with escapes.
struct Slot {
  Text quest::*field;
  const char *missing;
  bool rest;
};

constexpr Slot general_slots[] = {
    {&quest::setting,     "Missing setting label",      false},
    {&quest::control,     "Missing control",            false},
    {&quest::control_cmp, "Missing control comparison", false},
    {&quest::help_id,     "Missing Help ID text",       false},
    {&quest::text,        "Missing question text",      true },
};
constexpr Slot error_slots[] = {
    {&quest::setting, "Missing setting label", false},
    {&quest::help_id, "Missing Help ID text",  false},
    {&quest::text,    "Missing question text", true },
};
constexpr Slot exist_slots[] = {
    {&quest::text,    "Missing setting label", false},
    {&quest::setting, "Missing Help ID text",  false},
};
constexpr Slot loop_slots[] = {
    {&quest::setting, "Missing setting label", false},
    {&quest::text,    "Missing Help ID text",  false},
};

struct Keyword {
  const char *word;
  QType type;
  std::span<const Slot> slots;
};
constexpr Keyword keywords[] = {
    {"Text",      QText,      general_slots},
    {"YN",        QYN,        general_slots},
    {"Dir",       QDir,       general_slots},
    {"DirExist",  QDirExist,  general_slots},
    {"DirEmpty",  QDirEmpty,  general_slots},
    {"File",      QFile,      general_slots},
    {"FileExist", QFileExist, general_slots},
    {"FileName",  QFileName,  general_slots},
    {"Copy",      QCopy,      general_slots},
    {"Exist",     QXExist,    exist_slots  },
    {"Error",     QError,     error_slots  },
    {"Loop",      QLoop,      loop_slots   },
};
constexpr Keyword unknown_keyword = {nullptr, static_cast<QType>(0), general_slots};

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

bool read_slot(Quest &entry, const Slot &slot, char **line) {
  const char *value = s_strtrm(slot.rest ? *line : next_word(line));
  if (value == nullptr || (slot.rest && *value == '\0')) {
    emsg("%s", slot.missing);
    return false;
  }
  entry.*slot.field = slot.rest ? unescape(value) : std::string{value};
  return true;
}

void none_for_dash(Text &text) {
  if (text == "-") text.reset();
}

void load_line(Questions x, char *line) {
  const char *word = next_word(&line);
  if (word == nullptr) return;
  const Keyword *keyword = find_word(keywords, word, s_stricmp);
  if (keyword == nullptr) {
    emsg("Unknown question type '%s'", word);
    keyword = &unknown_keyword;
  }
  Quest entry;
  entry.type = keyword->type;
  for (const Slot &slot : keyword->slots)
    if (!read_slot(entry, slot, &line)) return;
  none_for_dash(entry.control);
  none_for_dash(entry.control_cmp);
  x->list.push_back(std::move(entry));
  ++x->count;
}

bool load_section(Questions x, const char *file, const char *section) {
  Lines lines{file};
  if (!lines) {
    quest_seterror("Error opening '%s'", file);
    return false;
  }
  const bool found = lines.enter(section);
  if (found)
    for (char *line : lines) load_line(x, line);
  if (lines.failed()) {
    quest_seterror("Error reading '%s', %s", file, lines.reason().c_str());
    return false;
  }
  if (!found) emsg("Section '%s' not found", section);
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

int store(Questions x, std::uint32_t i, const char *answer) {
  ini_add_name(x->ini, quest_setting(x, i), answer);
  return 1;
}

int answer_must_exist(Questions x, std::uint32_t i, const char *answer) {
  if (file_exist(answer) != 0) return store(x, i, answer);
  if (has(quest_type(x, i), QDir)) quest_seterror("Directory '%s' must exist", answer);
  else quest_seterror("File '%s' must exist", answer);
  return 0;
}

int answer_must_be_empty(Questions x, std::uint32_t i, const char *answer) {
  const Entries entries{answer, "*"};
  if (!entries && !entries.incomplete()) {
    errno = 0;
    return store(x, i, answer);
  }
  quest_seterror("Directory '%s' must be empty", answer);
  return 0;
}

int answer_yes_or_no(Questions x, std::uint32_t i, const char *answer) {
  if (istrue(answer) != 0) return store(x, i, "true");
  if (isfalse(answer) != 0) return store(x, i, "false");
  quest_seterror("You must answer either Yes or No");
  return 0;
}

void drop_trailing_separator(char *answer) {
  const std::size_t length = std::strlen(answer);
  if (length > 0 && (answer[length - 1] == '/' || answer[length - 1] == '\\'))
    answer[length - 1] = '\0';
}

} // namespace

Questions quest_init(Ini ini) {
  auto *x = new questions;
  x->ini = ini;
  return x;
}

void quest_free(Questions *x) { drop(x); }

int quest_load(Questions x, const char *file, const char *section) {
  if (x == nullptr || file == nullptr || section == nullptr) return 0;
  if (x->section && s_stricmp(text_of(x->section), section) == 0) return 1;
  empty(*x);
  if (!load_section(x, file, section)) {
    empty(*x);
    return 0;
  }
  x->section = section;
  return 1;
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
  if (value == nullptr) return nullptr;
  if (has(quest_type(x, i), QYN)) value = istrue(value) != 0 ? "y" : "n";
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
  const QType type = quest_type(x, i);
  if (has(type, QDir)) drop_trailing_separator(answer);
  if (has(type, QExist)) return answer_must_exist(x, i, answer);
  if (type == QDirEmpty) return answer_must_be_empty(x, i, answer);
  if (has(type, QYN)) return answer_yes_or_no(x, i, answer);
  if (has(type, QFileName)) strip_ext(strip_path(answer));
  return store(x, i, answer);
}

void quest_seterror(const char *format, ...) {
  if (format == nullptr) return;
  std::va_list arg;
  va_start(arg, format);
  Message message = make_message(format, arg);
  va_end(arg);
  add_cause(message, last_cause());
  emsg("%s", message.text);
  last_error = message.text;
}

const char *quest_error() { return or_empty(text_of(last_error)); }

} // namespace installer
