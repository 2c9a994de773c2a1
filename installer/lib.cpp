#include "installer/lib.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include <unistd.h>

namespace installer {

namespace {

constexpr auto make_charmap() {
  std::array<unsigned char, 256> map{};
  for (std::size_t i = 0; i < map.size(); ++i) {
    const bool upper = i >= 'A' && i <= 'Z';
    map[i] = static_cast<unsigned char>(upper ? i - 'A' + 'a' : i);
  }
  return map;
}
int fold(char c) { return charmap[static_cast<unsigned char>(c)]; }
bool is_space(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }
bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_separator(char c) { return c == '/' || c == '\\'; }

struct Word {
  const char *word;
};
constexpr Word true_words[] = {{"true"}, {"yes"}, {"y"}, {"on"}, {"checked"}, {"selected"}};
constexpr Word false_words[] = {{"false"}, {"no"}, {"n"}, {"off"}};

/// Where the last component of `file` begins.
std::size_t name_offset(const char *file) {
  const char *separator = last_separator(file);
  return separator != nullptr ? static_cast<std::size_t>(separator + 1 - file) : 0;
}

/// Appends what fits into `bfsz` - 1 characters.
void append(char *result, const char *text, std::size_t bfsz) {
  const std::size_t used = std::strlen(result);
  if (used < bfsz) scpy(result + used, text, bfsz - used);
}

/// True for a character that turns the direction of what is written around it, or ends a line.
bool steers(unsigned code) {
  constexpr struct {
    unsigned first, last;
  } ranges[] = {
      {0x61c,  0x61c },
      {0x200e, 0x200f},
      {0x2028, 0x202e},
      {0x2066, 0x2069}
  };
  return std::any_of(std::begin(ranges), std::end(ranges), [code](const auto &range) {
    return code >= range.first && code <= range.last;
  });
}

} // namespace

constexpr std::array<unsigned char, 256> charmap = make_charmap();

void s_fclose(std::FILE **stream) {
  if (stream == nullptr || *stream == nullptr) return;
  std::fclose(*stream);
  *stream = nullptr;
}

bool finish(Stream stream) {
  const bool failed_before = std::ferror(stream.get()) != 0;
  const int earlier = errno != 0 ? errno : EIO;
  errno = 0;
  const bool closed = std::fclose(stream.release()) == 0;
  if (failed_before && errno == 0) errno = earlier;
  return closed && !failed_before;
}

Descriptor &Descriptor::operator=(Descriptor &&other) noexcept {
  std::swap(fd_, other.fd_);
  return *this;
}

Descriptor::~Descriptor() {
  const KeepErrno keep;
  if (fd_ >= 0) ::close(fd_);
}

int Descriptor::release() noexcept {
  const int fd = fd_;
  fd_ = -1;
  return fd;
}

bool Descriptor::close() noexcept { return ::close(release()) == 0; }

int s_atoi(const char *string) { return string ? std::atoi(string) : 0; } // NOLINT(cert-err34-c)

int s_strcmp(const char *string1, const char *string2) {
  return string1 && string2 ? std::strcmp(string1, string2) : -1;
}

int s_stricmp(const char *string1, const char *string2) {
  if (string1 == nullptr || string2 == nullptr) return -1;
  while (*string1 != '\0' && fold(*string1) == fold(*string2)) {
    ++string1;
    ++string2;
  }
  return fold(*string1) - fold(*string2);
}

char *s_strtrm(char *string) {
  if (string == nullptr) return nullptr;
  for (char *end = string + std::strlen(string); end > string && is_space(end[-1]);) *--end = '\0';
  while (is_space(*string)) ++string;
  return string;
}

const char *s_strstr(const char *string1, const char *string2) {
  return string1 && string2 ? std::strstr(string1, string2) : nullptr;
}

char *s_strdup(const char *source) { return source ? ::strdup(source) : nullptr; }

std::size_t scpy(char *dst, const char *src, std::size_t size) {
  if (dst == nullptr || size < 1) return 0;
  const std::size_t count = src ? ::strnlen(src, size - 1) : 0;
  if (count > 0) std::memmove(dst, src, count);
  dst[count] = '\0';
  return count;
}

std::size_t scat(char *dst, const char *src, std::size_t size) {
  if (dst == nullptr || src == nullptr || size < 1) return 0;
  const std::size_t used = ::strnlen(dst, size);
  if (used + 1 >= size) {
    dst[size - 1] = '\0';
    return size - 1;
  }
  return used + scpy(dst + used, src, size - 1 - used);
}

char *smake(const char *src, std::size_t size) {
  if (src == nullptr || size == 0) return nullptr;
  auto *block = static_cast<char *>(std::malloc(size + 1));
  scpy(block, src, size);
  return block;
}

std::size_t schunk(const char *src, const char *stop_on, char *result, std::size_t bfsz) {
  if (src == nullptr || result == nullptr) return 0;
  const std::size_t length = std::strcspn(src, or_empty(stop_on));
  return scpy(result, src, std::min(length + 1, bfsz));
}

char *spre(char *buffer, const char *prefix, std::size_t bfsz) {
  if (buffer == nullptr || prefix == nullptr) return nullptr;
  const std::size_t length = std::strlen(buffer);
  const std::size_t shift = std::strlen(prefix);
  if (length + shift >= bfsz) return nullptr;
  std::memmove(buffer + shift, buffer, length + 1);
  std::memcpy(buffer, prefix, shift); // NOLINT(bugprone-not-null-terminated-result): goes before it
  return buffer;
}

char *sadd(char *buffer, const char *src) {
  if (src == nullptr) return buffer;
  const std::size_t used = buffer ? std::strlen(buffer) : 0;
  const std::size_t more = std::strlen(src) + 1;
  auto *grown = static_cast<char *>(std::realloc(buffer, used + more));
  if (grown == nullptr) return buffer;
  std::memcpy(grown + used, src, more);
  return grown;
}

char *sreplace(const char *source, const char *find, const char *with, char *result,
               std::size_t bfsz) {
  if (source == nullptr || find == nullptr) return nullptr;
  const std::size_t length = std::strlen(find);
  std::string replaced;
  // Nothing is built that would be cut.
  const auto add = [&](const char *text, std::size_t count) {
    replaced.append(text, ::strnlen(text, std::min(count, bfsz - replaced.size())));
  };
  while (const char *hit =
             length > 0 && replaced.size() < bfsz ? std::strstr(source, find) : nullptr) {
    add(source, static_cast<std::size_t>(hit - source));
    add(or_empty(with), bfsz);
    source = hit + length;
  }
  add(source, bfsz);
  scpy(result, replaced.c_str(), bfsz);
  return result;
}

int istrue(const char *string) {
  if (string == nullptr) return 0;
  return find_word(true_words, string, s_stricmp) != nullptr || s_atoi(string) != 0 ? 1 : 0;
}

int isfalse(const char *string) {
  if (string == nullptr) return 0;
  if (find_word(false_words, string, s_stricmp) != nullptr) return 1;
  const bool number = is_digit(string[0]) || (string[0] != '\0' && is_digit(string[1]));
  return number && s_atoi(string) == 0 ? 1 : 0;
}

char *next_word(char **line) {
  char *word = *line + std::strspn(*line, " \t");
  char *end = word + std::strcspn(word, " \t");
  *line = end;
  if (end == word) return nullptr;
  if (*end != '\0') {
    *end = '\0';
    ++*line;
  }
  return word;
}

Glyph first_glyph(std::string_view text) {
  const auto byte = [text](std::size_t i) {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
  };
  const unsigned first = byte(0);
  if (first < 0x80) return {1, first < 0x20 || first == 0x7f, true};
  const Glyph alone = {1, first < 0xa0, false};
  const std::size_t size = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4) return alone;
  unsigned code = first & (0x7fU >> size);
  for (std::size_t i = 1; i < size; ++i) {
    if ((byte(i) & 0xc0U) != 0x80U) return alone;
    code = code << 6U | (byte(i) & 0x3fU);
  }
  constexpr std::array<unsigned, 5> least = {0, 0, 0x80, 0x800, 0x10000};
  const bool surrogate = code >= 0xd800 && code < 0xe000;
  if (code < least[size] || code > 0x10ffff || surrogate) return alone;
  return {size, code < 0xa0 || steers(code), true};
}

