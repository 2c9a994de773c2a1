#include "preview/terminal.h"

#include "preview/tree.h"

#include <csignal>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace installer::preview {

namespace {

/// Outlives this process, whatever ends it, by as long as it takes to give the mode back. With all
/// signals blocked it may do so from the background.
[[noreturn]] void keep_guard(int caller, int alive, const ::termios &mode) {
  ::sigset_t all;
  ::sigfillset(&all);
  ::sigprocmask(SIG_BLOCK, &all, nullptr);
  ::dup2(caller, STDIN_FILENO);
  ::dup2(alive, STDOUT_FILENO);
  ::syscall(SYS_close_range, 2, ~0U, 0);
  char released = 0;
  if (::read(STDOUT_FILENO, &released, 1) == 0) ::tcsetattr(STDIN_FILENO, TCSANOW, &mode);
  ::_exit(0);
}

bool start_guard(Terminal &x) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return false;
  const Descriptor from{ends[0]};
  x.alive = Descriptor{ends[1]};
  x.guard = ::fork();
  if (x.guard == 0) keep_guard(x.caller, from.get(), x.mode);
  return x.guard > 0;
}

/// A terminal that does not control this process has no foreground.
bool in_foreground(int terminal) {
  const ::pid_t group = ::tcgetpgrp(terminal);
  return group < 0 ? errno == ENOTTY : group == ::getpgrp();
}

void take(Terminal &x) {
  if (::tcgetattr(x.caller, &x.mode) != 0 || !start_guard(x)) return;
  ::termios raw = x.mode;
  ::cfmakeraw(&raw);
  if (x.shared) raw.c_oflag = x.mode.c_oflag;
  x.taken = true;
  ::tcsetattr(x.caller, TCSANOW, &raw);
}

void pass_size(const Terminal &x) {
  ::winsize size = {};
  if (::ioctl(x.caller, TIOCGWINSZ, &size) == 0) ::ioctl(x.master.get(), TIOCSWINSZ, &size);
}

} // namespace

bool terminal_is_same(int one, int other) {
  unsigned first = 0, second = 0;
  return ::ioctl(one, TIOCGDEV, &first) == 0 && ::ioctl(other, TIOCGDEV, &second) == 0 &&
         first == second;
}

bool terminal_open(Terminal &x, int terminals) {
  constexpr int flags = O_RDWR | O_NOCTTY | O_CLOEXEC;
  int number = 0;
  x.master = tree_open(terminals, "ptmx", flags);
  if (!x.master || ::ioctl(x.master.get(), TIOCSPTLCK, &number) != 0 ||
      ::ioctl(x.master.get(), TIOCGPTN, &number) != 0)
    return false;
  x.name = "/dev/pts/" + std::to_string(number);
  x.slave = tree_open(terminals, std::to_string(number), flags);
  if (!x.slave) return false;
  pass_size(x);
  if (!in_foreground(x.caller)) return true; // the mode is somebody else's
  return ::tcgetattr(x.caller, &x.mode) == 0 && ::tcsetattr(x.slave.get(), TCSANOW, &x.mode) == 0;
}

void terminal_follow(Terminal &x) {
  if (!x.master) return;
  pass_size(x);
  if (x.wanted && !x.taken && in_foreground(x.caller)) take(x);
}

void terminal_release(Terminal &x) {
  if (!x.taken) return;
  x.taken = false;
  ::tcsetattr(x.caller, TCSANOW, &x.mode);
  static_cast<void>(!::write(x.alive.get(), "", 1));
  static_cast<void>(x.alive.close());
  while (::waitpid(x.guard, nullptr, 0) < 0 && errno == EINTR) {
  }
}

void terminal_hang_up(Terminal &x) { static_cast<void>(x.master.close()); }

} // namespace installer::preview
