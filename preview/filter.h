#pragma once

// The system calls that a command in the view does not get. Rights do not say it all: a new user
// name space would give every right back, for mounts and for what the kernel made, and a terminal
// takes input from whoever it controls.

namespace installer::preview {

/// Refuses them to this process and all that it starts, for good. Set-user-ID programs keep their
/// rights, so this takes the right SYS_ADMIN. False with errno set.
[[nodiscard]] bool filter_calls();

} // namespace installer::preview
