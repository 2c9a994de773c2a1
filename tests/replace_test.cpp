// Files that are replaced: old or new at any moment, never a mixture.

#include "installer/file.h"
#include "installer/replace.h"
#include "tests/support.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <random>

#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace installer {

/// Contents that a failure can show.
static std::string shortened(const std::string &text) {
  if (text.size() < 40) return text;
  return text.substr(0, 1) + "... " + std::to_string(std::hash<std::string>{}(text));
}

/// Owner, mode, attributes and contents.
static std::string all_of(const std::string &path) {
  struct ::stat info = {};
  if (::lstat(path.c_str(), &info) != 0) return "none";
  std::string names(500, '\0'), text;
  const ::ssize_t size = ::llistxattr(path.c_str(), names.data(), names.size());
  for (::ssize_t at = 0; at < size;
       at += static_cast<::ssize_t>(std::strlen(names.data() + at) + 1)) {
    std::string value(500, '\0');
    const ::ssize_t got = ::lgetxattr(path.c_str(), names.data() + at, value.data(), value.size());
    text +=
        std::string{names.data() + at} + "=" + value.substr(0, static_cast<std::size_t>(got)) + " ";
  }
  return std::to_string(info.st_uid) + ":" + std::to_string(info.st_gid) + " " +
         std::to_string(info.st_mode) + " " + text + shortened(read_file(path));
}

static ::ino_t inode_of(const std::string &path) {
  struct ::stat info = {};
  return ::stat(path.c_str(), &info) == 0 ? info.st_ino : 0;
}

static Cause write_new(const std::string &path) {
  return write_text(path.c_str(), [] { return "new"; });
}

TEST(Replace, WholeOrInPlace) {
  const bool root = ::geteuid() == 0;
  // An access list: the owner rw, user 1 r, the group none, mask r, others none.
  const unsigned char list[] = {2,    0,    0,    0,    1,    0,    6,    0,    0xff, 0xff, 0xff,
                                0xff, 2,    0,    4,    0,    1,    0,    0,    0,    4,    0,
                                0,    0,    0xff, 0xff, 0xff, 0xff, 0x10, 0,    4,    0,    0xff,
                                0xff, 0xff, 0xff, 0x20, 0,    0,    0,    0xff, 0xff, 0xff, 0xff};
  // Where the file system has no attributes, nothing needs to be kept.
  const auto set = [](const char *path, const char *name, const void *value, std::size_t size) {
    EXPECT_TRUE(::setxattr(path, name, value, size, 0) == 0 || errno == ENOTSUP) << name;
  };
  const auto noop = [] {};
  const struct {
    std::string name;
    std::function<void()> prepare;
    ::mode_t mode;
    bool whole;
  } rows[] = {
      {"plain",            noop,                                                                       0644,  true                                                               },
      {"private",          noop,                                                                       0600,  true                                                               },
      {"with set-user-ID", noop,                                                                       06751, true                                                               },
      {"left over",        [] { write_file(".left over.installer-new", "torn"); },                     0600,  true                                                               },
      {"attributes",       [&] { set("attributes", "user.a", "value", 5); },                           0604,  true                                                               },
      {"listed",           [&] { set("listed", "system.posix_acl_access", list, sizeof list); },       0640,  true                                                               },
      {"handed down",      [&] { set(".", "system.posix_acl_default", list, sizeof list); },           0664,  true                                                               },
      {"of another",       [&] { EXPECT_EQ(root ? ::chown("of another", 7, 8) : 0, 0); },              04755, true                                                               },
      {"of my group",      [&] { EXPECT_EQ(root ? ::chown(".", 0, 9) : 0, 0); },                       0640,  true                                                               },
      {"hard",             [] { fs::create_hard_link("hard", "second"); },                             0644,  false                                                              },
      {"linked",           [] { fs::rename("linked", "real"), fs::create_symlink("real", "linked"); }, 0644,
       false                                                                                                                                                                     },
      {std::string(241,    'n'),                                                                       noop,  0644,                                                                false},
      {"occupied",                  [] { write_file(".occupied.installer-new/x", ""); },                                                                                   0644,                    false},
  };
  for (const auto &row : rows) {
    const TempDir folder;
    fs::permissions(".", fs::perms{02775});
    write_file(row.name, "old");
    row.prepare();
    if (row.name != "listed") fs::permissions(row.name, fs::perms{row.mode});
    const std::string before = all_of(row.name);
    const ::ino_t inode = inode_of(row.name);
    const std::size_t entries = read_tree(".").size();
    EXPECT_FALSE(write_new(row.name)) << row.name;
    EXPECT_EQ(all_of(row.name), before.substr(0, before.size() - 3) + "new") << row.name;
    EXPECT_EQ(inode_of(row.name) != inode, row.whole) << row.name;
    EXPECT_EQ(read_tree(".").size(), entries - (row.name == "left over" ? 1 : 0)) << row.name;
  }
}

