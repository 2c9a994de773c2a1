#include "preview/process.h"

#include "preview/filter.h"

#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <linux/capability.h>
#include <linux/sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace installer::preview {

namespace {

/// A command that was told to end gets this long.
constexpr unsigned Patience = 5;
constexpr int CannotRun = 126;
constexpr int NotFound = 127;
constexpr int Refused125 = 125;
constexpr int SignalBase = 128;
/// Where the first process tells what happens.
constexpr int Events = 3;
constexpr int Forwarded[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP};

/// What root keeps in the view: everything that changes files and owners. Without the rest it can
/// neither undo the view (mounts), nor reach the machine behind it (network settings, modules,
/// memory, clock, processes).
constexpr int KeptRights[] = {
    CAP_CHOWN,           CAP_DAC_OVERRIDE, CAP_FOWNER,     CAP_FSETID,       CAP_KILL,
    CAP_SETGID,          CAP_SETUID,       CAP_SETPCAP,    CAP_MKNOD,        CAP_SYS_CHROOT,
    CAP_LEASE,           CAP_SETFCAP,      CAP_SYS_NICE,   CAP_SYS_RESOURCE, CAP_NET_BIND_SERVICE,
    CAP_LINUX_IMMUTABLE, CAP_IPC_OWNER,    CAP_AUDIT_WRITE};

/// What the first process tells.
constexpr char Started = 's', Stopped = 'z', Wanting = 't';

/// Everything that a run consists of. `go`: ends with the preview, until it has let the first
/// process begin; `events`: tells it that the command is in the view, that it was stopped, and that
/// it was because it wants the terminal.
struct Command {
  const View &view;
  const std::vector<std::string> &arguments;
  const std::string &folder;
  Streams &streams;
  ::sigset_t mask{};
  std::array<int, 2> go{-1, -1}, events{-1, -1};
};

int complain(const std::string &text) {
  std::fprintf(stderr, "installer-preview: %s: %s\n", escape_controls(text).c_str(),
               std::strerror(errno));
  return Refused125;
}

// ---- Signals ----

/// Where signals go on to, as kill(2) takes it; a process has one.
::pid_t signal_target = 0;

/// What the terminal sends, it would have sent to the command itself; whoever sends to this process
/// wants its end.
void forward(int number, ::siginfo_t *info, void * /*context*/) {
  const KeepErrno keep;
  ::kill(signal_target, number);
  if (info->si_code <= 0 && number != SIGTSTP && signal_target > 0) ::alarm(Patience);
}

void lose_patience(int /*number*/) { ::kill(signal_target, SIGKILL); }

/// SIGTTOU: the first steps of a command are made in the background of its terminal.
::sigset_t blocked_set() {
  ::sigset_t set;
  ::sigemptyset(&set);
  ::sigaddset(&set, SIGTTOU);
  for (const int number : Forwarded) ::sigaddset(&set, number);
  return set;
}

void set_handler(int number) {
  struct ::sigaction handler = {};
  handler.sa_sigaction = forward;
  handler.sa_flags = SA_SIGINFO | SA_RESTART;
  ::sigaction(number, &handler, nullptr);
}

bool is_ignored(int number) {
  struct ::sigaction old = {};
  return ::sigaction(number, nullptr, &old) == 0 && old.sa_handler == SIG_IGN;
}

/// Ignored ones stay ignored, as nohup(1) and background jobs want them.
void forward_signals(::pid_t target) {
  signal_target = target;
  std::signal(SIGALRM, lose_patience);
  for (const int number : Forwarded)
    if (!is_ignored(number)) set_handler(number);
}

void restore_signals() {
  ::alarm(0);
  for (const int number : Forwarded)
    if (!is_ignored(number)) std::signal(number, SIG_DFL);
  std::signal(SIGALRM, SIG_DFL);
}

/// The exit status for one of waitpid.
int exit_status(int status) {
  return WIFSIGNALED(status) ? SignalBase + WTERMSIG(status) : WEXITSTATUS(status);
}

int wait_for(::pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) != pid)
    if (errno != EINTR) return Refused125;
  return exit_status(status);
}

