#include "preview/streams.h"

#include <csignal>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace installer::preview {

namespace {

/// What a pipe that can be written to takes without waiting.
constexpr std::size_t BlockSize = 4096;
/// So often a terminal is tried that is in others' hands.
constexpr ::timespec Pause = {0, 250'000'000};

bool write_all(int to, const char *data, ::ssize_t size) {
  while (size > 0) {
    const ::ssize_t written = ::write(to, data, static_cast<std::size_t>(size));
    if (written < 0 && errno != EINTR) return false;
    if (written < 0) continue;
    data += written;
    size -= written;
  }
  return true;
}

/// Copies to the end. False with errno set when it ends early.
bool pump(int from, int to) {
  std::array<char, 65536> block{};
  while (true) {
    const ::ssize_t got = ::read(from, block.data(), block.size());
    if (got == 0) return true;
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 || !write_all(to, block.data(), got)) return false;
  }
}

/// The whole file, so that positions are the same in both. Its time of access stays, where the
/// system allows that.
bool copy_input(Streams &streams) {
  Descriptor copy{::memfd_create("input", MFD_CLOEXEC)};
  const ::off_t position = ::lseek(STDIN_FILENO, 0, SEEK_CUR);
  if (!copy || position < 0 || ::lseek(STDIN_FILENO, 0, SEEK_SET) != 0) return false;
  const int flags = ::fcntl(STDIN_FILENO, F_GETFL);
  ::fcntl(STDIN_FILENO, F_SETFL, flags | O_NOATIME);
  const bool copied = pump(STDIN_FILENO, copy.get());
  ::fcntl(STDIN_FILENO, F_SETFL, flags);
  if (::lseek(STDIN_FILENO, position, SEEK_SET) < 0 || !copied ||
      ::lseek(copy.get(), position, SEEK_SET) < 0)
    return false;
  streams.command[STDIN_FILENO] = copy.get();
  streams.input = std::move(copy);
  return true;
}

// ---- Channels ----

int &place(Streams &streams, int fd) { return streams.command[static_cast<std::size_t>(fd)]; }

/// A pipe between the command and the descriptor `fd` of ours.
bool open_channel(Streams &streams, int fd) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return false;
  const bool input = fd == STDIN_FILENO;
  Descriptor ours{ends[input ? 1 : 0]}, theirs{ends[input ? 0 : 1]};
  place(streams, fd) = theirs.get();
  streams.owned.push_back(std::move(theirs));
  Channel channel{fd, fd};
  (input ? channel.to : channel.from) = ours.get();
  channel.own = std::move(ours);
  streams.channels.push_back(std::move(channel));
  return true;
}

bool is_terminal_channel(const Channel &channel) { return !channel.own; }

void end(Streams &streams, Channel &channel) {
  channel.open = false;
  channel.bytes.clear();
  if (!is_terminal_channel(channel)) {
    static_cast<void>(channel.own.close());
    return;
  }
  terminal_hang_up(streams.terminal);
  for (Channel &other : streams.channels)
    if (is_terminal_channel(other)) other.open = false;
}

bool is_passing(const Channel &channel) { return !channel.bytes.empty(); }

/// One read or one write, whichever is next.
void step(Streams &streams, Channel &channel) {
  std::array<char, BlockSize> block{};
  const bool writes = is_passing(channel);
  const ::ssize_t done = writes ? ::write(channel.to, channel.bytes.data(), channel.bytes.size())
                                : ::read(channel.from, block.data(), block.size());
  if (done < 0 && (errno == EINTR || errno == EAGAIN)) return;
  if (done <= 0) end(streams, channel);
  else if (writes) channel.bytes.erase(0, static_cast<std::size_t>(done));
  else channel.bytes.assign(block.data(), static_cast<std::size_t>(done));
}

/// What is to be waited for at a channel; a negative descriptor for nothing.
::pollfd wanted(const Streams &streams, const Channel &channel) {
  if (!channel.open) return {-1, 0, 0};
  if (is_passing(channel)) return {channel.to, POLLOUT, 0};
  return {channel.keyboard && !streams.terminal.taken ? -1 : channel.from, POLLIN, 0};
}

// ---- Opening ----

bool is_same_file(const struct ::stat &a, int fd) {
  struct ::stat b = {};
  return ::fstat(fd, &b) == 0 && same_inode(a, b);
}

bool is_null_device(const struct ::stat &info) {
  return S_ISCHR(info.st_mode) && info.st_rdev == makedev(1, 3);
}

/// All streams that are the first terminal are the view's; there is one only.
bool take_terminal(Streams &streams, int fd) {
  Terminal &terminal = streams.terminal;
  if (terminal.caller >= 0 && !terminal_is_same(terminal.caller, fd)) return false;
  if (terminal.caller < 0) terminal.caller = fd;
  place(streams, fd) = TerminalStream;
  return true;
}

bool open_stream(Streams &streams, int fd) {
  struct ::stat info = {};
  if (::fstat(fd, &info) != 0) // nothing that is opened here may take its place
    return ::open("/dev/null", O_RDWR) == fd;
  if (S_ISDIR(info.st_mode)) {
    errno = EISDIR;
    return false;
  }
  if (is_null_device(info)) {
    place(streams, fd) = NullStream;
    return true;
  }
  if (::isatty(fd) != 0 && take_terminal(streams, fd)) return true;
  if (fd == STDIN_FILENO && S_ISREG(info.st_mode)) return copy_input(streams);
  if (fd == STDERR_FILENO && is_same_file(info, STDOUT_FILENO)) { // one pipe keeps their order
    place(streams, fd) = place(streams, STDOUT_FILENO);
    return true;
  }
  return open_channel(streams, fd);
}

