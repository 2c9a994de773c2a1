#pragma once

// The caller's terminal, and the one of the view that stands for it: a pseudo-terminal of which the
// command has one end, and this process the other. What is typed at the caller's goes through it as
// it is, so that the line discipline of the view's own does what a terminal does: echo, ^C, ^D, ^Z.
// The command never holds the caller's own, at which it could type, and whose mode, owner and
// foreground it could change.
//
// Calling order: `terminal_open`, then `terminal_follow` as often as something may have changed,
// and `terminal_release` whenever others use the caller's terminal.

#include "installer/lib.h"

#include <string>

#include <sys/types.h>
#include <termios.h>

namespace installer::preview {

/// `caller`: a descriptor of the caller's terminal, -1 for none. `shared`: other streams lead
/// elsewhere, so others of a pipeline may use it: it goes on to begin their lines at the left.
/// `wanted`: the command reads from it; what has it alone is taken to do so. `master`: our end of
/// the view's; none after a hang-up. `slave`: the command's, `name` its path. `taken`: what is
/// typed arrives here; then `mode` is the caller's, which comes back, and `guard` a process that
/// sees to it when this one is killed, as long as `alive` is open.
struct Terminal {
  int caller = -1;
  bool shared = false, wanted = false;
  Descriptor master{}, slave{}, alive{};
  std::string name{};
  ::termios mode{};
  ::pid_t guard = -1;
  bool taken = false;
};

/// True when both are the same terminal.
[[nodiscard]] bool terminal_is_same(int one, int other);
/// Makes the view's terminal, in the terminal file system `terminals`, with the mode and the size
/// of the caller's. False with errno set.
[[nodiscard]] bool terminal_open(Terminal &x, int terminals);
/// Passes the size of the caller's terminal on, and takes it when it is wanted and this process is
/// in its foreground.
void terminal_follow(Terminal &x);
/// Gives the caller's terminal its mode back.
void terminal_release(Terminal &x);
/// The caller's terminal is gone: the command's hangs up.
void terminal_hang_up(Terminal &x);

} // namespace installer::preview
