#pragma once

// The shared library: null-tolerant text routines, path routines, wildcards, the bounded
// formatter, opening of plain files and the small lifetime helpers that
// every other module uses. Its only state is whether standard input has ended.
//
// Buffers: a `char *buffer` comes with its full size `bfsz`, terminator included. The result stays
// within bfsz - 1 characters and is terminated; what does not fit is cut without notice. A null
// text never faults in a routine that says what it gives instead; elsewhere it is not allowed.

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <sys/stat.h>

namespace installer {

/// Room for a path: 255 characters and the terminator.
inline constexpr std::size_t PathSize = 256;
/// Room for a message, an answer or a line of a file: 999 characters and the terminator.
inline constexpr std::size_t LineSize = 1000;
/// The path separator that `attach_path` writes. On input "\\" separates as well.
inline constexpr char Sep = '/';

/// Folds a byte (index 0 to 255): "A" to "Z" become "a" to "z", every other byte stays itself.
extern const std::array<unsigned char, 256> charmap;

// ---- Lifetime helpers -------------------------------------------------------------------------

/// An owned text, or none.
using Text = std::optional<std::string>;

/// The text for reading; null when there is none. Borrowed from `text`.
[[nodiscard]] inline const char *text_of(const Text &text) {
  return text ? text->c_str() : nullptr;
}

/// An owned copy of `text`; none for null.
[[nodiscard]] inline Text make_text(const char *text) { return text ? Text{text} : Text{}; }

/// `text`, or the empty text for null.
[[nodiscard]] inline const char *or_empty(const char *text) { return text ? text : ""; }

/// Why something failed: an error number of the system, or words of our own that have one as well.
/// It is taken where the call failed and travels as a value from there. `words`: of static storage,
/// null for the system's text. Number 0: there is no cause.
struct Cause {
  int number = 0;
  const char *words = nullptr;

  [[nodiscard]] explicit operator bool() const noexcept { return number != 0; }
};

/// What the system call that has just failed left in errno.
[[nodiscard]] inline Cause last_cause() { return {errno}; }
/// The text of the cause (C's strerror for a number without words). Lasts until the next call.
[[nodiscard]] const char *cause_text(const Cause &cause);
/// True for the cause of what cannot be reached because it is not there.
[[nodiscard]] inline bool is_absence(const Cause &cause) {
  return cause.number == ENOENT || cause.number == ENOTDIR;
}
/// A text holds no zero byte: what comes behind one would be lost.
inline constexpr Cause ZeroByte = {EILSEQ, "it holds a zero byte"};

/// Puts errno back to what it was.
class KeepErrno {
public:
  KeepErrno() = default;
  KeepErrno(const KeepErrno &) = delete;
  KeepErrno &operator=(const KeepErrno &) = delete;
  ~KeepErrno() { errno = saved_; }

private:
  int saved_ = errno;
};

/// Deleter that hands the address of the handle to its module's release operation.
template <auto free_fn> struct Release {
  template <class T> void operator()(T *handle) const noexcept { free_fn(&handle); }
};

/// The one line of a release operation: destroys `*x` and sets it to null. Nothing for a null
/// address or handle.
template <class T> void drop(T **x) {
  if (x == nullptr) return;
  delete *x;
  *x = nullptr;
}

/// Closes the stream and sets the variable to null. Nothing for a null address or stream. The
/// result of the close is lost: a writer calls `finish` instead.
void s_fclose(std::FILE **stream);

/// An owned stdio stream.
using Stream = std::unique_ptr<std::FILE, Release<s_fclose>>;

/// Closes a stream that was written to. True: every byte since opening has reached the system.
/// False: a write, the flush or the close failed; errno is that of the failure.
[[nodiscard]] bool finish(Stream stream);

struct FreeText {
  void operator()(char *text) const noexcept { std::free(text); }
};
/// Holds a heap result of `s_strdup`, `smake` or `sadd`.
using HeapText = std::unique_ptr<char, FreeText>;

/// An owned file descriptor; -1 for none. Closing an already failed file says nothing new, so the
/// destructor ignores the result and keeps errno; a writer calls `close`.
class Descriptor {
public:
  explicit Descriptor(int fd = -1) noexcept : fd_(fd) {}
  Descriptor(Descriptor &&other) noexcept : fd_(other.release()) {}
  Descriptor &operator=(Descriptor &&other) noexcept;
  Descriptor(const Descriptor &) = delete;
  Descriptor &operator=(const Descriptor &) = delete;
  ~Descriptor();

