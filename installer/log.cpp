#include "installer/log.h"

#include "installer/array.h"
#include "installer/links.h"
#include "installer/signals.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <ctime>
#include <limits>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace installer {

namespace {

constexpr const char *LevelNames[] = {"None", "Error", "Info", "Debug"};
constexpr ::mode_t LogPermissions = 0600;
/// A log that is larger counts as one of this size.
constexpr std::uint32_t MostBytes = std::numeric_limits<std::uint32_t>::max();

Log CurrentLog = nullptr;
Array<std::string> EmsgLog = nullptr;

/// For signal handlers: the file of the current log, -1 when it is closed, and the seconds by which
/// the local time was last ahead.
std::atomic<int> CurrentFile = -1;
std::atomic<long> LocalOffset = 0;

/// Only the current log counts, and one that was freed as such is not looked at.
void note_file(Log x) {
  if (x == CurrentLog) CurrentFile = x != nullptr && x->F ? ::fileno(x->F.get()) : -1;
}

std::uint32_t file_size(const char *file) {
  struct ::stat info = {};
  if (::stat(file, &info) != 0) return 0;
  return static_cast<std::uint32_t>(std::min<::off_t>(info.st_size, MostBytes));
}

/// True for a file that nobody else can have put there to be written to, or to be read: a regular
/// file with no second name, of the effective user or root, that only its owner can open. One that
/// others could open is taken from them; where the file system has no modes it must do as it is,
/// unless others can write to it.
bool make_private(int fd) {
  constexpr ::mode_t all = 07777;
  constexpr ::mode_t others_write = S_IWGRP | S_IWOTH;
  struct ::stat info = {};
  if (::fstat(fd, &info) != 0) return false;
  if (!S_ISREG(info.st_mode)) return true; // the null device
  errno = EPERM;
  if (info.st_nlink != 1 || (info.st_uid != ::geteuid() && info.st_uid != 0)) return false;
  return (info.st_mode & all) == LogPermissions || ::fchmod(fd, LogPermissions) == 0 ||
         (info.st_mode & others_write) == 0;
}

Descriptor open_private(const char *file) {
  Cause cause;
  Descriptor fd =
      open_trusted(file, O_WRONLY | O_CREAT | O_APPEND, Allow::Plain, LogPermissions, cause);
  if (!fd) errno = cause.number;
  return fd && make_private(fd.get()) ? std::move(fd) : Descriptor{};
}

constexpr struct ::flock WholeFile = {F_WRLCK, SEEK_SET, 0, 0, 0};

/// Locks the file in two ways: flock decides who has it, and the other kind of lock, which may get
/// lost, tells others the process.
bool lock_file(int fd) {
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) return false;
  struct ::flock whole = WholeFile;
  ::fcntl(fd, F_SETLK, &whole);
  return true;
}

/// The process that has locked the file, or 0.
::pid_t lock_holder(int fd) {
  struct ::flock lock = WholeFile;
  return ::fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK ? lock.l_pid : 0;
}

std::string lock_name(Log x) { return std::string{x->File} + ".lock"; }

/// True while the file at its path is the one that was locked: another process that had it may have
/// removed it in between.
bool lock_holds(Log x) {
  struct ::stat locked = {};
  struct ::stat there = {};
  return ::fstat(x->Lock.get(), &locked) == 0 && ::stat(lock_name(x).c_str(), &there) == 0 &&
         same_inode(locked, there);
}