// ---- The first process ----

/// Of the process name space, and of the one for IPC. Root never sees the machine's processes: the
/// root directories of theirs lead out of the view. To a user the kernel refuses those, but it may
/// refuse the new file system as well.
bool mount_fresh(const View &view, const Fresh &fresh) {
  const std::string place = "." + fresh.point;
  const bool processes = fresh.type == "proc";
  const unsigned long flags = MS_NOSUID | MS_NODEV | MS_NOEXEC | (processes ? MS_RDONLY : 0);
  if (::mount("none", place.c_str(), fresh.type.c_str(), flags, nullptr) == 0) return true;
  if (!view.user || !processes) return false;
  const Descriptor tree{::open_tree(AT_FDCWD, fresh.point.c_str(),
                                    OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE)};
  return tree &&
         ::move_mount(tree.get(), "", AT_FDCWD, place.c_str(), MOVE_MOUNT_F_EMPTY_PATH) == 0;
}

bool enter_folder(const std::string &folder) {
  const Descriptor directory = tree_open(AT_FDCWD, folder, O_PATH | O_DIRECTORY);
  return directory && ::fchdir(directory.get()) == 0;
}

/// The working directory is the root of the view. The old root directory is then mounted on it, and
/// the view's private place on that: both go, with all that hangs on them.
int enter_view(const Command &run) {
  for (const Fresh &fresh : run.view.fresh)
    if (!mount_fresh(run.view, fresh))
      return complain(fresh.point + " cannot be mounted in the view");
  if (::syscall(SYS_pivot_root, ".", ".") != 0 || ::umount2(".", MNT_DETACH) != 0 ||
      ::umount2(".", MNT_DETACH) != 0 || ::chdir("/") != 0)
    return complain("the view cannot take the place of the root directory");
  if (!enter_folder(run.folder)) return complain(run.folder);
  return 0;
}

bool is_kept(int right) {
  for (const int kept : KeptRights)
    if (kept == right) return true;
  return false;
}

bool drop_rights() {
  for (int right = 0; ::prctl(PR_CAPBSET_READ, right, 0, 0, 0) >= 0; ++right)
    if (!is_kept(right) && ::prctl(PR_CAPBSET_DROP, right, 0, 0, 0) != 0) return false;
  struct ::__user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<::__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> sets{};
  if (::syscall(SYS_capget, &header, sets.data()) != 0) return false;
  for (::__user_cap_data_struct &set : sets) set.inheritable = 0;
  return ::syscall(SYS_capset, &header, sets.data()) == 0;
}

/// Gives the view's terminal to the command's group.
void give_terminal(const Streams &streams, ::pid_t command) {
  for (std::size_t i = 0; i < streams.command.size(); ++i)
    if (streams.command[i] == TerminalStream) ::tcsetpgrp(static_cast<int>(i), command);
}

/// A group of its own, so that the terminal can stop it. Where others use the caller's terminal,
/// the command begins in the background, and is stopped when it wants its own.
void become_group(const Streams &streams) {
  ::setpgid(0, 0);
  if (streams.terminal.wanted) give_terminal(streams, ::getpid());
}