  [[nodiscard]] int get() const noexcept { return fd_; }
  [[nodiscard]] explicit operator bool() const noexcept { return fd_ >= 0; }
  int release() noexcept;
  /// Closes now. False: the system reports a late write error in errno.
  [[nodiscard]] bool close() noexcept;

private:
  int fd_;
};

/// True when `value` and `bits` have a bit in common.
template <class E> [[nodiscard]] constexpr bool has(E value, E bits) {
  return (static_cast<std::uint32_t>(value) & static_cast<std::uint32_t>(bits)) != 0;
}

// ---- Text --------------------------------------------------------------------------------------

/// C's atoi; 0 for null.
[[nodiscard]] int s_atoi(const char *string);
/// C's strcmp; -1 when either is null.
[[nodiscard]] int s_strcmp(const char *string1, const char *string2);
/// Compares through `charmap`; the difference of the first folded bytes that differ, 0 when equal;
/// -1 when either is null.
[[nodiscard]] int s_stricmp(const char *string1, const char *string2);
/// Trims white space (C's isspace) at both ends in place. The result points at the first character
/// that is kept; null for null.
[[nodiscard]] char *s_strtrm(char *string);
/// C's strstr; null when either is null.
[[nodiscard]] const char *s_strstr(const char *string1, const char *string2);
/// A heap copy for the caller to free; null for null or without memory.
[[nodiscard]] char *s_strdup(const char *source);

/// Copies at most `size` - 1 characters and terminates. The number copied; a null `src` empties
/// `dst`; 0 and no write for a null `dst` or a `size` of 0.
std::size_t scpy(char *dst, const char *src, std::size_t size);
/// Appends while the whole stays within `size` - 2 characters. The new length; 0 and no change
/// when either text is null or `size` is 0. A `dst` that already holds `size` - 1 or more
/// characters is cut to `size` - 1.
std::size_t scat(char *dst, const char *src, std::size_t size);
/// A heap block of `size` + 1 bytes with at most `size` - 1 characters of `src`; the caller frees
/// it. Null for a null `src` or a `size` of 0.
[[nodiscard]] char *smake(const char *src, std::size_t size);
/// Copies `src` up to the first character of `stop_on` or the end. The number of characters
/// copied; 0 for a null `src` or `result`.
std::size_t schunk(const char *src, const char *stop_on, char *result, std::size_t bfsz);
/// Puts `prefix` before the text in `buffer` when both together are shorter than `bfsz`; else null
/// and no change. Null when either is null.
char *spre(char *buffer, const char *prefix, std::size_t bfsz);
/// Grows the heap text `buffer` (null: none yet) by `src`. The new pointer; the old one is gone.
/// `buffer` unchanged when `src` is null or memory is out.
[[nodiscard]] char *sadd(char *buffer, const char *src);
/// Writes `source` with each `find` (left to right, no overlap, never empty) replaced by `with`
/// (null: nothing). `result`; null when `source` or `find` is null.
char *sreplace(const char *source, const char *find, const char *with, char *result,
               std::size_t bfsz);
/// 1 for "true", "yes", "y", "on", "checked", "selected" in any case, or a number that is not 0
/// (atoi); else 0.
[[nodiscard]] int istrue(const char *string);
/// 1 for "false", "no", "n", "off" in any case, or, when its first or second character is a digit,
/// for a number that is 0 (atoi); else 0. A text can be neither true nor false.
[[nodiscard]] int isfalse(const char *string);

/// Cuts the next word (ended by a blank, a tab or the end) off `*line` and moves `*line` behind
/// the one separator that ended it. Null when there is none left.
[[nodiscard]] char *next_word(char **line);

/// The row of `table` whose `word` equals `word` under `compare` (s_strcmp or s_stricmp), or null.
template <class Table>
[[nodiscard]] auto find_word(const Table &table, const char *word,
                             int (*compare)(const char *, const char *))
    -> decltype(std::data(table)) {
  for (const auto &row : table)
    if (compare(row.word, word) == 0) return &row;
  return nullptr;
}

/// A character as a terminal reads it: `size` bytes. `control`: it does more than show itself. So
/// do those of ASCII, U+0080 to U+009F (as single bytes too), what turns the direction of writing
/// (U+061C, U+200E, U+200F, U+202A to U+202E, U+2066 to U+2069), and U+2028 and U+2029, which end a
/// line. `valid`: it is UTF-8, else a byte.
struct Glyph {
  std::size_t size;
  bool control;
  bool valid;
};
/// The first of `text`, which is not empty.
[[nodiscard]] Glyph first_glyph(std::string_view text);
/// "\\n", "\\t", or three octal digits behind a backslash.
[[nodiscard]] std::string escape_byte(char c);
/// `text` with the bytes of its control characters escaped, so that it stays one line and cannot
/// talk to a terminal. Other bytes stay, in UTF-8 or not.
[[nodiscard]] std::string escape_controls(std::string_view text);
/// True when there is one in `text`.
[[nodiscard]] bool has_controls(std::string_view text);

// ---- Paths -------------------------------------------------------------------------------------

/// Splits a path at its last separator: `buffer` (may be null) receives the part behind it, `file`
/// is cut before it. Without a separator, or with one in front only, `file` becomes empty. `file`.
char *strip_file(char *file, char *buffer, std::size_t bfsz);
/// Keeps only the part behind the last separator. `file`.
char *strip_path(char *file);
/// Cuts at the last "." behind the last separator, unless it is the first character. `file`.
char *strip_ext(char *file);
/// Joins: turns every "\\" into "/", adds one "/" between `result` and `file` when needed and
/// drops a second one. `result`; null when it is empty, or for a null `result` or a `bfsz` of 0. A
/// null `file` leaves the conversion only.
char *attach_path(char *result, const char *file, std::size_t bfsz);
/// Appends `ext` (with its dot). `result`; null for a null `result` or a `bfsz` of 0.
char *attach_ext(char *result, const char *ext, std::size_t bfsz);
/// Replaces every "/" and "\\" by `sep`. `string`.
char *setsep(char *string, char sep);
/// The program's base name: the part of `arg0` behind its last separator, up to its first ".".
/// `buffer`; null when either is null.
char *exename(char *buffer, const char *arg0, std::size_t bfsz);
/// The working directory (POSIX getcwd). `buffer`; on failure null, errno and the empty text.
char *currentdir(char *buffer, std::size_t bfsz);
/// Copies "/etc". `buffer`; null for null.
char *systemdir(char *buffer, std::size_t bfsz);

/// The last "/" or "\\" in `path`, or null.
[[nodiscard]] const char *last_separator(const char *path);
/// Joins `dir` and the directory entry `name` with one "/"; no character of either is changed, so
/// that a "\\" in a name stays one. 0 with errno ENAMETOOLONG and nothing written when it does not
/// fit.
[[nodiscard]] int join_path(char *buffer, std::size_t bfsz, const char *dir, const char *name);

// ---- Files -------------------------------------------------------------------------------------

/// What an existing file may be: `Plain` is a regular file or the null device, for reading and for
/// the log; `Target` also admits devices, for writing. Nothing else is ever opened, so that no
/// pipe, socket or directory can block or surprise a run.
enum class Allow { Plain, Target };

/// True when `info` describes a file that `allow` admits; else errno says why not.
[[nodiscard]] bool admitted(const struct ::stat &info, Allow allow);
/// POSIX openat that never blocks but for a regular file under a lease of another process, and that
/// closes on exec. A descriptor, or an empty one with errno set.
[[nodiscard]] Descriptor open_at_once(int dir, const char *name, int flags, ::mode_t perms = 0666);
/// open_at_once that refuses what `allow` does not admit. `perms` is for a file that is created.
[[nodiscard]] Descriptor open_file(int dir, const char *name, int flags, Allow allow,
                                   ::mode_t perms = 0666);
/// open_file for a file whose status the caller has; null when it does not exist.
[[nodiscard]] Descriptor open_known(int dir, const char *name, const struct ::stat *info, int flags,
                                    Allow allow, ::mode_t perms = 0666);
/// C's fopen ("r", "w", "a", with "b" and "+") for the files that `open_file` admits: `Plain` for
/// reading, `Target` else. Null when either is null, or with errno set.
[[nodiscard]] std::FILE *s_fopen(const char *filename, const char *mode);

/// True when both describe one file.
[[nodiscard]] bool same_inode(const struct ::stat &a, const struct ::stat &b);
/// True when both paths lead to one existing file, links followed.
[[nodiscard]] bool same_file(const char *a, const char *b);
/// Reads a whole text file; zero bytes at its very end are dropped. The cause when it cannot be
/// read, or holds a zero byte elsewhere. Throws std::bad_alloc for a file that memory cannot hold.
[[nodiscard]] Cause read_text(std::FILE *in, std::string &text);

/// C's fgets, but the number of characters read, line end included; 0 at the end or after an error
/// (C's ferror). Waits for input also where the descriptor does not. More than strlen(`buffer`)
/// when the text holds a zero byte. `bfsz` is at least 2.
[[nodiscard]] std::size_t read_piece(std::FILE *in, char *buffer, std::size_t bfsz);

/// Shows what is pending on standard output and reads one line of standard input, at most `bfsz` -
/// 1 characters, line end included. `buffer`; null and the empty text at the end of input.
char *read_reply(char *buffer, std::size_t bfsz);
/// True when the last `read_reply` found the end of standard input, or could not read it.
[[nodiscard]] bool input_ended();
/// True when it could not read it, which is never consent.
[[nodiscard]] bool input_failed();

// ---- Wildcards ---------------------------------------------------------------------------------

/// True when the pattern holds a "*" or "?".
[[nodiscard]] bool has_wildcard(const char *wild);
/// Matches the whole of `text`: "*" stands for any run of characters, "?" for exactly one, every
/// other one for itself. 1 or 0; 0 when either is null. Time is at most text times pattern.
[[nodiscard]] int wmatch(const char *text, const char *wild, int case_sensitive);
/// 1 for the pattern "*" and any text but null; else wmatch with case.
[[nodiscard]] int wild_match(const char *text, const char *wild);
/// 1 when an item of `list` matches an item of `wilds`, with case. Items are separated by runs of
/// blanks, tabs and commas. 0 when either is null or has no items.
[[nodiscard]] int wild_list(const char *list, const char *wilds);
/// The same without case.
[[nodiscard]] int wild_ilist(const char *list, const char *wilds);

// ---- Formatter ---------------------------------------------------------------------------------

/// Formats into `buffer`: %d %i %o %u %x %X %c (32 bits), %e %E %f %g %G, %s (null gives
/// "(NULL)"), %p, %n, %C, %S and %%, with flags, width and precision (also "*"). No length
/// modifiers: `h`, `l` and `L` are not understood. The number of characters stored; -1 when the
/// output reached `bfsz` characters, which leaves no room for the terminator (a conversion that is
/// cut leaves room by itself); 0 for a null `buffer` or `format`.
[[gnu::format(printf, 3, 0)]] int vsnprintf(char *buffer, std::size_t bfsz, const char *format,
                                            std::va_list arg);
[[gnu::format(printf, 3, 4)]] int snprintf(char *buffer, std::size_t bfsz, const char *format, ...);
/// The same, always terminated: where snprintf gives -1 or `bfsz`, the text is cut to `bfsz` - 1
/// characters, and that is the result. `bfsz` is at least 1.
[[gnu::format(printf, 3, 4)]] int lprintf(char *bf, std::size_t bfsz, const char *format, ...);

/// A message of at most 999 characters, as all reporters build theirs.
struct Message {
  char text[LineSize];
};
[[nodiscard, gnu::format(printf, 1, 0)]] Message make_message(const char *format, std::va_list arg);
/// Appends ", " and the text of the cause; nothing when there is none.
void add_cause(Message &message, const Cause &cause);

} // namespace installer
