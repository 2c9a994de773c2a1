#include "preview/process.h"

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

namespace installer {

namespace {

/// A command that was told to end gets this long.
constexpr unsigned Patience = 5;
constexpr int CannotRun = 126;
constexpr int NotFound = 127;
constexpr int Refused125 = 125;
constexpr int SignalBase = 128;
constexpr int Forwarded[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

/// What root keeps in the view: everything that changes files and owners. Without the rest it can
/// neither undo the view (mounts), nor reach the machine behind it (network settings, modules,
/// memory, clock, processes).
constexpr int KeptRights[] = {
    CAP_CHOWN,           CAP_DAC_OVERRIDE, CAP_FOWNER,     CAP_FSETID,       CAP_KILL,
    CAP_SETGID,          CAP_SETUID,       CAP_SETPCAP,    CAP_MKNOD,        CAP_SYS_CHROOT,
    CAP_LEASE,           CAP_SETFCAP,      CAP_SYS_NICE,   CAP_SYS_RESOURCE, CAP_NET_BIND_SERVICE,
    CAP_LINUX_IMMUTABLE, CAP_IPC_OWNER,    CAP_AUDIT_WRITE};

/// Everything that a run consists of. `go`: ends with the preview, until it has let the first
/// process begin; `ready`: tells it that the command is in the view.
struct Run {
  const View &view;
  const std::vector<std::string> &arguments;
  const std::string &folder;
  const Streams &streams;
  ::sigset_t mask{};
  std::array<int, 2> go{-1, -1}, ready{-1, -1};
};

int complain(const std::string &text) {
  std::fprintf(stderr, "installer-preview: %s: %s\n", escape_controls(text).c_str(),
               std::strerror(errno));
  return Refused125;
}

// ---- Signals ----

/// Where signals go on to; a process has one.
::pid_t signal_target = 0;

/// The terminal sends to the whole group: the command has that signal already.
void forward(int number, ::siginfo_t *info, void * /*context*/) {
  const KeepErrno keep;
  if (info->si_code > 0) return;
  ::kill(signal_target, number);
  ::alarm(Patience);
}

void lose_patience(int /*number*/) { ::kill(signal_target, SIGKILL); }

::sigset_t forwarded_set() {
  ::sigset_t set;
  ::sigemptyset(&set);
  for (const int number : Forwarded) ::sigaddset(&set, number);
  return set;
}

/// Ignored ones stay ignored, as nohup(1) and background jobs want them.
void forward_signals(::pid_t target) {
  signal_target = target;
  std::signal(SIGALRM, lose_patience);
  struct ::sigaction handler = {}, old = {};
  handler.sa_sigaction = forward;
  handler.sa_flags = SA_SIGINFO | SA_RESTART;
  for (const int number : Forwarded)
    if (::sigaction(number, nullptr, &old) == 0 && old.sa_handler != SIG_IGN)
      ::sigaction(number, &handler, nullptr);
}

void restore_signals() {
  ::alarm(0);
  struct ::sigaction old = {};
  for (const int number : Forwarded)
    if (::sigaction(number, nullptr, &old) == 0 && old.sa_handler != SIG_IGN)
      std::signal(number, SIG_DFL);
  std::signal(SIGALRM, SIG_DFL);
}

/// The exit status for one of waitpid.
int exit_status(int status) {
  return WIFSIGNALED(status) ? SignalBase + WTERMSIG(status) : WEXITSTATUS(status);
}

/// Waits for `pid`; reaps whatever else ends meanwhile when `all`.
int wait_for(::pid_t pid, bool all) {
  int status = 0;
  while (true) {
    const ::pid_t ended = ::waitpid(all ? -1 : pid, &status, 0);
    if (ended == pid) return exit_status(status);
    if (ended < 0 && errno != EINTR) return Refused125;
  }
}

// ---- The first process ----

/// Root never sees the machine's processes: the root directories of theirs lead out of the view. To
/// a user the kernel refuses those, but it may refuse the new file system as well.
bool mount_processes(const View &view, const std::string &point) {
  const std::string place = "." + point;
  constexpr unsigned long flags = MS_NOSUID | MS_NODEV | MS_NOEXEC | MS_RDONLY;
  if (::mount("proc", place.c_str(), "proc", flags, nullptr) == 0) return true;
  if (!view.user) return false;
  const Descriptor tree{
      ::open_tree(AT_FDCWD, point.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE)};
  return tree &&
         ::move_mount(tree.get(), "", AT_FDCWD, place.c_str(), MOVE_MOUNT_F_EMPTY_PATH) == 0;
}

bool enter_folder(const std::string &folder) {
  const Descriptor directory = tree_open(AT_FDCWD, folder, O_PATH | O_DIRECTORY);
  return directory && ::fchdir(directory.get()) == 0;
}

/// The working directory is the root of the view. The old root directory is then mounted on it, and
/// the view's private place on that: both go, with all that hangs on them.
int enter_view(const Run &run) {
  for (const std::string &point : run.view.processes)
    if (!mount_processes(run.view, point))
      return complain(point + " cannot be mounted in the view");
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

/// Puts the streams in their places. All of them are copied aside first: a place may hold another
/// one.
bool take_streams(const Streams &streams) {
  constexpr int aside = 3;
  std::array<int, 3> copies{};
  for (std::size_t i = 0; i < copies.size(); ++i)
    copies[i] = streams.command[i] < 0 ? -1 : ::fcntl(streams.command[i], F_DUPFD, aside);
  for (std::size_t i = 0; i < copies.size(); ++i) {
    const int fd = static_cast<int>(i);
    if (copies[i] < 0) ::close(fd);
    else if (::dup2(copies[i], fd) < 0) return false;
  }
  return ::syscall(SYS_close_range, aside, ~0U, 0) == 0;
}

[[noreturn]] void become_command(const Run &run) {
  if (!drop_rights() || !take_streams(run.streams)) ::_exit(complain("the command's rights"));
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

/// The first process of the name space: enters the view, starts the command, and ends with it,
/// which ends all others. Nobody may look into it, for it has what the command must not have.
[[noreturn]] void be_first(const Run &run) {
  char byte = 0;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
  ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
  ::close(run.go[1]);
  if (::read(run.go[0], &byte, 1) != 1) ::_exit(Refused125); // the preview has ended already
  const int refused = enter_view(run);
  if (refused != 0) ::_exit(refused);
  static_cast<void>(!::write(run.ready[1], &byte, 1));
  const ::pid_t command = ::fork();
  if (command < 0) ::_exit(complain("fork"));
  if (command == 0) become_command(run);
  ::syscall(SYS_close_range, 3, ~0U, 0);
  forward_signals(command);
  ::sigprocmask(SIG_SETMASK, &run.mask, nullptr);
  ::_exit(wait_for(command, true));
}

::pid_t start_first() {
  struct ::clone_args arguments = {};
  arguments.flags = CLONE_NEWNS | CLONE_NEWPID;
  arguments.exit_signal = SIGCHLD;
  return static_cast<::pid_t>(::syscall(SYS_clone3, &arguments, sizeof arguments));
}

// ---- The terminal ----

/// A command that took the terminal for a group of its own may not have given it back.
class KeepTerminal {
public:
  KeepTerminal() : mine_(::tcgetpgrp(STDERR_FILENO) == ::getpgrp()) {}
  KeepTerminal(const KeepTerminal &) = delete;
  KeepTerminal &operator=(const KeepTerminal &) = delete;
  ~KeepTerminal() {
    if (!mine_) return;
    auto *const old = std::signal(SIGTTOU, SIG_IGN);
    ::tcsetpgrp(STDERR_FILENO, ::getpgrp());
    std::signal(SIGTTOU, old);
  }

private:
  bool mine_;
};

} // namespace

RunResult process_run(const View &view, const std::vector<std::string> &arguments,
                      const std::string &folder, const Streams &streams) {
  const KeepTerminal terminal;
  Run run{view, arguments, folder, streams};
  if (::pipe2(run.go.data(), O_CLOEXEC) != 0 || ::pipe2(run.ready.data(), O_CLOEXEC) != 0)
    return {false, complain("pipe")};
  const ::sigset_t blocked = forwarded_set();
  ::sigprocmask(SIG_BLOCK, &blocked, &run.mask);
  const ::pid_t first = start_first();
  if (first == 0) be_first(run);
  const int cause = errno;
  for (const int fd : {run.go[0], run.ready[1]}) ::close(fd);
  Descriptor go{run.go[1]}, ready{run.ready[0]};
  RunResult result;
  errno = cause;
  if (first < 0) {
    complain("no process name space");
  } else {
    char byte = 0;
    forward_signals(first);
    static_cast<void>(!::write(go.get(), &byte, 1));
    ::sigprocmask(SIG_SETMASK, &run.mask, nullptr);
    result.status = wait_for(first, false);
    result.started = ::read(ready.get(), &byte, 1) == 1;
    restore_signals();
  }
  ::sigprocmask(SIG_SETMASK, &run.mask, nullptr);
  return result;
}

} // namespace installer