[[noreturn]] void become_command(const Command &run) {
  become_group(run.streams);
  ::close(Events);
  if (!filter_calls()) ::_exit(complain("the command's system calls cannot be restricted"));
  if (!drop_rights()) ::_exit(complain("the command's rights"));
  ::sigprocmask(SIG_SETMASK, &run.mask, nullptr);
  std::vector<std::string> words = run.arguments; // exec wants them writable
  std::vector<char *> argv;
  argv.reserve(words.size() + 1);
  for (std::string &word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  ::execvp(argv[0], argv.data());
  const int status = errno == ENOENT ? NotFound : CannotRun;
  complain(run.arguments.front());
  ::_exit(status);
}

void tell(char event) { static_cast<void>(!::write(Events, &event, 1)); }

/// Waits for the command, and reaps whatever else ends meanwhile.
int watch(const Streams &streams, ::pid_t command) {
  int status = 0;
  while (true) {
    const ::pid_t changed = ::waitpid(-1, &status, WUNTRACED);
    if (changed < 0 && errno != EINTR) return Refused125;
    if (changed != command) continue;
    if (!WIFSTOPPED(status)) return exit_status(status);
    const bool wants = WSTOPSIG(status) == SIGTTIN || WSTOPSIG(status) == SIGTTOU;
    if (wants) give_terminal(streams, command);
    tell(wants ? Wanting : Stopped);
  }
}

/// The first process of the name space: enters the view, starts the command, and ends with it,
/// which ends all others. Nobody may look into it, for it has what the command must not have.
[[noreturn]] void be_first(const Command &run) {
  char byte = 0;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
  ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
  ::close(run.go[1]);
  if (::read(run.go[0], &byte, 1) != 1) ::_exit(Refused125); // the preview has ended already
  const int refused = enter_view(run);
  if (refused != 0) ::_exit(refused);
  if (!streams_take(run.streams, run.events[1])) ::_exit(complain("the command's streams"));
  tell(Started);
  const ::pid_t command = ::fork();
  if (command < 0) ::_exit(complain("fork"));
  if (command == 0) become_command(run);
  ::setpgid(command, command);
  forward_signals(-command);
  set_handler(SIGCONT);
  std::signal(SIGTTOU, SIG_IGN); // it is in the background of the terminal that it gives
  ::sigprocmask(SIG_SETMASK, &run.mask, nullptr);
  ::_exit(watch(run.streams, command));
}

::pid_t start_first() {
  struct ::clone_args arguments = {};
  arguments.flags = CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWIPC;
  arguments.exit_signal = SIGCHLD;
  return static_cast<::pid_t>(::syscall(SYS_clone3, &arguments, sizeof arguments));
}

// ---- The preview ----

/// Stops with the command, which the terminal has stopped, until both are continued. Where a shell
/// does not look after this process, the command goes on at once.
void stop_too(Streams &streams) {
  terminal_release(streams.terminal);
  if (!is_ignored(SIGTSTP)) {
    std::signal(SIGTSTP, SIG_DFL);
    ::kill(0, SIGTSTP);
    set_handler(SIGTSTP);
  }
}

/// 0 when the first process has ended.
char next_event(int events) {
  char event = 0;
  while (::read(events, &event, 1) < 0 && errno == EINTR) {
  }
  return event;
}

/// Relays until the first process has ended. False: the command never was in the view.
bool accompany(Streams &streams, ::pid_t first, int events) {
  if (next_event(events) != Started) return false;
  while (true) {
    streams_relay(streams, events);
    const char event = next_event(events);
    if (event == 0) return true;
    if (event == Stopped) stop_too(streams);
    else streams.terminal.wanted = true;
    ::kill(first, SIGCONT);
  }
}

} // namespace

RunResult process_run(const View &view, const std::vector<std::string> &arguments,
                      const std::string &folder, Streams &streams) {
  Command run{view, arguments, folder, streams};
  if (::pipe2(run.go.data(), O_CLOEXEC) != 0 || ::pipe2(run.events.data(), O_CLOEXEC) != 0)
    return {false, complain("pipe")};
  const ::sigset_t blocked = blocked_set();
  ::sigprocmask(SIG_BLOCK, &blocked, &run.mask);
  const ::pid_t first = start_first();
  if (first == 0) be_first(run);
  const int cause = errno;
  for (const int fd : {run.go[0], run.events[1]}) ::close(fd);
  const Descriptor go{run.go[1]}, events{run.events[0]};
  RunResult result;
  errno = cause;
  if (first < 0) {
    complain("no process name space");
  } else {
    forward_signals(first);
    static_cast<void>(!::write(go.get(), "", 1));
    ::sigprocmask(SIG_SETMASK, &run.mask, nullptr);
    result.started = accompany(streams, first, events.get());
    result.status = wait_for(first);
    restore_signals();
    streams_drain(streams);
  }
  ::sigprocmask(SIG_SETMASK, &run.mask, nullptr);
  return result;
}

} // namespace installer::preview