std::string escape_byte(char c) {
  char octal[8];
  lprintf(octal, sizeof octal, "\\%03o", static_cast<unsigned>(static_cast<unsigned char>(c)));
  return c == '\n' ? "\\n" : c == '\t' ? "\\t" : octal;
}

std::string escape_controls(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const Glyph glyph = first_glyph(text);
    for (const char c : text.substr(0, glyph.size)) {
      if (glyph.control) result += escape_byte(c);
      else result += c;
    }
    text.remove_prefix(glyph.size);
  }
  return result;
}

bool has_controls(std::string_view text) { return escape_controls(text) != text; }

char *strip_file(char *file, char *buffer, std::size_t bfsz) {
  if (file == nullptr) return nullptr;
  const std::size_t name = name_offset(file);
  scpy(buffer, file + name, bfsz);
  file[name > 0 ? name - 1 : 0] = '\0';
  return file;
}

char *strip_path(char *file) {
  if (file == nullptr) return nullptr;
  const char *name = file + name_offset(file);
  std::memmove(file, name, std::strlen(name) + 1);
  return file;
}

char *strip_ext(char *file) {
  if (file == nullptr) return nullptr;
  char *dot = std::strrchr(file + name_offset(file), '.');
  if (dot != nullptr && dot != file) *dot = '\0';
  return file;
}

