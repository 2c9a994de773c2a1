#include "tests/support.h"

#include "installer/log.h"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pty.h>
#include <pwd.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace installer::test {

namespace {

constexpr char EndOfFile = '\4';

void write_all(int fd, const std::string &text) {
  EXPECT_EQ(::write(fd, text.data(), text.size()), static_cast<::ssize_t>(text.size()));
}

/// What leads to the program and what comes from it; [0] is the end to read from, [1] to write to.
struct Connection {
  std::array<int, 2> to{}, from{};
};

/// The terminal does not control a session, whose end would discard what was not read yet.
Connection connect(Via via) {
  Connection c;
  const bool made = via == Via::Pty
                        ? ::openpty(&c.from[0], &c.from[1], nullptr, nullptr, nullptr) == 0
                        : ::pipe(c.to.data()) == 0 && ::pipe(c.from.data()) == 0;
  if (!made) std::abort();
  if (via == Via::Pty) c.to = {::dup(c.from[1]), ::dup(c.from[0])};
  for (int fd : {c.to[0], c.to[1], c.from[0], c.from[1]}) ::fcntl(fd, F_SETFD, FD_CLOEXEC);
  return c;
}

[[noreturn]] void execute(std::vector<std::string> arguments, const Start &start) {
  arguments.insert(arguments.begin(), start.name);
  std::vector<char *> argv;
  for (std::string &argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  if (start.prepare != nullptr) start.prepare();
  ::execv(start.program, argv.data());
  ::_exit(127);
}

[[noreturn]] void start_program(const Connection &c, const std::vector<std::string> &arguments,
                                const Start &start) {
  ::dup2(c.to[0], STDIN_FILENO);
  for (int fd : {STDOUT_FILENO, STDERR_FILENO}) ::dup2(c.from[1], fd);
  ::alarm(60); // outlives the exec
  execute(arguments, start);
}

/// In name spaces of this process's own.
bool mount_overlay() {
  constexpr int spaces = CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWIPC;
  const std::string user = std::to_string(::geteuid()), group = std::to_string(::getegid());
  std::string options = "lowerdir=a,upperdir=b,workdir=c";
  if (::unshare(spaces) != 0) {
    if (::unshare(spaces | CLONE_NEWUSER) != 0) return false;
    ::prctl(PR_SET_DUMPABLE, 1, 0, 0, 0); // a change of users leaves the maps to root
    write_file("/proc/self/setgroups", "deny");
    write_file("/proc/self/uid_map", user + " " + user + " 1");
    write_file("/proc/self/gid_map", group + " " + group + " 1");
    options += ",userxattr";
  }
  if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      ::mount("memory", "/tmp", "tmpfs", 0, nullptr) != 0 || ::chdir("/tmp") != 0)
    return false;
  for (const char *folder : {"a", "b", "c"}) ::mkdir(folder, 0700);
  return ::mount("overlay", "a", "overlay", 0, options.c_str()) == 0;
}

/// Types the next line, or the end of file. It takes two of these behind a line without an end: the
/// first one only delivers that line.
void type_line(int terminal, std::string &input) {
  const std::size_t end = input.find('\n');
  std::string line = input.substr(0, end == std::string::npos ? end : end + 1);
  input.erase(0, line.size());
  if (end == std::string::npos) line.append(line.empty() ? 1 : 2, EndOfFile);
  write_all(terminal, line);
}

} // namespace

TempDir::TempDir() : back_(fs::current_path()) {
  std::string name = (fs::canonical(fs::temp_directory_path()) / "installer-test.XXXXXX").string();
  if (::mkdtemp(name.data()) == nullptr) std::abort();
  fs::current_path(path_ = name);
}

TempDir::~TempDir() {
  std::error_code ignored;
  fs::current_path(back_, ignored);
  fs::remove_all(path_, ignored);
}

std::string TempDir::path(const std::string &name) const {
  return name.empty() ? path_.string() : (path_ / name).string();
}

void write_file(const std::string &path, const std::string &text) {
  if (fs::path{path}.has_parent_path()) fs::create_directories(fs::path{path}.parent_path());
  std::ofstream{path, std::ios::binary} << text;
}

std::string read_file(const std::string &path) {
  std::ostringstream text;
  text << std::ifstream{path, std::ios::binary}.rdbuf();
  return text.str();
}

std::string read_log(const std::string &path) {
  static const std::regex prefix{R"((^|\n)\w{3} \w{3} [ \d]\d \d\d:\d\d:\d\d  \[\d+\] )"};
  return std::regex_replace(read_file(path), prefix, "$1");
}

std::string take_errors() {
  const TempDir folder;
  Log log = log_init(LogError);
  EXPECT_EQ(log_open(log, "log"), 1);
  log_set(nullptr);
  log_free(&log);
  return read_log("log");
}

