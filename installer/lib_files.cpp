#include "installer/lib.h"

#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>

namespace installer {

namespace {

bool is_null_device(const struct ::stat &info) {
  struct ::stat null_device = {};
  return S_ISCHR(info.st_mode) && ::stat("/dev/null", &null_device) == 0 &&
         info.st_rdev == null_device.st_rdev;
}

/// What the last look for a reply found.
enum class Input { Reply, End, Failure };
Input last_input = Input::Reply;

/// After a read that failed: waits until there is something to read where the stream itself does
/// not wait, as another program may have left a terminal. False: it failed for good.
bool wait_for_input(std::FILE *in) {
  if (std::ferror(in) == 0 || (errno != EAGAIN && errno != EINTR)) return false;
  struct ::pollfd wanted = {::fileno(in), POLLIN, 0};
  if (errno == EAGAIN && ::poll(&wanted, 1, -1) < 0 && errno != EINTR) return false;
  std::clearerr(in);
  return true;
}

/// True for a terminal that is gone. It reads as if its input had ended, though nobody ended it.
bool hung_up(std::FILE *in) {
  const KeepErrno keep; // it is no reason of what is said about the reply
  struct ::termios settings = {};
  return ::tcgetattr(::fileno(in), &settings) != 0 && errno == EIO;
}

int next_character(std::FILE *in) {
  const int before = errno;
  int c = ::getc_unlocked(in);
  while (c == EOF && wait_for_input(in)) {
    errno = before; // a wait that worked is no reason of what is said about the reply
    c = ::getc_unlocked(in);
  }
  return c;
}

struct Mode {
  char letter;
  int flags;
  int update_flags;
};
constexpr Mode modes[] = {
    {'r', O_RDONLY,                      O_RDWR                     },
    {'w', O_WRONLY | O_CREAT | O_TRUNC,  O_RDWR | O_CREAT | O_TRUNC },
    {'a', O_WRONLY | O_CREAT | O_APPEND, O_RDWR | O_CREAT | O_APPEND},
};

const Mode *find_mode(char letter) {
  for (const Mode &mode : modes)
    if (mode.letter == letter) return &mode;
  errno = EINVAL;
  return nullptr;
}

} // namespace

bool admitted(const struct ::stat &info, Allow allow) {
  if (S_ISREG(info.st_mode) || is_null_device(info)) return true;
  const bool device = S_ISCHR(info.st_mode) || S_ISBLK(info.st_mode);
  if (allow == Allow::Target && device) return true;
  errno = S_ISDIR(info.st_mode) ? EISDIR : ENOTSUP;
  return false;
}

Descriptor open_at_once(int dir, const char *name, int flags, ::mode_t perms) {
  flags |= O_CLOEXEC | O_NOCTTY;
  Descriptor fd{::openat(dir, name, flags | O_NONBLOCK, perms)};
  if (fd || errno != EWOULDBLOCK) return fd;
  // Another process has a lease on the file; the system waits until that is given back.
  struct ::stat info = {};
  const int follow = (flags & O_NOFOLLOW) != 0 ? AT_SYMLINK_NOFOLLOW : 0;
  const bool regular = ::fstatat(dir, name, &info, follow) == 0 && S_ISREG(info.st_mode);
  if (regular) fd = Descriptor{::openat(dir, name, flags, perms)};
  else errno = EWOULDBLOCK;
  return fd;
}

Descriptor open_known(int dir, const char *name, const struct ::stat *info, int flags, Allow allow,
                      ::mode_t perms) {
  if (info != nullptr && !admitted(*info, allow)) return Descriptor{};
  return open_at_once(dir, name, flags, perms);
}

Descriptor open_file(int dir, const char *name, int flags, Allow allow, ::mode_t perms) {
  struct ::stat info = {};
  const bool exists = ::fstatat(dir, name, &info, 0) == 0;
  return open_known(dir, name, exists ? &info : nullptr, flags, allow, perms);
}

std::FILE *s_fopen(const char *filename, const char *mode) {
  if (filename == nullptr || mode == nullptr) return nullptr;
  const Mode *row = find_mode(*mode);
  if (row == nullptr) return nullptr;
  const int flags = std::strchr(mode, '+') ? row->update_flags : row->flags;
  Descriptor fd =
      open_file(AT_FDCWD, filename, flags, row->letter == 'r' ? Allow::Plain : Allow::Target);
  std::FILE *stream = fd ? ::fdopen(fd.get(), mode) : nullptr;
  if (stream != nullptr) fd.release();
  return stream;
}

Cause read_text(std::FILE *in, std::string &text) {
  struct ::stat info = {};
  const bool sized = ::fstat(::fileno(in), &info) == 0 && info.st_size > 0;
  const auto size = static_cast<std::size_t>(sized ? info.st_size : 0);
  text.clear();
  if (size > text.max_size()) return {ENOMEM};
  // One step to the whole size: a file that memory cannot hold is refused before it is read.
  text.reserve(size);
  char piece[LineSize - 2];
  bool ended = false; // by a zero byte
  while (const std::size_t count = std::fread(piece, 1, sizeof piece, in)) {
    const std::string_view read{piece, count};
    const std::string_view kept = read.substr(0, ended ? 0 : read.find('\0'));
    ended = kept.size() < count;
    text.append(kept);
    if (read.find_first_not_of('\0', kept.size()) != read.npos) return ZeroByte;
  }
  return std::ferror(in) == 0 ? Cause{} : last_cause();
}

std::size_t read_piece(std::FILE *in, char *buffer, std::size_t bfsz) {
  std::size_t size = 0;
  for (int c = 0; size + 1 < bfsz && c != '\n'; ++size) {
    c = next_character(in);
    if (c == EOF) break;
    buffer[size] = static_cast<char>(c);
  }
  buffer[size] = '\0';
  return std::ferror(in) == 0 ? size : 0;
}

char *read_reply(char *buffer, std::size_t bfsz) {
  {
    const KeepErrno keep; // a console that is gone is no reason of what is said about the reply
    std::fflush(stdout);
  }
  if (std::ferror(stdin) != 0) std::clearerr(stdin); // it is tried anew
  const bool found = read_piece(stdin, buffer, bfsz) > 0;
  const bool failed = std::ferror(stdin) != 0 || (!found && hung_up(stdin));
  last_input = failed ? Input::Failure : found ? Input::Reply : Input::End;
  if (!found) *buffer = '\0';
  return found ? buffer : nullptr;
}

bool input_ended() { return last_input != Input::Reply; }

bool input_failed() { return last_input == Input::Failure; }

bool same_inode(const struct ::stat &a, const struct ::stat &b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

bool same_file(const char *a, const char *b) {
  struct ::stat info_a = {};
  struct ::stat info_b = {};
  return ::stat(a, &info_a) == 0 && ::stat(b, &info_b) == 0 && same_inode(info_a, info_b);
}

} // namespace installer