/// Removes the lock's file, and never one that is another's or that somebody has written to.
void remove_lock(Log x) {
  const Spot spot = find_place(AT_FDCWD, lock_name(x).c_str());
  struct ::stat locked = {};
  struct ::stat there = {};
  if (spot.cause || ::fstat(x->Lock.get(), &locked) != 0 || locked.st_size != 0) return;
  if (::fstatat(spot.at(), spot.name.c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0 &&
      same_inode(locked, there))
    ::unlinkat(spot.at(), spot.name.c_str(), 0);
}

/// The first 20 characters of the asctime form of the local time. Rendered once a second: the
/// conversion costs more than the rest of a line.
const char *time_text() {
  static std::time_t rendered = -1;
  static char text[21] = "";
  const std::time_t now = std::time(nullptr);
  if (now == rendered) return text;
  struct ::tm local = {};
  if (::localtime_r(&now, &local) == nullptr) return text;
  std::strftime(text, sizeof text, "%a %b %e %H:%M:%S ", &local);
  rendered = now;
  LocalOffset = local.tm_gmtoff;
  return text;
}

/// The same time for a signal handler, which must not ask the C library for it.
void add_time(HandlerText &text) {
  constexpr const char *days[] = {"Sun ", "Mon ", "Tue ", "Wed ", "Thu ", "Fri ", "Sat "};
  constexpr const char *months[] = {"Jan ", "Feb ", "Mar ", "Apr ", "May ", "Jun ",
                                    "Jul ", "Aug ", "Sep ", "Oct ", "Nov ", "Dec "};
  const std::chrono::sys_seconds now{std::chrono::seconds{std::time(nullptr) + LocalOffset}};
  const auto day = std::chrono::floor<std::chrono::days>(now);
  const std::chrono::year_month_day date{day};
  const auto second = static_cast<std::uint64_t>((now - day).count());
  text.add(days[std::chrono::weekday{day}.c_encoding()]);
  text.add(months[static_cast<unsigned>(date.month()) - 1]);
  text.add(static_cast<unsigned>(date.day()), 2, ' ').add(" ").add(second / 3600, 2);
  text.add(":").add(second / 60 % 60, 2).add(":").add(second % 60, 2);
}

/// Only a regular file is moved away, and no name is ever used cut.
bool can_rotate(Log x) {
  constexpr std::size_t longest_suffix = 32;
  struct ::stat info = {};
  return std::strlen(x->File) + longest_suffix < LineSize && ::stat(x->File, &info) == 0 &&
         S_ISREG(info.st_mode);
}

void backup_name(Log x, int number, char (&name)[LineSize - 1]) {
  lprintf(name, sizeof name, "%s%d", x->File, number);
}

void shift_backups(Log x, const char *newest) {
  char old_name[LineSize - 1];
  char new_name[LineSize - 1];
  backup_name(x, x->Rotations, new_name);
  for (int number = x->Rotations - 1; number >= 0; --number) {
    backup_name(x, number, old_name);
    std::remove(new_name);
    std::rename(old_name, new_name);
    scpy(new_name, old_name, sizeof new_name);
  }
  std::rename(newest, new_name);
}

void flush_line(Log x) {
  if (x->DoFlush == 0 || x->Lines % x->DoFlush != 0) return;
  if (std::fflush(x->F.get()) == 0) return;
  x->Size = file_size(x->File); // not all of it was written
  x->Lost = true;
}

void queue_error(const char *text) {
  // A queue that cannot grow reports so, which would be queued again.
  static bool queueing = false;
  if (queueing) return;
  queueing = true;
  if (EmsgLog == nullptr) EmsgLog = array_init<std::string>();
  auto copy = std::make_unique<std::string>(text);
  if (array_add(EmsgLog, copy.get()) != 0) static_cast<void>(copy.release());
  queueing = false;
}

/// True when the current log takes messages of level `l`; errors it takes unless it is silent.
bool takes(LogLevel l) { return CurrentLog != nullptr && CurrentLog->Level >= l; }

void log_error(const Message &message) {
  if (takes(LogError)) log_line(CurrentLog, message.text, LogError);
  else queue_error(message.text);
}

} // namespace

Log log_init(LogLevel l) {
  auto *x = new log;
  x->Level = l;
  return x;
}

int log_open(Log x, const char *file) {
  log_close(x);
  x->Size = file_size(file);
  Descriptor fd = open_private(file);
  if (fd) x->F.reset(::fdopen(fd.get(), "a"));
  if (!x->F) return 0;
  fd.release();
  if (std::strcmp(x->File, file) != 0) x->Held = 0;
  scpy(x->File, file, sizeof x->File);
  if (CurrentLog == nullptr) {
    CurrentLog = x;
    check_emsglog();
  }
  note_file(x);
  return 1;
}

void log_close(Log x) {
  if (x == nullptr || !x->F) return;
  Stream closed = std::move(x->F);
  note_file(x); // before another file may get the number
  if (!finish(std::move(closed))) x->Lost = true;
}

void log_free(Log *x) {
  if (x == nullptr) return;
  Log freed = *x;
  if (freed != nullptr && freed->Lock) remove_lock(freed);
  drop(&freed);
}

