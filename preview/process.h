#pragma once

// One run of a command in the view. It gets a process name space, and a mount name space in which
// there is nothing but the view: it can neither signal nor inspect a process of the machine, nor
// find a way to the machine's files through one. The first process of that name space ends with
// this process, however that ends, and takes all others with it; so no run outlives the preview.
//
// The command leads process groups of its own, with a terminal of theirs, so that nothing that it
// does to those concerns the caller's. Signals go on to it, and when it stops this process stops
// as well.

#include "preview/streams.h"
#include "preview/view.h"

#include <string>
#include <vector>

namespace installer::preview {

/// `started`: the command was in the view; else a message has been printed. `status`: its exit
/// status, 128 + n when a signal ended it, 126 or 127 when it cannot be run (as env(1)).
struct RunResult {
  bool started = false;
  int status = 125;
};

/// Runs `arguments` (the command first, looked up in PATH) in `folder` of the view with the
/// standard streams of `streams`, and waits for its end. Processes that the command leaves behind
/// are ended. SIGINT, SIGTERM, SIGHUP, SIGQUIT and SIGTSTP of this process go on to the command and
/// its group, unless they were ignored. A command that does not end within some seconds of one that
/// another process sent is killed. Afterwards everything that was written has been passed on.
[[nodiscard]] RunResult process_run(const View &view, const std::vector<std::string> &arguments,
                                    const std::string &folder, Streams &streams);

} // namespace installer::preview
