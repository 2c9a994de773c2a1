#include "installer/lib.h"

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <string_view>

namespace installer {

namespace {

// ---- Wildcards ----

constexpr std::string_view separators = " \t,";

bool same(char a, char b, bool exact) {
  if (a == b) return true;
  return !exact && charmap[static_cast<unsigned char>(a)] == charmap[static_cast<unsigned char>(b)];
}

/// Only the last "*" can need another try: what stood between two stars matched as early as
/// possible, and a later position would leave less text for the rest.
bool match(std::string_view text, std::string_view wild, bool exact) {
  constexpr std::size_t none = std::string_view::npos;
  std::size_t t = 0, w = 0, star = none, retry = 0;
  while (t < text.size()) {
    if (w < wild.size() && wild[w] == '*') {
      star = ++w;
      retry = t;
    } else if (w < wild.size() && (wild[w] == '?' || same(text[t], wild[w], exact))) {
      ++t;
      ++w;
    } else if (star != none) {
      w = star;
      t = ++retry;
    } else {
      return false;
    }
  }
  return wild.find_first_not_of('*', w) == none;
}

/// Cuts the next item off `list`; empty when there is none left.
std::string_view next_item(std::string_view &list) {
  list.remove_prefix(std::min(list.find_first_not_of(separators), list.size()));
  const std::string_view item = list.substr(0, list.find_first_of(separators));
  list.remove_prefix(item.size());
  return item;
}

bool item_matches(std::string_view item, std::string_view wilds, bool exact) {
  for (std::string_view wild = next_item(wilds); !wild.empty(); wild = next_item(wilds))
    if (match(item, wild, exact)) return true;
  return false;
}

int match_lists(const char *list, const char *wilds, bool exact) {
  if (list == nullptr || wilds == nullptr) return 0;
  std::string_view items{list};
  for (std::string_view item = next_item(items); !item.empty(); item = next_item(items))
    if (item_matches(item, wilds, exact)) return 1;
  return 0;
}

// ---- Formatter ----

/// The argument list as an object, so that helpers can take it by reference.
struct Arguments {
  std::va_list list;
  int integer() { return va_arg(list, int); }
};

struct Output {
  char *buffer;
  std::size_t size;
  std::size_t used = 0;

  [[nodiscard]] std::size_t room() const { return size - used - 1; }
  void put(char c) { buffer[used++] = c; }
  void put(const char *text, std::size_t count) {
    count = std::min(count, room());
    std::memcpy(buffer + used, text, count);
    used += count;
  }

