#pragma once

// The log: one append-only text file with a level threshold, periodic flushing and rotation into
// numbered back-ups. `log_init`, `log_set` (makes it the current log), `log_open`, then `emsg`,
// `imsg` and `dmsg` from anywhere, and `log_free` after the last message.
//
// A line reads "Sun Nov 22 10:00:00  [123] Error: text". Errors that come while no log can take
// them wait in memory until a log becomes current by being opened.

#include "installer/fault.h"
#include "installer/lib.h"

#include <cstdint>
#include <string_view>

#include <sys/types.h>

namespace installer {

enum LogLevel : std::uint32_t { LogNone = 0, LogError = 1, LogInfo = 2, LogDebug = 3 };

/// `File`: path of the log, empty until the first successful open. `Level`: a line of level l is
/// written when `Level` is at least l. `DoFlush`: flush interval in lines, 0 for never. `Lines`:
/// lines written. `Rotations`: highest number of a back-up. `Size` and `Rotate`: length of the file
/// and the length from which it is rotated, in bytes. `F`: the stream, null when closed. `Held`:
/// the length at which a rotation last failed; the next one waits for `Rotate` further bytes.
/// `Lost`: a line could not be written. `Lock`: see `log_lock`.
struct log {
  char File[LineSize] = {};
  LogLevel Level = LogNone;
  std::int32_t DoFlush = 0;
  std::int32_t Lines = 0;
  std::int32_t Rotations = 4;
  std::uint32_t Size = 0;
  std::uint32_t Rotate = 0x100000;
  Stream F;
  std::uint32_t Held = 0;
  bool Lost = false;
  Descriptor Lock;
};
using Log = log *;

/// A new closed log for `log_free`. It is not current yet.
[[nodiscard]] Log log_init(LogLevel l);
/// Opens `file` for appending, with mode 0600, for answers stand in it. No link is followed that is
/// not trusted (links.h). It must be the null device, or a regular file with one name that belongs
/// to the effective user or root; anything else counts as a file that cannot be opened.
/// Becomes the current log when there is none, and then writes the waiting errors. 1; 0 when it
/// cannot be opened, with `File` as it was.
int log_open(Log x, const char *file);
/// Closes the stream; nothing for a null or closed log.
void log_close(Log x);
/// Closes and releases the log. The variable keeps its value, and a current log stays current: free
/// it after the last message. Nothing for a null address or log.
void log_free(Log *x);
/// An owned log.
using LogOwner = std::unique_ptr<log, Release<log_free>>;

/// Makes `x` (may be null) the current log, without opening it.
void log_set(Log x);
/// Sets the threshold. Null is not allowed here, nor for log_open, log_line and log_rotate.
void log_set_level(Log x, LogLevel l);
/// Flushes after every `doflush` lines, never for 0.
void log_doflush(Log x, int doflush);

/// Locks the log at `File` until it is freed or the process ends. What is locked (flock) is no log,
/// which any process may rotate, but an empty file beside it, made for this with mode 0600: the
/// path with ".lock" behind it. It goes when the log is freed; one that is left is used again. No
/// cause: locked. EWOULDBLOCK: another process has it, whose id is then in `holder`, or 0 when the
/// system does not tell.
[[nodiscard]] Cause log_lock(Log x, ::pid_t &holder);

/// Writes one line when the level allows, reopening a closed log at its `File`; nothing when that
/// fails. errno is kept.
void log_line(Log x, const char *line, LogLevel l);
/// The same at info level for the current log, from a signal handler. Nothing while it is closed.
void log_last_line(std::string_view line);
/// Moves the file to back-up 0 (path with a "0" behind it) and the back-ups up by one, and reopens.
/// The result of the reopening. When the file cannot be moved the back-ups stay as they are.
int log_rotate(Log x);
/// Writes the waiting errors to the current log.
void check_emsglog();

/// Messages to the current log at error, info and debug level, cut at 999 characters. Nothing for a
/// null format. Safe before any log exists. errno is kept.
[[gnu::format(printf, 1, 2)]] void emsg(const char *format, ...);
[[gnu::format(printf, 1, 2)]] void imsg(const char *format, ...);
[[gnu::format(printf, 1, 2)]] void dmsg(const char *format, ...);
/// emsg with ", " and the text of the cause behind the message, when there is a cause; the whole is
/// cut at 999 characters. Every failure of a system call is logged through it.
[[gnu::format(printf, 2, 3)]] void emsg_cause(const Cause &cause, const char *format, ...);
/// Logs an error in a product's file, and no remark: the program's own sink for faults.
void log_fault(const Fault &fault);

} // namespace installer
