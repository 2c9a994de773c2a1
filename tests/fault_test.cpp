// Runs of the real program while the system fails it: single system calls that fail, death at any
// moment, limits. Whatever happens the run ends by itself, tells of what it could not do, and can
// be run again.

#include "installer/file.h"
#include "tests/support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

/// As in a C library before 2.32, which could not do it without following links.
extern "C" int fchmodat(int dir, const char *name, ::mode_t mode, int flags) noexcept {
  if (flags == 0) return static_cast<int>(::syscall(SYS_fchmodat, dir, name, mode));
  errno = ENOTSUP;
  return -1;
}

#ifndef __has_feature // gcc says it with a macro
#define __has_feature(feature) 0
#endif

namespace installer::test {

/// A line of the script; none for a user without a name.
static std::string change_owner() {
  return user_name().empty() ? "" : "Chown $(to)/* - " + user_name() + "\n";
}

/// A product that uses every command which touches files, in the current directory.
static void write_product() {
  write_file("installer.dat", "to $(current_dir)/out\nport 80\n");
  write_file("installer.int", "WFile stamp port - -\nRFile stamp seen - -\n");
  write_file("installer.q", "[install]\nText port - - h Port?\n");
  write_file("blurb.txt", "Installed in $(to)\n");
  write_file("installer.cpy",
             "[install]\nMkDir $(to)/a/b\nCopyDir src/* - $(to)\nRmDir $(to)/old -\n"
             "CopyFile src/one - $(to)/a\nRename $(to)/a/one $(to)/a/first\n"
             "Ini src/t.ini $(to)/pkg.ini\nWFile $(to)/port port\nRFile $(to)/port got\n"
             "Chmod $(to)/* - 750\n" +
                 change_owner() +
                 "MkDir $(to)/gone\n"
                 "WFile $(to)/gone/x port\nRmFile $(to)/gone/x -\nRmDir $(to)/gone -\n"
                 "Exist $(to)/pkg.ini have\nError have The settings file is missing\n");
  write_file("src/t.ini", "[main]\n  Port=$(port)\n");
  write_file("src/one", "1");
  write_file("src/old/stale", "x");
  write_file("src/deep/er/two", std::string(20000, '2'));
}

static Outcome install(void (*prepare)() = nullptr) {
  return run({"-automate"}, {}, Via::Pipe, {.name = "./installer", .prepare = prepare});
}

static Tree expected_tree() {
  const TempDir scratch;
  write_product();
  install();
  return read_tree("out");
}

/// The console or the log says that something failed.
static bool told(const std::string &console) {
  const std::string all = "\n" + console + "\n" + read_log("installer.log");
  return all.find("\nError: ") != all.npos || all.find("\nFailed, ") != all.npos;
}

TEST(Fault, EverySystemCallFailingOrKilledOnce) {
  if (!can_trace()) GTEST_SKIP() << "strace may not trace here";
  const Tree complete = expected_tree();
  // Each with the step from one call that is hit to the next; nearly every line of the log is a
  // write, so that kills there fall everywhere.
  for (const std::string row :
       {"9 write:error=ENOSPC", "2 read:error=EIO", "2 openat:error=EMFILE",
        "1 renameat:error=EACCES", "1 mkdirat:error=ENOSPC", "1 unlinkat:error=EBUSY",
        "1 fchownat:error=EPERM", "2 close:error=EIO", "1 getdents64:error=EIO",
        "5 write:signal=KILL", "2 openat:signal=KILL", "1 renameat:signal=KILL",
        "1 mkdirat:signal=KILL", "1 unlinkat:signal=KILL"}) {
    if (row.find("fchownat") != row.npos && user_name().empty()) continue;
    const bool kill = row.ends_with("KILL");
    int runs = 0;
    for (int when = 1;; when += row[0] - '0', ++runs) {
      const TempDir scratch;
      write_product();
      const std::string at = row.substr(2) + ":when=" + std::to_string(when);
      const int status = run_injected(at);
      if (read_file("trace").find(kill ? "killed by SIGKILL" : "(INJECTED)") == at.npos) break;
      const std::string console = read_file("console");
      if (WEXITSTATUS(status) == 127 || console.find("LeakSanitizer has enc") != console.npos)
        continue; // It hit what starts the program, not the program.
      ASSERT_TRUE(kill || status == 0) << at << "\n" << console;
      EXPECT_TRUE(kill || told(console) || read_tree("out") == complete) << at << "\n" << console;
      install();
      EXPECT_EQ(read_tree("out"), complete) << "run again after " << at;
    }
    EXPECT_GT(runs, 0) << row;
  }
}

enum Action { Install, Upgrade, Remove };
struct Product {
  std::string title, name; // `name`: the program's
  void (*write)();
};

/// What an action left, with the modes; of a removal only the files.
static Tree result(Action action) {
  Tree tree = fs::exists("out") ? read_tree("out") : Tree{};
  for (auto &[name, text] : tree)
    text += " " + std::to_string(static_cast<unsigned>(fs::status("out/" + name).permissions()));
  if (action == Remove) std::erase_if(tree, [](auto &entry) { return entry.first.ends_with('/'); });
  return tree;
}

static std::vector<std::string> arguments_of(Action action) {
  if (action != Remove) return {"-automate"};
  return {"-automate", "-special", "remove"};
}

static Outcome act(const Product &product, Action action) {
  return run(arguments_of(action), {}, Via::Pipe, {.name = "./" + product.name});
}

/// Kills the action before its system call number 37 * `place`. False: it ended earlier.
static bool kill_at(const Product &product, Action action, int place) {
  return run_and_kill(37 * place, arguments_of(action), {.name = product.name});
}

/// Kills the action before its file number `place` gets its name. False: it has fewer.
static bool kill_unnamed(const Product &product, Action action, int place) {
  if (!can_trace()) return false;
  std::string command = "./" + product.name;
  for (const std::string &argument : arguments_of(action)) command += " " + argument;
  run_injected("renameat2:signal=KILL:when=" + std::to_string(place), {}, command);
  return read_file("trace").find("killed by SIGKILL") != std::string::npos;
}

/// Runs the action with a failure before its command number `place`. False: it has fewer.
static bool fail_at(const Product &product, Action action, int place) {
  const std::string file = product.name + ".cpy", script = read_file(file);
  std::size_t at = script.find(action == Install ? "[install]\n" : "[upgrade]\n");
  const std::size_t end = script.find("\n[", at);
  for (; place > 0; place -= std::isupper(script[at]) ? 1 : 0) at = script.find('\n', at) + 1;
  if (at >= end) return false;
  write_file(file, script.substr(0, at) + "RFile missing x\n" + script.substr(at));
  EXPECT_NE(act(product, action).console.find("\nFailed, "), std::string::npos);
  write_file(file, script);
  return true;
}

struct CutShort : testing::TestWithParam<Product> {
  void SetUp() override {
    if (GetParam().write == write_notes && user_name().empty()) GTEST_SKIP() << "no user to own it";
    GetParam().write();
  }