void log_set(Log x) {
  CurrentLog = x;
  note_file(x);
}

void log_set_level(Log x, LogLevel l) { x->Level = l; }

void log_doflush(Log x, int doflush) {
  if (x != nullptr) x->DoFlush = doflush;
}

Cause log_lock(Log x, ::pid_t &holder) {
  holder = 0;
  while (true) {
    x->Lock = open_private(lock_name(x).c_str());
    if (!x->Lock) return last_cause();
    if (!lock_file(x->Lock.get())) break;
    if (lock_holds(x)) return {};
  }
  const Cause cause = last_cause();
  holder = lock_holder(x->Lock.get());
  x->Lock = Descriptor{};
  return cause;
}

void log_line(Log x, const char *line, LogLevel l) {
  const KeepErrno keep;
  if (x == nullptr || x->Level < l) return;
  if (!x->F && (*x->File == '\0' || log_open(x, x->File) == 0)) {
    x->Lost = *x->File != '\0';
    return;
  }
  const int written = std::fprintf(x->F.get(), "%.20s [%d] %s: %s\n", time_text(),
                                   static_cast<int>(::getpid()), LevelNames[l], line);
  if (written < 0) x->Lost = true;
  x->Size += std::min(static_cast<std::uint32_t>(std::max(written, 0)), MostBytes - x->Size);
  if (x->Size >= x->Rotate && x->Size - x->Held >= x->Rotate) log_rotate(x);
  else flush_line(x);
  ++x->Lines;
}

void log_last_line(std::string_view line) {
  const int file = CurrentFile;
  if (file < 0) return;
  HandlerText text;
  add_time(text);
  text.add("  [").add(static_cast<std::uint64_t>(::getpid())).add("] Info: ").add(line).add("\n");
  static_cast<void>(!::write(file, text.view().data(), text.view().size()));
}

int log_rotate(Log x) {
  const HeldSignals held; // there is always a log for what a handler has to say
  char temporary[LineSize];
  // Two numbers that differ from those of an earlier run that was killed half-way.
  lprintf(temporary, sizeof temporary, "%s.%05d%05d", x->File, static_cast<int>(::getpid()),
          static_cast<int>(std::time(nullptr) % 100000));
  const bool movable = can_rotate(x);
  log_close(x);
  const bool moved = movable && std::rename(x->File, temporary) == 0;
  log_open(x, x->File);
  x->Held = moved ? 0 : x->Size;
  if (moved) shift_backups(x, temporary);
  return x->F ? 1 : 0;
}

void check_emsglog() {
  if (EmsgLog == nullptr || CurrentLog == nullptr) return;
  // Taken off first, so that an error while writing starts a new queue.
  Array<std::string> queue = EmsgLog;
  EmsgLog = nullptr;
  for (auto *text = array_get_num(queue, 0); text != nullptr; text = array_get(queue))
    log_line(CurrentLog, text->c_str(), LogError);
  array_free_dealloc(&queue);
}

void emsg(const char *format, ...) {
  if (format == nullptr) return;
  const KeepErrno keep;
  std::va_list arg;
  va_start(arg, format);
  log_error(make_message(format, arg));
  va_end(arg);
}

void emsg_cause(const Cause &cause, const char *format, ...) {
  if (format == nullptr) return;
  const KeepErrno keep;
  std::va_list arg;
  va_start(arg, format);
  Message message = make_message(format, arg);
  va_end(arg);
  add_cause(message, cause);
  log_error(message);
}

void log_fault(const Fault &fault) {
  if (fault.severity == Severity::Error) emsg("%s", fault.text.c_str());
}

void imsg(const char *format, ...) {
  if (format == nullptr || !takes(LogInfo)) return;
  const KeepErrno keep;
  std::va_list arg;
  va_start(arg, format);
  log_line(CurrentLog, make_message(format, arg).text, LogInfo);
  va_end(arg);
}

void dmsg(const char *format, ...) {
  if (format == nullptr || !takes(LogDebug)) return;
  const KeepErrno keep;
  std::va_list arg;
  va_start(arg, format);
  log_line(CurrentLog, make_message(format, arg).text, LogDebug);
  va_end(arg);
}

} // namespace installer
