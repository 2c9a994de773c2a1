#pragma once

// The standard streams of the command. They are those of the preview, but for regular files:
// through a descriptor, a command could change the mode, the owner and all contents of such a file
// of the machine. Standard input then comes from a copy in memory; output goes through a pipe.

#include "installer/lib.h"

#include <array>
#include <vector>

#include <sys/types.h>

namespace installer {

/// `command`: what becomes the descriptors 0 to 2 of the command, -1 for those that are closed.
/// `relays`: the processes that write to regular files.
struct Streams {
  std::array<int, 3> command{0, 1, 2};
  std::vector<Descriptor> owned;
  std::vector<::pid_t> relays;
};

/// Prepares the streams. False: one of them is a directory, or memory is out (errno).
[[nodiscard]] bool streams_open(Streams &streams);
/// Waits until everything has been written, and moves the position in a file that was standard
/// input to where the command left it.
void streams_close(Streams &streams);

} // namespace installer