  /// What is there before the action.
  static void prepare(Action action) {
    for (const char *tree : {"out", "half"}) fs::remove_all(tree);
    if (action != Install) act(GetParam(), Install);
  }

  const TempDir scratch;
};

TEST_P(CutShort, IsUndoneAndFinished) {
  for (const Action action : {Install, Upgrade})
    for (const auto cut : {kill_at, kill_unnamed, fail_at}) {
      prepare(action);
      const std::string console = act(GetParam(), action).console;
      EXPECT_NE(console.find("Success "), std::string::npos) << console;
      const Tree complete = result(action);
      for (int place = 1; prepare(action), cut(GetParam(), action, place); ++place) {
        SCOPED_TRACE(place);
        if (result(action) == complete) continue;
        if (fs::exists("out")) fs::copy("out", "half", fs::copy_options::recursive);
        act(GetParam(), Remove);
        EXPECT_EQ(result(Remove), Tree{});
        fs::remove_all("out");
        if (fs::exists("half")) fs::rename("half", "out");
        act(GetParam(), action);
        ASSERT_EQ(result(action), complete);
      }
    }
}

/// True while "out" says so: `name` is what an install makes last or a removal takes last.
static bool says(const char *name) {
  if (!fs::exists("out")) return false;
  for (const auto &entry : fs::recursive_directory_iterator{"out"})
    if (entry.path().filename() == name) return true;
  return false;
}

/// True when what is left by a strict run must be all that the action makes of it.
static bool claims_all(Action action, int status) {
  return status == 0 || (action == Install && says("installed")) ||
         (action == Remove && !says(".noticeboard") && !says(".hello") && !says(".notes"));
}

TEST_P(CutShort, NeverSaysInAStrictRunThatItIsDone) {
  if (!can_trace()) GTEST_SKIP() << "strace may not trace here";
  for (const Action action : {Install, Upgrade, Remove}) {
    std::string command = "./" + GetParam().name + " -strict";
    for (const std::string &argument : arguments_of(action)) command += " " + argument;
    prepare(action), act(GetParam(), action);
    const Tree complete = result(action);
    for (const std::string row :
         {"9 write:error=ENOSPC", "3 mkdirat:error=ENOSPC", "2 renameat:error=EACCES",
          "3 unlinkat:error=EBUSY", "2 fchownat:error=EPERM", "3 getdents64:error=EIO",
          "1 getcwd:error=ENOENT"})
      for (int when = 1;; when += row[0] - '0') {
        const std::string at = row.substr(2) + ":when=" + std::to_string(when);
        prepare(action);
        const int status = run_injected(at, {}, command);
        if (read_file("trace").find("(INJECTED)") == at.npos) break;
        SCOPED_TRACE(at + " " + std::to_string(action) + " " + read_file("console"));
        if (claims_all(action, status)) {
          EXPECT_EQ(result(action), complete);
          continue;
        }
        ASSERT_EQ(std::system((command + " >console 2>&1").c_str()), 0) << read_file("console");
        EXPECT_EQ(result(action), complete);
      }
  }
}

/// Kills the removal before it removes the entry number `place`: between two of them the tree does
/// not change. False: there are fewer.
static bool kill_removal(const Product &product, int place) {
  run_injected("unlinkat:signal=KILL:when=" + std::to_string(place), {},
               "./" + product.name + " -automate -special remove");
  return read_file("trace").find("killed by SIGKILL") != std::string::npos;
}

/// Removes while something is mounted on the entry number `place`, so that it stays. False: there
/// are fewer.
static bool hold_removal(const Product &product, int place) {
  const Tree tree = read_tree("out");
  if (static_cast<std::size_t>(place) > tree.size()) return false;
  const std::string entry = "out/" + std::next(tree.begin(), place - 1)->first;
  run_isolated("mount --bind " + entry + " " + entry + " && ./" + product.name +
               " -automate -special remove >console");
  EXPECT_TRUE(fs::exists(entry)) << read_file("console");
  return true;
}

struct Removal : CutShort {};

TEST_P(Removal, LeavesWhatCanBeRemovedOrInstalled) {
  if (!can_trace() || run_isolated("mount --bind . .") != 0)
    GTEST_SKIP() << "no tracer, or no name space";
  const auto copy = [](const char *from, const char *to) {
    fs::remove_all(to);
    fs::copy(from, to, fs::copy_options::recursive);
  };
  act(GetParam(), Install);
  const Tree complete = result(Install);
  copy("out", "whole");
  for (const auto cut : {kill_removal, hold_removal})
    for (int place = 1; copy("whole", "out"), cut(GetParam(), place); ++place) {
      SCOPED_TRACE(testing::Message() << (cut == kill_removal ? "killed " : "held ") << place);
      fs::create_directory("out");
      copy("out", "half");
      act(GetParam(), Remove); // at most the empty directory itself stays
      ASSERT_EQ(fs::exists("out") ? read_tree("out") : Tree{}, Tree{});
      copy("half", "out");
      act(GetParam(), Install); // or upgrades, which may add files
      ASSERT_TRUE(std::ranges::includes(result(Install), complete))
          << testing::PrintToString(result(Install));
    }
}

/// Writes a pattern to be installed below "out".
static void write_below_out(const std::string &pattern) {
  write_pattern(pattern);
  move_pattern("out/");
}

static std::string title_of(const testing::TestParamInfo<Product> &product) {
  return product.param.title;
}

static const Product products[] = {
    {"demo",  "noticeboard", write_demo },
    {"hello", "hello",       write_hello},
    {"notes", "notes",       write_notes},
};
/// Those with a removal of their own; the others have that of "base".
static const Product patterns[] = {
    {"base",     "notes", [] { write_below_out("base"); }    },
    {"remember", "notes", [] { write_below_out("remember"); }},
    {"again",    "notes", [] { write_below_out("again"); }   },
    {"back",     "notes", [] { write_below_out("back"); }    },
    {"hosts",    "notes", [] { write_below_out("hosts"); }   },
};

INSTANTIATE_TEST_SUITE_P(, CutShort, testing::ValuesIn(products), title_of);
INSTANTIATE_TEST_SUITE_P(OfProduct, Removal, testing::ValuesIn(products), title_of);
INSTANTIATE_TEST_SUITE_P(OfPattern, Removal, testing::ValuesIn(patterns), title_of);

static void limit(int resource, ::rlim_t most) {
  const struct ::rlimit limits = {most, most};
  ::setrlimit(static_cast<__rlimit_resource_t>(resource), &limits);
}

TEST(Fault, Limits) {
  const Tree complete = expected_tree();
  for (const bool completes : {false, true}) {
    const TempDir scratch;
    write_product();
    const Outcome outcome = completes ? install([] { limit(RLIMIT_NOFILE, 32); })
                                      : install([] { limit(RLIMIT_FSIZE, 16000); });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(read_tree("out") == complete, completes);
    EXPECT_EQ(told(outcome.console), !completes) << outcome.console;
    install();
    EXPECT_EQ(read_tree("out"), complete);
  }
}

constexpr unsigned Openat2 = 437, Fchmodat2 = 452;

/// What the C library says where there is no /proc.
static void without_proc() {
  refuse({Openat2, Fchmodat2, SYS_statx}, ENOSYS);
#ifdef SYS_chmod
  refuse({SYS_chmod}, ENOENT);
#endif
  refuse({SYS_fchmodat}, ENOENT);
}

TEST(Fault, OldKernelsAndSandboxes) {
  const Tree complete = expected_tree();
  const struct {
    void (*prepare)();
    bool changes;
  } rows[] = {
      {[] {
         refuse({Openat2, Fchmodat2, SYS_statx}, ENOSYS);
       },                         true },
      {[] {
         refuse({Openat2, Fchmodat2, SYS_statx}, EPERM);
       },                         true },
      {without_proc,                     true },
      {[] { refuse({Fchmodat2}, EIO); }, false},
  };
  for (const auto &row : rows) {
    const TempDir scratch;
    write_product();
    write_file("out/one", "old"); // is replaced
    const std::string console = install(row.prepare).console;
    EXPECT_EQ(read_tree("out"), complete) << console;
    const std::string log = read_log("installer.log");
    const bool changed = (fs::status("out/one").permissions() & fs::perms::all) == fs::perms{0750};
    EXPECT_EQ(changed, row.changes) << log;
    EXPECT_NE(changed, log.find("Error changing mode of '") != log.npos) << log;
  }
}

/// The number of the first whose mode an ordinary user cannot change, without the call for that.
[[noreturn]] static void change_modes_of_old(std::vector<file> files) {
  if (::geteuid() == 0 && ::setuid(65534) != 0) ::_exit(99);
  ::prctl(PR_SET_DUMPABLE, 1); // or else /proc/self/fd is root's
  refuse({Fchmodat2}, ENOSYS);
  for (std::size_t i = 0; i < files.size(); ++i)
    if (file_chmod(&files[i], 0640) == 0) ::_exit(1 + static_cast<int>(i));
  without_proc(); // a pipe is not opened for it
  scpy(files[0].name, "pipe", sizeof files[0].name);
  if (::mkfifo("pipe", 0600) != 0 || file_chmod(&files[0], 0640) != 0) ::_exit(98);
  ::_exit(0);
}

TEST(Fault, OldKernelsChangeModesOfWhatCannotBeOpened) {
  if (!has_proc()) GTEST_SKIP() << "no /proc";
  const TempDir scratch;
  std::vector<file> files(2);
  scpy(files[0].name, "file", sizeof files[0].name);
  scpy(files[1].name, "sock", sizeof files[1].name);
  EXPECT_EQ(::mknod("file", S_IFREG, 0) + ::mknod("sock", S_IFSOCK, 0), 0);
  for (const file &made : files)
    EXPECT_EQ(::geteuid() == 0 ? ::chown(made.name, 65534, 65534) : 0, 0);
  fs::permissions(".", fs::perms{0777});
  EXPECT_EXIT(change_modes_of_old(files), ::testing::ExitedWithCode(0), "");
  for (const file &made : files)
    EXPECT_EQ(fs::status(made.name).permissions(), fs::perms{0640}) << made.name;
}

TEST(Fault, DeepTreesOnASmallStack) {
  const TempDir scratch;
  write_product();
  std::string deep = "src";
  while (deep.size() < 235 - scratch.path().size()) deep += "/d";
  write_file(deep + "/f", "at the bottom");
  for (int i = 1; i < 40; ++i)
    fs::create_symlink("link" + std::to_string(i - 1), "link" + std::to_string(i));
  write_file("installer.cpy",
             "[install]\nWFile link39 to\nCopyDir src/* - $(to)\nChmod $(to)/* - 700\n" +
                 change_owner() + "RmDir $(to)/d -\n");
  fs::create_directory("out");
#if defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
  const auto prepare = [] { limit(RLIMIT_STACK, 1U << 20); };
#else
  const auto prepare = [] { limit(RLIMIT_STACK, 128U << 10); };
#endif
  const Outcome outcome = install(prepare);
  EXPECT_NE(outcome.console.find("\nSuccess "), outcome.console.npos) << outcome.console;
  EXPECT_FALSE(fs::exists("out/d") || told(outcome.console));
}

TEST(Fault, MemoryThatRunsOutWhileAFileIsLoaded) {
#if defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
  GTEST_SKIP() << "the sanitizer needs the memory";
#endif
  for (const std::string row : {"dat x", "int Copy x", "q Text x - - h", "cpy WFile x"}) {
    const TempDir scratch;
    write_product();
    const std::size_t blank = row.find(' ');
    std::ofstream file{"installer." + row.substr(0, blank), std::ios::app};
    for (int line = 0; line < 15000; ++line)
      file << row.substr(blank + 1) << ' ' << std::string(900, 'x') << " - -\n";
    file.close();
    const Outcome outcome = install([] { limit(RLIMIT_AS, 16'000'000); });
    EXPECT_EQ(outcome.status, 0) << row;
    EXPECT_NE(outcome.console.find("Error: Out of memory\n"), outcome.console.npos) << row;
    EXPECT_FALSE(fs::exists("out")) << row;
  }
}

TEST(Fault, FilesThatMemoryCannotHold) {
#if defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
  GTEST_SKIP() << "the sanitizer needs the memory";
#endif
  const TempDir scratch;
  write_product();
  write_file("big", "");
  fs::resize_file("big", 500'000'000);
  write_file("installer.int", "RFile big x - -\nWFile made port - -\n");
  write_file("installer.cpy", "[install]\nRFile big x\nWFile never port\n");
  const Outcome outcome = install([] { limit(RLIMIT_AS, 60'000'000); });
  EXPECT_NE(outcome.console.find("\nFailed, "), outcome.console.npos) << outcome.console;
  const std::string log = read_log("installer.log");
  for (const char *line : {"\nError: Out of memory in init command for 'big'\n",
                           "\nError: Command failed for 'big', Cannot allocate memory\n"})
    EXPECT_NE(log.find(line), log.npos) << line << log;
  EXPECT_TRUE(fs::exists("made") && !fs::exists("never"));
}

} // namespace installer::test
