#pragma once

// The host's name.

namespace installer {

/// Puts the host name (POSIX gethostname) into `name`, with room for `size` - 1 characters; when
/// the system does not tell, logs an error and puts "127.0.0.1". `name`.
char *tcp_hostname(char *name, unsigned size);
/// The system's text for errno.
[[nodiscard]] const char *tcp_error();

} // namespace installer