Tree read_tree(const std::string &path) {
  Tree tree;
  for (const fs::directory_entry &entry : fs::recursive_directory_iterator{path}) {
    const std::string name = entry.path().lexically_relative(path).string();
    if (entry.is_symlink()) tree[name] = "-> " + fs::read_symlink(entry.path()).string();
    else if (entry.is_directory()) tree[name + "/"] = "";
    else tree[name] = read_file(entry.path().string());
  }
  return tree;
}

Tree read_page(const std::string &name) {
  const std::regex display{R"re(\.\\" file (.*)\n.*\n([^]*?)\.Ed\n)re"}, backslash{R"(\\e)"};
  const std::string page = read_file(INSTALLER_SOURCE_DIR "/man/" + name);
  Tree files;
  for (std::sregex_iterator it{page.begin(), page.end(), display}, end; it != end; ++it)
    files[it->str(1)] = std::regex_replace(it->str(2), backslash, "\\");
  return files;
}

/// Puts settings in front of the others: the first of a name wins.
static void preset(const std::string &file, const std::string &settings) {
  write_file(file, "dir $(current_dir)/out\n" + settings + read_file(file));
}

/// Writes one of the examples, and the program under its name.
static void write_example(const std::string &folder, const std::string &name) {
  fs::copy(INSTALLER_SOURCE_DIR "/examples/" + folder, ".", fs::copy_options::recursive);
  preset(name + ".dat", "");
  fs::create_symlink(INSTALLER_PROGRAM, name);
}

void write_demo() { write_example("demo", "noticeboard"); }

void write_hello() { write_example("hello", "hello"); }

void write_notes() {
  for (const char *name : {"dat", "int", "q", "cpy"})
    for (const auto &[file, text] : read_page(std::string{"installer-"} + name + ".5"))
      write_file(file, text);
  for (const char *file : {"bin/notesd", "bin/x.old", "share/index.html", "share/drafts/x"})
    write_file(std::string{"files/"} + file, file);
  write_file("www/other", "");
  fs::create_symlink(INSTALLER_PROGRAM, "notes");
  const std::string user = user_name(), owner = user.empty() ? "root" : user;
  preset("notes.dat", "pages_dir $(current_dir)/www\npages true\nowner " + owner + "\n");
}

/// The text of a script, and those sections of another one that it does not have.
static std::string with_sections(std::string own, const std::string &other) {
  static const std::regex sections{R"((\[\w+\]\n)[^\[]*)"};
  for (std::sregex_iterator it{other.begin(), other.end(), sections}, end; it != end; ++it)
    if (own.find(it->str(1)) == own.npos) own += "\n" + it->str();
  return own;
}

void write_pattern(const std::string &name) {
  for (const std::string &product : {std::string{"base/"}, name + "/"})
    for (const auto &[path, text] : read_page("installer-patterns.7")) {
      if (!path.starts_with(product)) continue;
      const std::string file = path.substr(product.size());
      const bool script = file.ends_with(".q") || file.ends_with(".cpy");
      write_file(file, script ? with_sections(text, read_file(file)) : text);
    }
  for (const char *file : {"bin/notesd", "share/page.html", "share/lang/en.txt"})
    write_file(std::string{"files/"} + file, file);
  fs::create_symlink(INSTALLER_PROGRAM, "notes");
}

void move_pattern(const std::string &place) {
  const std::string here = "$(current_dir)/" + place;
  write_file("notes.dat", "dir " + here + "target\nstate " + here + "state\n" +
                              read_file("notes.dat")); // the first of a name wins
}

Store make_store(const std::vector<std::string> &settings) {
  std::vector<SettingList> list;
  for (const std::string &text : settings) {
    const std::string name = text.substr(0, text.find('='));
    list.push_back({name, {}, name == "action" ? Ini_None : Ini_Replace});
    if (name == "host") list.back().mode = Ini_Replace | Ini_Fixed;
    if (name != text) list.back().dflt = text.substr(name.size() + 1);
  }
  list.emplace_back();
  Store x{ini_init()};
  ini_setup(x.get(), list.data(), nullptr, 1);
  return x;
}

void PrintTo(Via via, std::ostream *out) {
  *out << (via == Via::Pty ? "OnATerminal" : "ThroughAPipe");
}