char *attach_path(char *result, const char *file, std::size_t bfsz) {
  if (result == nullptr || bfsz == 0) return nullptr;
  setsep(result, Sep);
  if (file != nullptr) {
    const std::size_t used = std::strlen(result);
    const bool ends = used > 0 && result[used - 1] == Sep;
    if (ends && is_separator(*file)) ++file;
    else if (used > 0 && !ends && !is_separator(*file)) append(result, "/", bfsz);
    char *appended = result + std::strlen(result);
    append(result, file, bfsz);
    setsep(appended, Sep);
  }
  return *result == '\0' ? nullptr : result;
}

char *attach_ext(char *result, const char *ext, std::size_t bfsz) {
  if (result == nullptr || bfsz == 0) return nullptr;
  append(result, ext, bfsz);
  return result;
}

char *setsep(char *string, char sep) {
  for (char *c = string; c != nullptr && *c != '\0'; ++c)
    if (is_separator(*c)) *c = sep;
  return string;
}

char *exename(char *buffer, const char *arg0, std::size_t bfsz) {
  if (buffer == nullptr || arg0 == nullptr) return nullptr;
  schunk(arg0 + name_offset(arg0), ".", buffer, bfsz);
  return buffer;
}

char *currentdir(char *buffer, std::size_t bfsz) {
  if (buffer == nullptr || bfsz == 0) return nullptr;
  char *directory = ::getcwd(buffer, bfsz);
  if (directory == nullptr) *buffer = '\0';
  return directory;
}

char *systemdir(char *buffer, std::size_t bfsz) {
  scpy(buffer, "/etc", bfsz);
  return buffer;
}

const char *last_separator(const char *path) {
  const char *last = nullptr;
  for (const char *c = path; c != nullptr && *c != '\0'; ++c)
    if (is_separator(*c)) last = c;
  return last;
}

int join_path(char *buffer, std::size_t bfsz, const char *dir, const char *name) {
  const std::size_t length = std::strlen(dir);
  const std::size_t size = std::strlen(name) + 1;
  const std::size_t gap = length > 0 && dir[length - 1] != Sep ? 1 : 0;
  if (length + gap + size > bfsz) {
    errno = ENAMETOOLONG;
    return 0;
  }
  std::memmove(buffer, dir, length); // NOLINT(bugprone-not-null-terminated-result): name follows
  if (gap != 0) buffer[length] = Sep;
  std::memcpy(buffer + length + gap, name, size);
  return 1;
}

} // namespace installer