TEST(Replace, NothingThatCannotBeWritten) {
  const TempDir folder;
  for (const char *name : {"dir/file", "locked/file"}) write_file(name, "old");
  fs::permissions("locked/file", fs::perms{0666});
  fs::permissions("dir/file", fs::perms{0444});
  for (const char *open : {".", "dir"}) fs::permissions(open, fs::perms{0777});
  const ::uid_t user = ::geteuid();
  EXPECT_TRUE(user != 0 || ::seteuid(65534) == 0); // root may write anywhere
  const int refused = write_new("dir/file").number;
  EXPECT_FALSE(write_new("locked/file")); // no room for another file, but for writing
  EXPECT_EQ(::seteuid(user), 0);
  EXPECT_EQ(refused, EACCES);
  EXPECT_EQ(read_file("dir/file") + read_file("locked/file"), "oldnew");
}

TEST(Replace, RunningProgramsAndMappedFiles) {
  const TempDir folder;
  fs::copy_file("/bin/sleep", "program");
  write_file("library", std::string(100000, 'o'));
  const Descriptor mapped{::open("library", O_RDONLY)};
  void *const map = ::mmap(nullptr, 100000, PROT_READ, MAP_SHARED, mapped.get(), 0);
  ASSERT_NE(map, MAP_FAILED);
  const ::pid_t pid = ::fork();
  if (pid == 0) ::execl("./program", "program", "60", nullptr), ::_exit(1);
  while (fs::read_symlink("/proc/" + std::to_string(pid) + "/exe") !=
         fs::path{folder.path("program")})
    ::usleep(1000);
  for (const char *path : {"program", "library"}) {
    EXPECT_FALSE(write_new(path)) << path;
    EXPECT_TRUE(read_file(path) == "new") << path;
  }
  EXPECT_EQ(static_cast<const char *>(map)[99999], 'o');
  EXPECT_EQ(::waitpid(pid, nullptr, WNOHANG), 0); // goes on
  ::kill(pid, SIGKILL);
  int status = 0;
  EXPECT_EQ(::waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFSIGNALED(status));
  ::munmap(map, 100000);
}

TEST(Replace, MountedFilesAreWrittenInPlace) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root may mount";
  const TempDir folder;
  for (const char *name : {"file", "point"}) write_file(name, "old");
  const auto write_mounted = [] {
    const bool own = ::unshare(CLONE_NEWNS) == 0 &&
                     ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                     ::mount("file", "point", nullptr, MS_BIND, nullptr) == 0;
    ::_exit(own && !write_new("point") && read_file("file") == "new" ? 0 : 1);
  };
  EXPECT_EXIT(write_mounted(), ::testing::ExitedWithCode(0), "");
  EXPECT_EQ(read_file("file") + read_file("point"), "newold");
}

TEST(Replace, AnotherRunAtTheSameFile) {
  const TempDir folder;
  write_file("file", "old");
  Replacement first{"file"};
  {
    Replacement second{"file"}; // takes the other's for one that was left behind
    EXPECT_EQ(first.write("1", 1) + second.write("2", 1), 2U);
    EXPECT_FALSE(first.commit());
    EXPECT_EQ(first.cause().number, EBUSY);
    EXPECT_EQ(read_file("file"), "old");
    EXPECT_TRUE(second.commit());
  }
  EXPECT_EQ(read_file("file") + std::to_string(read_tree(".").size()), "21");
}

// ---- Upgrades of an old tree by the real program ----

/// A product, and what an older one installed. With links, files have two names.
static void write_upgrade() {
  write_file("installer.dat", "to $(current_dir)/out\nport 80\n");
  write_file("installer.int", "WFile $(to)/stamp port - -\n");
  write_file("installer.q", "[install]\n");
  write_file("installer.cpy", "[install]\nCopyDir src/* - $(to)\nIni src/t.ini $(to)/pkg.ini\n"
                              "WFile $(to)/port port\n");
  write_file("src/t.ini", "Port=$(port)\n");
  for (int n = 0; n < 8; ++n) {
    const std::string name = (n < 4 ? "" : "sub/") + std::to_string(n);
    write_file("src/" + name, std::string(static_cast<std::size_t>(n * n) * 1500, 'n'));
    write_file("out/" + name, std::string(static_cast<std::size_t>(8 - n) * 3000, 'o'));
    fs::permissions("out/" + name, fs::perms{n % 2 == 0 ? 0751U : 0604U});
  }
  for (const char *name : {"t.ini", "pkg.ini", "port", "stamp"})
    write_file(std::string{"out/"} + name, "old");
}

static std::map<std::string, std::string> states() {
  std::map<std::string, std::string> found;
  for (const auto &entry : fs::recursive_directory_iterator{"out"})
    if (!entry.is_directory()) found[entry.path().string()] = all_of(entry.path().string());
  return found;
}

