#pragma once

// What the tests share: fresh directories, whole files as text, stores of settings, and runs of the
// real program through a pipe or a pseudo-terminal.

#include "installer/ini.h"

#include <filesystem>
#include <functional>
#include <initializer_list>
#include <iosfwd>
#include <map>
#include <string>
#include <vector>

namespace installer::test {

namespace fs = std::filesystem;

/// A fresh directory, entered at once; left and removed with all it holds at the end.
class TempDir {
public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;

  /// The absolute path, without links; with `name`, that of an entry in it.
  [[nodiscard]] std::string path(const std::string &name = {}) const;

private:
  fs::path path_, back_;
};

/// Writes the whole file, and creates the directories it lies in.
void write_file(const std::string &path, const std::string &text);
/// The whole file; the empty text when it cannot be opened.
[[nodiscard]] std::string read_file(const std::string &path);
/// The lines of a log from their level on. What stands before it stays when it is not as it should.
[[nodiscard]] std::string read_log(const std::string &path);

/// The errors logged since the last time: they wait while no log is current.
std::string take_errors();

/// What lies below a directory: relative paths, those of directories end with "/", and the contents
/// of the files ("-> target" for links).
using Tree = std::map<std::string, std::string>;
[[nodiscard]] Tree read_tree(const std::string &path);

/// The files that a manual page shows: each in a display behind a comment with its name.
[[nodiscard]] Tree read_page(const std::string &name);

/// Writes a product into the working directory, to be installed in "out" there, with the program
/// under its name: the demo ("noticeboard"), that of installer-new ("hello"), that of the manual
/// pages ("notes").
void write_demo();
void write_hello();
void write_notes();
/// The same for a pattern of installer-patterns(7), as the page has it; the program is "notes".
void write_pattern(const std::string &name);
/// Lets its directory be `place` + "target", and that of its state `place` + "state".
void move_pattern(const std::string &place);

/// A store with settings from "name=value" or "name"; "host" is fixed, "action" not replaceable.
using Store = std::unique_ptr<ini, Release<ini_free>>;
[[nodiscard]] Store make_store(const std::vector<std::string> &settings);

/// How the program is connected. `Pipe`: all input is there from the start. `Pty`: a terminal with
/// echo, whose operator types a line when a prompt waits for one, and an end of file after the
/// last.
enum class Via { Pipe, Pty };
/// Its name in the list of tests.
void PrintTo(Via via, std::ostream *out);

/// `name`: the program's argv[0]; `prepare`: called in its process, last thing before it starts;
/// `program`: another program than the one for products; `signal`: what it must end by.
struct Start {
  std::string name = "./pkg";
  void (*prepare)() = nullptr;
  const char *program = INSTALLER_PROGRAM;
  int signal = 0;
};

/// `console`: everything on standard output and standard error; `status`: as waitpid gives it;
/// `unread`: bytes of input that the program never took (through a pipe).
struct Outcome {
  std::string console;
  int status = -1, unread = 0;
};

/// Runs the program to its end. One that hangs is killed, which fails the test.
Outcome run(const std::vector<std::string> &arguments, const std::string &input = {},
            Via via = Via::Pipe, const Start &start = {});

/// Runs the product "installer" unattended, or the command, under strace with a fault, on calls
/// that have to do with `path` if given; the status. The console and the calls are in the files
/// "console" and "trace".
int run_injected(const std::string &inject, const std::string &path = {},
                 const std::string &command = INSTALLER_PROGRAM " -automate");
/// Runs a line of the shell in a mount name space of its own, and as its root; the status.
int run_isolated(const std::string &line);
/// True where this process, after `become` if given, may make what a view of the machine is made
/// of: name spaces, with those of a user where root's are refused, and an overlay in them.
bool can_have_view(void (*become)() = nullptr);
/// True where strace may trace.
bool can_trace();
/// What a bare root directory lacks: /proc, and pseudo-terminals.
bool has_proc();
bool has_terminals();
/// True where a process may have mounts of its own.
bool can_mount();
/// Moves into a mount name space of its own and mounts file over file there.
bool mount_over(const std::map<std::string, std::string> &files);
/// The name of the user; empty when there is none.
std::string user_name();
/// `usual`, times the environment variable INSTALLER_THOROUGH where it is a number above 1: how
/// often a test tries what it picks at random.
int times(int usual);
/// From now on these calls of the system fail so in this process and its children.
void refuse(std::initializer_list<unsigned> calls, unsigned error);
/// Runs the program to its end, without its console, and calls `act` with its process before its
/// system call number `call`. The status.
int run_traced(int call, const std::function<void(int)> &act,
               const std::vector<std::string> &arguments, const Start &start = {});
/// The same. False: it ended earlier.
bool run_and_stop(int call, const std::function<void(int)> &act,
                  const std::vector<std::string> &arguments = {"-automate"},
                  const Start &start = {.name = "./installer"});
/// Runs the program and kills it before its system call number `last`. False: it ended earlier.
bool run_and_kill(int last, const std::vector<std::string> &arguments = {"-automate"},
                  const Start &start = {.name = "./installer"});

} // namespace installer::test