  /// The platform renders straight into what is left, which cuts as we want it; it returns the
  /// full length, or -1 for what it cannot render.
  template <class T> void render(const std::string &conversion, T value) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    const int count = std::snprintf(buffer + used, size - used, conversion.c_str(), value);
#pragma GCC diagnostic pop
    if (count > 0) used += std::min(static_cast<std::size_t>(count), room());
  }
};

/// Digits, or the value of a "*".
void collect_number(const char **format, std::string &number, Arguments &arguments) {
  if (**format == '*') {
    number = std::to_string(arguments.integer());
    ++*format;
  }
  for (; **format >= '0' && **format <= '9'; ++*format) number += **format;
}

/// Collects "%", flags, width and precision with the stars filled in. A negative width becomes the
/// flag "-"; a negative precision counts as none, both as the C standard has it.
std::string collect(const char **format, Arguments &arguments) {
  std::string conversion{"%"};
  for (; **format != '\0' && std::strchr("-+0 #", **format); ++*format) conversion += **format;
  std::string number;
  collect_number(format, number, arguments);
  conversion += number;
  if (**format != '.') return conversion;
  ++*format;
  number.clear();
  collect_number(format, number, arguments);
  if (number.starts_with('-')) return conversion;
  return conversion.append(1, '.').append(number);
}

void convert_text(Output &out, const std::string &conversion, const void *text, char letter) {
  const auto *narrow = static_cast<const char *>(text);
  if (text == nullptr) out.put("(NULL)", 6);
  else if (letter == 'S') out.render(conversion, static_cast<const wchar_t *>(text));
  else if (conversion == "%s") out.put(narrow, ::strnlen(narrow, out.room()));
  else out.render(conversion, narrow);
}

/// One conversion. A letter that is not known takes no argument and gives nothing.
void convert(Output &out, std::string conversion, char letter, Arguments &arguments) {
  conversion += letter;
  switch (letter) {
  case 'd':
  case 'i':
  case 'o':
  case 'u':
  case 'x':
  case 'X':
  case 'c': return out.render(conversion, arguments.integer());
  case 'C': return out.render(conversion, static_cast<std::wint_t>(arguments.integer()));
  case 'e':
  case 'E':
  case 'f':
  case 'g':
  case 'G': return out.render(conversion, va_arg(arguments.list, double));
  case 's':
  case 'S': return convert_text(out, conversion, va_arg(arguments.list, const void *), letter);
  case 'p': return out.render(conversion, va_arg(arguments.list, const void *));
  case 'n': *va_arg(arguments.list, int *) = static_cast<int>(out.used); return;
  default: return;
  }
}

void write_format(Output &out, const char *format, Arguments &arguments) {
  while (*format != '\0' && out.used < out.size) {
    const char c = *format++;
    if (c != '%' || *format == '%') {
      out.put(c);
      if (c == '%') ++format;
      continue;
    }
    const std::string conversion = collect(&format, arguments);
    if (*format == '\0') return;
    convert(out, conversion, *format++, arguments);
  }
}

} // namespace

bool has_wildcard(const char *wild) {
  return wild != nullptr && std::strpbrk(wild, "*?") != nullptr;
}

int wmatch(const char *text, const char *wild, int case_sensitive) {
  return text && wild && match(text, wild, case_sensitive != 0) ? 1 : 0;
}

int wild_match(const char *text, const char *wild) { return wmatch(text, wild, 1); }

int wild_list(const char *list, const char *wilds) { return match_lists(list, wilds, true); }

int wild_ilist(const char *list, const char *wilds) { return match_lists(list, wilds, false); }

int vsnprintf(char *buffer, std::size_t bfsz, const char *format, std::va_list arg) {
  if (buffer == nullptr || format == nullptr) return 0;
  Output out{buffer, bfsz};
  Arguments arguments;
  va_copy(arguments.list, arg);
  write_format(out, format, arguments);
  va_end(arguments.list);
  if (out.used >= bfsz) return -1;
  buffer[out.used] = '\0';
  return static_cast<int>(out.used);
}

int snprintf(char *buffer, std::size_t bfsz, const char *format, ...) {
  std::va_list arg;
  va_start(arg, format);
  const int count = vsnprintf(buffer, bfsz, format, arg);
  va_end(arg);
  return count;
}

int lprintf(char *bf, std::size_t bfsz, const char *format, ...) {
  std::va_list arg;
  va_start(arg, format);
  const int count = vsnprintf(bf, bfsz, format, arg);
  va_end(arg);
  if (count != -1 && static_cast<std::size_t>(count) != bfsz) return count;
  if (bf != nullptr && bfsz > 0) bf[bfsz - 1] = '\0';
  return bfsz > 0 ? static_cast<int>(bfsz) - 1 : 0;
}

Message make_message(const char *format, std::va_list arg) {
  Message message;
  vsnprintf(message.text, sizeof message.text, format, arg);
  message.text[sizeof message.text - 1] = '\0';
  return message;
}

void add_cause(Message &message, const Cause &cause) {
  if (!cause) return;
  const std::size_t used = std::strlen(message.text);
  lprintf(message.text + used, sizeof message.text - used, ", %s", cause_text(cause));
}

const char *cause_text(const Cause &cause) {
  return cause.words != nullptr ? cause.words : std::strerror(cause.number);
}

} // namespace installer
