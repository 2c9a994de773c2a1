#pragma once

// The standard streams of the command, which are never those of the preview: through a descriptor
// that it shares, a command could change mode and owner of what lies behind, all contents of a
// file, and what others see of a pipe or a terminal. It gets
//
// - for a terminal, one of the view's own (terminal.h);
// - for the null device, that device opened anew in the view, where it is read-only;
// - for a regular file as standard input, a copy of it in memory;
// - for everything else a pipe.
//
// This process relays what goes through terminal and pipes, while it waits for the command. So it
// may have read more than the command has when that ends.
//
// Calling order: `streams_open`, `streams_connect` when there is a view; for each run
// `streams_take` in its first process, `streams_relay` until that ends, then `streams_drain`;
// `streams_close`.

#include "preview/terminal.h"

#include <array>
#include <vector>

namespace installer::preview {

/// What stands for a descriptor that the command gets from elsewhere.
constexpr int ClosedStream = -1, NullStream = -2, TerminalStream = -3;

/// From one descriptor to another; `bytes` have been read and not yet written. `own`: our end of a
/// pipe, which is closed with the channel, so that the command sees its end; none for the terminal.
/// `keyboard`: is read only while the terminal is taken. `open`: has not ended.
struct Channel {
  int from = -1, to = -1;
  Descriptor own{};
  bool keyboard = false;
  bool open = true;
  std::string bytes{};
};

/// `command`: what becomes the descriptors 0 to 2 of the command; `owned`: its ends of the pipes.
/// `input`: the copy of a file that is standard input.
struct Streams {
  std::array<int, 3> command{ClosedStream, ClosedStream, ClosedStream};
  std::vector<Descriptor> owned{};
  std::vector<Channel> channels{};
  Terminal terminal{};
  Descriptor input{};
};

/// Prepares the streams. False: one of them is a directory, or memory is out (errno).
[[nodiscard]] bool streams_open(Streams &streams);
/// Makes the view's terminal, when it takes one, in the terminal file system `terminals`. False
/// with errno set.
[[nodiscard]] bool streams_connect(Streams &streams, int terminals);
/// In the command's view: makes the descriptors 0 to 2 what `command` says, `kept` the descriptor
/// 3, and closes all others; the terminal then controls this process and what it starts. False with
/// errno set.
[[nodiscard]] bool streams_take(const Streams &streams, int kept);
/// Relays until `events` can be read.
void streams_relay(Streams &streams, int events);
/// Writes what the command has left, and gives the terminal back. Its processes have ended.
void streams_drain(Streams &streams);
/// Moves the position in a file that was standard input to where the command left it.
void streams_close(Streams &streams);

} // namespace installer::preview
