#include "preview/streams.h"

#include <csignal>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace installer {

namespace {

constexpr std::size_t BlockSize = 65536;

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
  std::array<char, BlockSize> block{};
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
  streams.command[0] = copy.get();
  streams.owned.push_back(std::move(copy));
  return true;
}

/// A process of its own writes, as the preview waits for the command meanwhile. When it cannot
/// write, the command gets the error of a closed pipe.
bool relay_output(Streams &streams, int fd) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return false;
  Descriptor from{ends[0]}, to{ends[1]};
  const ::pid_t pid = ::fork();
  if (pid < 0) return false;
  if (pid == 0) {
    // The end of the command is what ends it, and nothing that is sent to the whole group.
    for (int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) std::signal(number, SIG_IGN);
    static_cast<void>(to.close());
    streams.owned.clear(); // another relay's pipe would never end
    ::_exit(pump(from.get(), fd) ? 0 : 1);
  }
  streams.relays.push_back(pid);
  streams.command[static_cast<std::size_t>(fd)] = to.get();
  streams.owned.push_back(std::move(to));
  return true;
}

bool is_same_file(const struct ::stat &a, int fd) {
  struct ::stat b = {};
  return ::fstat(fd, &b) == 0 && same_inode(a, b);
}

bool open_stream(Streams &streams, int fd) {
  struct ::stat info = {};
  if (::fstat(fd, &info) != 0) {
    // Nothing that is opened here may take its place; the command gets it closed.
    streams.command[static_cast<std::size_t>(fd)] = -1;
    return ::open("/dev/null", O_RDWR) == fd;
  }
  if (S_ISDIR(info.st_mode)) {
    errno = EISDIR;
    return false;
  }
  if (!S_ISREG(info.st_mode)) return true;
  if (fd == STDIN_FILENO) return copy_input(streams);
  if (fd == STDERR_FILENO && is_same_file(info, STDOUT_FILENO)) { // one pipe keeps their order
    streams.command[2] = streams.command[1];
    return true;
  }
  return relay_output(streams, fd);
}

} // namespace

bool streams_open(Streams &streams) {
  return open_stream(streams, STDIN_FILENO) && open_stream(streams, STDOUT_FILENO) &&
         open_stream(streams, STDERR_FILENO);
}

void streams_close(Streams &streams) {
  if (streams.command[0] > STDERR_FILENO) {
    const ::off_t position = ::lseek(streams.command[0], 0, SEEK_CUR);
    static_cast<void>(::lseek(STDIN_FILENO, position, SEEK_SET));
  }
  streams.owned.clear();
  for (const ::pid_t pid : streams.relays)
    while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
  streams.relays.clear();
}

} // namespace installer
