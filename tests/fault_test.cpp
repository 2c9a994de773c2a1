// Runs of the real program while the system fails it: single system calls that fail, death at any
// moment, limits. Whatever happens the run ends by itself, tells of what it could not do, and can
// be run again.

#include "tests/support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include <pwd.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace installer {

/// A product that uses every command which touches files, in the current directory.
static void write_product() {
  static const std::string user = ::getpwuid(::geteuid())->pw_name;
  write_file("installer.dat", "to $(current_dir)/out\nport 80\nuser " + user + "\n");
  write_file("installer.int", "WFile stamp port - -\nRFile stamp seen - -\n");
  write_file("installer.q", "[install]\nText port - - h Port?\n");
  write_file("blurb.txt", "Installed in $(to)\n");
  write_file("installer.cpy",
             "[install]\nMkDir $(to)/a/b\nCopyDir src/* - $(to)\nRmDir $(to)/old -\n"
             "CopyFile src/one - $(to)/a\nRename $(to)/a/one $(to)/a/first\n"
             "Ini src/t.ini $(to)/pkg.ini\nWFile $(to)/port port\nRFile $(to)/port got\n"
             "Chmod $(to)/* - 750\nChown $(to)/* - $(user)\nMkDir $(to)/gone\n"
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

TEST(Fault, KilledAtEveryTenthSystemCall) {
  ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
  const Tree complete = expected_tree();
  int kills = 0;
  for (bool killed = true; killed; ++kills) {
    const TempDir scratch;
    write_product();
    killed = run_and_kill(10 * (kills + 1));
    install();
    ASSERT_EQ(read_tree("out"), complete) << "after kill " << kills;
  }
  EXPECT_GT(kills, 10);
}

TEST(Fault, FileThatFailsWhenItIsClosed) {
  if (!can_trace()) GTEST_SKIP() << "strace may not trace here";
  for (const char *file : {"stamp", "out/one", "out/pkg.ini", "out/port"}) {
    const TempDir scratch;
    write_product();
    EXPECT_EQ(run_injected("close:error=EIO:when=1", scratch.path(file)), 0);
    EXPECT_TRUE(told(read_file("console"))) << file << read_file("console");
  }
}

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

TEST(Fault, MemoryThatRunsOutWhileAFileIsLoaded) {
#ifdef __SANITIZE_ADDRESS__
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

} // namespace installer