Outcome run(const std::vector<std::string> &arguments, const std::string &input, Via via,
            const Start &start) {
  const Connection c = connect(via);
  if (via == Via::Pipe) write_all(c.to[1], input), ::close(c.to[1]);
  const ::pid_t pid = ::fork();
  if (pid == 0) start_program(c, arguments, start);
  ::close(c.from[1]);
  if (via == Via::Pty) ::close(c.to[0]);

  Outcome outcome;
  std::string untyped = input;
  std::array<char, 4096> buffer{};
  for (::ssize_t got = 0; (got = ::read(c.from[0], buffer.data(), buffer.size())) > 0;) {
    outcome.console.append(buffer.data(), static_cast<std::size_t>(got));
    const std::string &seen = outcome.console;
    if (via == Via::Pty && (seen.ends_with("? ") || seen.ends_with("<Press enter to exit>")))
      type_line(c.to[1], untyped);
  }
  EXPECT_EQ(::waitpid(pid, &outcome.status, 0), pid);
  EXPECT_EQ(WTERMSIG(outcome.status), start.signal) << outcome.console;
  if (via == Via::Pipe) ::ioctl(c.to[0], FIONREAD, &outcome.unread);
  ::close(via == Via::Pipe ? c.to[0] : c.to[1]);
  ::close(c.from[0]);
  return outcome;
}

int run_injected(const std::string &inject, const std::string &path, const std::string &command) {
  ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1); // no leaks can be looked for under a tracer
  const std::string only = path.empty() ? "" : " -P " + path;
  return std::system(("timeout 60 strace -f -o trace" + only +
                      " -e trace=" + inject.substr(0, inject.find(':')) + " -e inject=" + inject +
                      " " + command + " >console 2>&1 </dev/null")
                         .c_str());
}

int run_isolated(const std::string &line) {
  const std::string how = ::geteuid() == 0 ? "-m" : "-Urm";
  return std::system(("unshare " + how + " --propagation private sh -c '" + line + "'").c_str());
}

bool can_have_view(void (*become)()) {
  const ::pid_t pid = ::fork();
  if (pid == 0) {
    if (become != nullptr) become();
    ::_exit(mount_overlay() ? 0 : 1);
  }
  int status = 1;
  return pid > 0 && ::waitpid(pid, &status, 0) == pid && status == 0;
}

bool can_trace() { return std::system("strace -o /dev/null true 2>/dev/null") == 0; }

bool has_proc() { return fs::exists("/proc/self/fd"); }

bool has_terminals() {
  int first = -1;
  int second = -1;
  if (::openpty(&first, &second, nullptr, nullptr, nullptr) != 0) return false;
  ::close(first), ::close(second);
  return true;
}

bool mount_over(const std::map<std::string, std::string> &files) {
  bool mounted = ::unshare(CLONE_NEWNS) == 0 &&
                 ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
  for (const auto &[file, over] : files)
    mounted = mounted && ::mount(file.c_str(), over.c_str(), nullptr, MS_BIND, nullptr) == 0;
  return mounted;
}

bool can_mount() {
  const ::pid_t pid = ::fork();
  if (pid == 0) ::_exit(mount_over({}) ? 0 : 1);
  int status = -1;
  return ::waitpid(pid, &status, 0) == pid && status == 0;
}

std::string user_name() {
  const struct ::passwd *const user = ::getpwuid(::geteuid());
  return user != nullptr ? user->pw_name : "";
}

void refuse(std::initializer_list<unsigned> calls, unsigned error) {
  std::vector<struct ::sock_filter> program;
  program.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct ::seccomp_data, nr)));
  for (const unsigned call : calls) {
    program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1));
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error));
  }
  program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  const struct ::sock_fprog filter = {static_cast<unsigned short>(program.size()), program.data()};
  ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter);
}

int run_traced(int call, const std::function<void(int)> &act,
               const std::vector<std::string> &arguments, const Start &start) {
  const ::pid_t pid = ::fork();
  if (pid == 0) {
    if (std::freopen("/dev/null", "w", stdout) == nullptr) ::_exit(1);
    ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1); // as in run_injected
    execute(arguments, start);
  }
  int status = 0;
  for (int stops = 0; ::waitpid(pid, &status, 0) == pid && WIFSTOPPED(status); ++stops) {
    const int received = WSTOPSIG(status) == SIGTRAP ? 0 : WSTOPSIG(status);
    if (stops == 2 * call) act(pid); // two for each call
    ::ptrace(PTRACE_SYSCALL, pid, nullptr, received);
  }
  return status;
}

bool run_and_stop(int call, const std::function<void(int)> &act,
                  const std::vector<std::string> &arguments, const Start &start) {
  bool reached = false;
  run_traced(
      call, [&](int pid) { reached = true, act(pid); }, arguments, start);
  return reached;
}

bool run_and_kill(int last, const std::vector<std::string> &arguments, const Start &start) {
  return run_and_stop(
      last, [](int pid) { ::kill(pid, SIGKILL); }, arguments, start);
}

int times(int usual) {
  const char *const factor = std::getenv("INSTALLER_THOROUGH");
  return usual * std::max(1, factor != nullptr ? std::atoi(factor) : 1); // NOLINT(cert-err34-c)
}

} // namespace installer::test