/// A descriptor of the caller's terminal that can be read (`forbidden` O_WRONLY) or written to
/// (O_RDONLY).
int terminal_for(const Streams &streams, int forbidden) {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    if (streams.command[static_cast<std::size_t>(fd)] == TerminalStream &&
        (::fcntl(fd, F_GETFL) & O_ACCMODE) != forbidden)
      return fd;
  return -1;
}

/// In the view the terminal has a name, and the null device a mount that is read-only.
Descriptor open_in_view(const Streams &streams, int stream) {
  constexpr int flags = O_RDWR | O_NOCTTY | O_CLOEXEC;
  if (stream == NullStream) return Descriptor{::open("/dev/null", flags)};
  if (stream != TerminalStream) return Descriptor{::fcntl(stream, F_DUPFD_CLOEXEC, 0)};
  Descriptor named{::open(streams.terminal.name.c_str(), flags)};
  if (named && terminal_is_same(named.get(), streams.terminal.slave.get())) return named;
  return Descriptor{::fcntl(streams.terminal.slave.get(), F_DUPFD_CLOEXEC, 0)};
}

void wake(int /*number*/) {}

/// Waits for whatever comes next, and does it. False: `events` can be read.
bool relay_once(Streams &streams, int events, const ::sigset_t &mask) {
  terminal_follow(streams.terminal);
  std::vector<::pollfd> polls{
      {events, POLLIN, 0}
  };
  for (const Channel &channel : streams.channels) polls.push_back(wanted(streams, channel));
  const bool waits = streams.terminal.wanted && !streams.terminal.taken;
  if (::ppoll(polls.data(), polls.size(), waits ? &Pause : nullptr, &mask) <= 0) return true;
  for (std::size_t i = 1; i < polls.size(); ++i)
    if (polls[i].revents != 0 && streams.channels[i - 1].open)
      step(streams, streams.channels[i - 1]);
  return polls[0].revents == 0;
}

} // namespace

bool streams_open(Streams &streams) {
  return open_stream(streams, STDIN_FILENO) && open_stream(streams, STDOUT_FILENO) &&
         open_stream(streams, STDERR_FILENO);
}

bool streams_connect(Streams &streams, int terminals) {
  Terminal &terminal = streams.terminal;
  if (terminal.caller < 0) return true;
  for (const int stream : streams.command) terminal.shared |= stream != TerminalStream;
  terminal.wanted = !terminal.shared;
  if (!terminal_open(terminal, terminals)) return false;
  const int from = terminal_for(streams, O_WRONLY), to = terminal_for(streams, O_RDONLY);
  const int master = terminal.master.get();
  if (from >= 0) streams.channels.push_back({from, master, Descriptor{}, true});
  if (to >= 0) streams.channels.push_back({master, to});
  return true;
}

bool streams_take(const Streams &streams, int kept) {
  constexpr int aside = 4; // all are opened there first: a place may hold another one
  std::array<Descriptor, 4> copies;
  ::setsid();
  for (std::size_t i = 0; i < streams.command.size(); ++i) {
    if (streams.command[i] == ClosedStream) continue;
    const Descriptor stream = open_in_view(streams, streams.command[i]);
    if (!stream) return false;
    copies[i] = Descriptor{::fcntl(stream.get(), F_DUPFD, aside)};
    if (!copies[i]) return false;
    if (streams.command[i] == TerminalStream) ::ioctl(copies[i].get(), TIOCSCTTY, 0);
  }
  copies[3] = Descriptor{::fcntl(kept, F_DUPFD, aside)};
  for (std::size_t i = 0; i < copies.size(); ++i) {
    const int fd = static_cast<int>(i);
    if (!copies[i]) ::close(fd);
    else if (::dup2(copies[i].get(), fd) < 0) return false;
  }
  for (Descriptor &copy : copies) copy.release();
  return ::syscall(SYS_close_range, aside, ~0U, 0) == 0;
}

void streams_relay(Streams &streams, int events) {
  ::sigset_t resized, mask;
  ::sigemptyset(&resized);
  ::sigaddset(&resized, SIGWINCH);
  ::sigprocmask(SIG_BLOCK, &resized, &mask); // but while it waits
  std::signal(SIGWINCH, wake);
  auto *const broken = std::signal(SIGPIPE, SIG_IGN);
  while (relay_once(streams, events, mask)) {
  }
  std::signal(SIGPIPE, broken);
  std::signal(SIGWINCH, SIG_DFL);
  ::sigprocmask(SIG_SETMASK, &mask, nullptr);
}

void streams_drain(Streams &streams) {
  auto *const broken = std::signal(SIGPIPE, SIG_IGN);
  for (Channel &channel : streams.channels) {
    if (channel.to > STDERR_FILENO) continue; // input waits for the next run
    while (channel.open) {
      ::pollfd next = wanted(streams, channel);
      const int found = ::poll(&next, 1, is_passing(channel) ? -1 : 0);
      if (found == 0) break;
      if (found > 0) step(streams, channel);
    }
  }
  std::signal(SIGPIPE, broken);
  terminal_release(streams.terminal);
}

void streams_close(Streams &streams) {
  if (!streams.input) return;
  const ::off_t position = ::lseek(streams.input.get(), 0, SEEK_CUR);
  static_cast<void>(::lseek(STDIN_FILENO, position, SEEK_SET));
}

} // namespace installer::preview
