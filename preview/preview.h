#pragma once

// installer-preview: runs a command on a copy-on-write view of the machine, and prints what it
// would have changed. The modules, from the ground up: tree, mounts, view, terminal,
// streams, filter, process, compare, report; a header includes only what stands before it.

namespace installer::preview {

/// Runs the program. Its exit status: that of the command, 128 + n when a signal ended it, 126 or
/// 127 when it cannot be run, 125 when there was no view or the arguments are wrong. A round trip:
/// 0 when nothing is left, 1 when something is or nothing was installed, else the status of the run
/// that failed.
[[nodiscard]] int main(int argc, char **argv);

} // namespace installer::preview