struct Upgrade : ::testing::Test {
  Upgrade() {
    ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
    const TempDir scratch;
    write_upgrade();
    old_states = states();
    complete();
    new_states = states();
  }
  static void complete() { run({"-automate"}, {}, Via::Pipe, {.name = "./installer"}); }
  /// Every file is old or new, and the next run, if there is one, leaves all of them new.
  void expect_old_or_new(const std::string &after, bool again = true) {
    bool is_old = false, is_new = false;
    for (const auto &[path, state] : states()) {
      if (path.ends_with(".installer-new")) continue;
      ASSERT_TRUE(state == old_states[path] || state == new_states[path]) << path << after;
      (state == old_states[path] ? is_old : is_new) = true;
    }
    mixed += is_old && is_new ? 1 : 0;
    if (!again) return;
    complete();
    ASSERT_EQ(states(), new_states) << after;
  }
  std::map<std::string, std::string> old_states, new_states;
  int mixed = 0; // runs that ended with some files old and some new
};

TEST_F(Upgrade, KilledAtEverySystemCall) {
  int kills = 0;
  for (bool killed = true; killed; ++kills) {
    const TempDir scratch;
    write_upgrade();
    killed = run_and_kill(kills + 1);
    expect_old_or_new(" killed before call " + std::to_string(kills + 1));
    if (HasFatalFailure()) return;
  }
  EXPECT_GT(mixed, kills / 5);
}

/// Starts the program and kills it after so many microseconds.
static void kill_after(unsigned delay) {
  const ::pid_t pid = ::fork();
  if (pid == 0) {
    if (std::freopen("/dev/null", "w", stdout) == nullptr) ::_exit(1);
    ::execl(INSTALLER_PROGRAM, "./installer", "-automate", nullptr);
    ::_exit(1);
  }
  ::usleep(delay);
  ::kill(pid, SIGKILL);
  EXPECT_EQ(::waitpid(pid, nullptr, 0), pid);
}

TEST_F(Upgrade, KilledAtRandomMoments) {
  const int kills = times(300);
  std::minstd_rand random{1};
  unsigned most = 20000;
  for (int n = 0; n < kills; ++n) {
    const TempDir scratch;
    write_upgrade();
    const auto start = std::chrono::steady_clock::now();
    if (n == 0) complete();
    const auto spent = std::chrono::steady_clock::now() - start;
    if (n == 0) most = static_cast<unsigned>(spent / std::chrono::microseconds{1});
    const unsigned delay = static_cast<unsigned>(random()) % most;
    if (n == 0) write_upgrade();
    kill_after(delay);
    expect_old_or_new(" killed after " + std::to_string(delay) + " us", n % 5 == 0);
    if (HasFatalFailure()) return;
  }
  EXPECT_GT(mixed, kills / 50);
}

TEST_F(Upgrade, EveryCallOfAReplacementFailingOnce) {
  if (!can_trace()) GTEST_SKIP() << "strace may not trace here";
  // A failure leaves the old file; what the new one cannot get lets the old one be written to.
  const struct {
    std::string fault;
    bool replaced;
  } rows[] = {
      {"openat:error=ENOSPC:when=1",    false},
      {"openat:error=EACCES:when=1",    true },
      {"fcntl:error=EMFILE:when=1",     false},
      {"write:error=ENOSPC:when=1",     false},
      {"close:error=EIO:when=1",        false},
      {"renameat:error=EACCES:when=1",  false},
      {"flistxattr:error=EIO:when=1",   false},
      {"fsetxattr:error=ENOSPC:when=1", false},
      {"fchown:error=EDQUOT:when=1",    false},
      {"fchmod:error=EPERM:when=1",     true },
      {"fchown:error=EPERM:when=1",     true },
      {"fsetxattr:error=EPERM:when=1",  true },
  };
  for (const auto &row : rows) {
    for (const std::string name : {"3", "pkg.ini", "port", "stamp"}) {
      const TempDir scratch;
      write_upgrade();
      const std::string path = "out/" + name, beside = ".installer-new";
      EXPECT_TRUE(::geteuid() != 0 || ::chown(path.c_str(), 7, 7) == 0);
      fs::permissions(path, fs::perms{0765});
      ::setxattr(path.c_str(), "user.a", "v", 1, 0);
      const std::string old = all_of(path);
      EXPECT_EQ(run_injected(row.fault,
                             "." + name + beside + " -P " + scratch.path("out/." + name + beside)),
                0);
      const bool hit = read_file("trace").find("(INJECTED)") != std::string::npos;
      const std::string what = row.fault + " for " + name;
      EXPECT_TRUE(hit || row.fault[1] == 'c' || row.fault[1] == 's') << what; // not for every file
      if (!hit) continue;
      EXPECT_EQ(all_of(path) == old, !row.replaced) << what << read_file("console");
      EXPECT_EQ(read_file(path) == read_file("src/" + name) || name != "3",
                row.replaced || name != "3");
      EXPECT_FALSE(fs::exists("out/." + name + beside)) << what;
      EXPECT_EQ(read_log("installer.log").find("\nError: ") == std::string::npos, row.replaced)
          << what;
    }
  }
}

} // namespace installer
