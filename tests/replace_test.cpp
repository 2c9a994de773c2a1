// Files that are replaced: old or new at any moment, never a mixture.

#include "installer/file.h"
#include "installer/replace.h"
#include "tests/support.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <random>

#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace installer::test {

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
  unsigned char another[sizeof list]; // user 2
  std::memcpy(another, list, sizeof list);
  another[16] = 2;
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
      {"both",
       [&] {
         set("both", "system.posix_acl_access", list, sizeof list),
             set(".", "system.posix_acl_default", another, sizeof another);
       },                                                                                              0604,  true                                                               },
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
  std::array<int, 2> started{};
  ASSERT_EQ(::pipe2(started.data(), O_CLOEXEC), 0);
  const ::pid_t pid = ::fork();
  if (pid == 0) ::execl("./program", "program", "60", nullptr), ::_exit(1);
  ::close(started[1]);
  EXPECT_EQ(::read(started[0], started.data(), 1), 0); // the program has taken over
  ::close(started[0]);
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
  if (!can_mount()) GTEST_SKIP() << "no mounts of its own";
  const TempDir folder;
  for (const char *name : {"file", "point"}) write_file(name, "old");
  const auto write_mounted = [] {
    const std::map<std::string, std::string> mounts = {
        {"file", "point"}
    };
    ::_exit(mount_over(mounts) && !write_new("point") && read_file("file") == "new" ? 0 : 1);
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

TEST(Replace, NewFilesAreWholeOrNotThere) {
  const ::mode_t mask = ::umask(027);
  const std::string longest(255, 'n');
  const auto noop = [] {};
  const struct {
    std::string name;
    std::function<void()> prepare;
    bool beside;
  } rows[] = {
      {"plain",            noop,                                                        true },
      {"left over",        [] { write_file(".left over.installer-new", "torn"); },      true },
      {"planted",          [] { fs::create_symlink("old", ".planted.installer-new"); }, true },
      {"linked",           [] { fs::create_symlink("far", "linked"); },                 true },
      {longest.substr(15), noop,                                                        true },
      {longest.substr(14), noop,                                                        false},
      {"occupied",         [] { write_file(".occupied.installer-new/x", ""); },         false},
  };
  for (const auto &row : rows) {
    const TempDir folder;
    fs::permissions(".", fs::perms{02775});
    EXPECT_TRUE(::geteuid() != 0 || ::chown(".", 0, 9) == 0);
    write_file("old", "new");
    row.prepare();
    Tree before = read_tree(".");
    if (row.beside) before.erase("." + row.name + ".installer-new");
    {
      Replacement failing{row.name.c_str()};
      EXPECT_EQ(failing.write("ne", 2), 2U);
      EXPECT_EQ(fs::exists(row.name), !row.beside) << row.name;
    }
    EXPECT_EQ(read_tree("."), before) << row.name;
    EXPECT_FALSE(write_new(row.name)) << row.name;
    before[row.name == "linked" ? "far" : row.name] = "new";
    EXPECT_EQ(read_tree("."), before) << row.name;
    EXPECT_EQ(all_of(fs::canonical(row.name)), all_of("old")) << row.name;
  }
  ::umask(mask);
}

TEST(Replace, NamesTakenWhileAFileIsWritten) {
  // With the call that does not replace, and where the system or the file system lacks it.
  for (const int refusal : {0, ENOSYS, EINVAL, EPERM}) {
    const TempDir folder;
    const auto write_all = [=] {
      if (refusal != 0) refuse({SYS_renameat2}, static_cast<unsigned>(refusal));
      bool good = !write_new("free");
      for (const std::string name : {"file", "link", "directory"}) {
        Replacement out{name.c_str()};
        if (name == "file") write_file(name, "theirs");
        else if (name == "link") fs::create_symlink("none", name);
        else fs::create_directory(name);
        good = out.write("new", 3) == 3 && !out.commit() && out.cause().number == EEXIST && good;
      }
      ::_exit(good ? 0 : 1);
    };
    EXPECT_EXIT(write_all(), ::testing::ExitedWithCode(0), "") << refusal;
    fs::create_directory(".new");
    EXPECT_EQ(write_new("new/").number, EISDIR);
    const Tree wanted = {
        {".new/",      ""       },
        {"directory/", ""       },
        {"file",       "theirs" },
        {"free",       "new"    },
        {"link",       "-> none"}
    };
    EXPECT_EQ(read_tree("."), wanted) << refusal;
  }
}

TEST(Replace, OnlyTheFileThatWasMadeIsRenamedOrRemoved) {
  const TempDir folder;
  const std::string longest(255, 'n'), beside = ".file.installer-new";
  for (const std::string &name : {std::string{"plain"}, longest, std::string{"file"}}) {
    const NewFile where = name == "plain" ? NewFile::InPlace : NewFile::Beside;
    const std::string made = name == "file" ? beside : name;
    Replacement out{name.c_str(), AT_FDCWD, -1, where};
    EXPECT_EQ(out.write("new", 3), 3U);
    fs::rename(made, "moved");
    fs::create_symlink("moved", made);
    if (made == name) continue;
    EXPECT_FALSE(out.commit());
    EXPECT_EQ(out.cause().number, EBUSY);
  }
  const Tree wanted = {
      {beside,  "-> moved"},
      {longest, "-> moved"},
      {"moved", "new"     },
      {"plain", "-> moved"}
  };
  EXPECT_EQ(read_tree("."), wanted);
}

TEST(Replace, SwappedFilesAreNotUsed) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root may make links of other users";
  ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
  bool stopped = true;
  for (int call = 100; stopped; ++call) { // before, the product is not even loaded
    const TempDir scratch;
    write_file("installer.dat", "to $(current_dir)/out\n");
    write_file("installer.int", "");
    write_file("installer.q", "[install]\n");
    write_file("installer.cpy", "[install]\nCopyFile f - $(to)\nIni f $(to)/i\nWFile $(to)/w f\n"
                                "CopyFile source - $(to)\n");
    for (const char *name : {"f", "source"}) write_file(name, "new");
    EXPECT_EQ(::mkfifo("pipe", 0600), 0);
    write_file("victim", "old");
    for (const std::string name : {"f", "i", "w"}) {
      write_file("out/" + name, "old");
      write_file("out/." + name + ".installer-new/x", ""); // so it is written in place
      fs::create_symlink("../victim", name + ".link");
      EXPECT_EQ(::lchown((name + ".link").c_str(), 65534, 65534), 0);
    }
    stopped = run_and_stop(call, [](int) {
      for (const std::string name : {"f", "i", "w"}) fs::rename(name + ".link", "out/" + name);
      fs::rename("pipe", "source");
    });
    ASSERT_EQ(read_file("victim"), "old") << call;
    ASSERT_TRUE(!fs::exists("out/source") || read_file("out/source") == "new") << call;
  }
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
    EXPECT_TRUE(::geteuid() != 0 || ::chown(("out/" + name).c_str(), 7, 7) == 0);
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

/// The same without a tree, and without what an older one installed.
static void write_first_install() {
  write_upgrade();
  write_file("installer.cpy", "[install]\nCopyFile src/? - $(to)\nIni src/t.ini $(to)/pkg.ini\n"
                              "WFile $(to)/port port\n");
  fs::remove_all("out");
  fs::create_directory("out");
}

/// A file beside one that it will replace lets nobody in whom that one keeps out.
static void expect_never_wider(const std::string &beside) {
  std::string path = beside.substr(0, beside.size() - std::strlen(".installer-new"));
  path.erase(path.rfind('/') + 1, 1);
  struct ::stat now = {}, old = {};
  if (::stat(beside.c_str(), &now) != 0 || ::stat(path.c_str(), &old) != 0) return;
  EXPECT_EQ(now.st_mode & 0777 & ~old.st_mode, 0U) << beside;
  EXPECT_TRUE(now.st_gid == old.st_gid || (now.st_mode >> 3 & 7) == (now.st_mode & 7)) << beside;
}

struct Upgrade : ::testing::Test {
  explicit Upgrade(void (*product)() = write_upgrade) : write_product(product) {
    ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
    const TempDir scratch;
    write_product();
    old_states = states();
    complete();
    new_states = states();
  }
  static void complete() { run({"-automate"}, {}, Via::Pipe, {.name = "./installer"}); }
  /// Every file is old or new, and the next run, if there is one, leaves all of them new.
  void expect_old_or_new(const std::string &after, bool again = true) {
    std::size_t done = 0;
    for (const auto &[path, state] : states()) {
      if (path.ends_with(".installer-new")) {
        expect_never_wider(path);
        continue;
      }
      ASSERT_TRUE(state == old_states[path] || state == new_states[path]) << path << after;
      if (state == new_states[path]) ++done;
    }
    mixed += done > 0 && done < new_states.size() ? 1 : 0;
    if (!again) return;
    complete();
    ASSERT_EQ(states(), new_states) << after;
  }
  void kill_at_every_call() {
    int kills = 0;
    for (bool killed = true; killed; ++kills) {
      const TempDir scratch;
      write_product();
      killed = run_and_kill(kills + 1);
      expect_old_or_new(" killed before call " + std::to_string(kills + 1));
      if (HasFatalFailure()) return;
    }
    EXPECT_GT(mixed, kills / 5);
  }
  void (*write_product)();
  std::map<std::string, std::string> old_states, new_states;
  int mixed = 0; // runs that ended with some files old and some new
};

TEST_F(Upgrade, KilledAtEverySystemCall) { kill_at_every_call(); }

struct FirstInstall : Upgrade {
  FirstInstall() : Upgrade(write_first_install) {}
};

TEST_F(FirstInstall, KilledAtEverySystemCall) { kill_at_every_call(); }

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
  if (!can_trace() || !has_proc()) GTEST_SKIP() << "strace may not trace here, or knows no paths";
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

TEST_F(FirstInstall, EveryCallOfANewFileFailingOnce) {
  if (!can_trace() || !has_proc()) GTEST_SKIP() << "strace may not trace here, or knows no paths";
  const struct {
    std::string fault;
    bool made; // all the same; in a tree nothing is beside
  } rows[] = {
      {"openat:error=ENOSPC",   false},
      {"openat:error=EACCES",   true },
      {"fcntl:error=EMFILE",    false},
      {"write:error=EDQUOT",    false},
      {"write:error=EIO",       false},
      {"close:error=EIO",       false},
      {"renameat2:error=EIO",   false},
      {"renameat2:error=EPERM", true },
  };
  for (const auto &row : rows) {
    for (const std::string name : {"3", "pkg.ini", "port", "stamp", "sub/7"}) {
      const TempDir scratch;
      write_product();
      write_file("installer.cpy", read_file("installer.cpy") + "CopyDir src/sub - $(to)\n");
      const bool tree = name == "sub/7"; // of which the source is opened first
      const std::string entry = tree ? "7" : "." + name + ".installer-new";
      const std::string when = tree && row.fault[0] == 'o' ? ":when=2" : ":when=1";
      EXPECT_EQ(run_injected(row.fault + when, entry + " -P " + scratch.path("out/sub/7") + " -P " +
                                                   scratch.path("out/" + entry)),
                0);
      const std::string what = row.fault + " for " + name;
      const bool hit = read_file("trace").find("(INJECTED)") != std::string::npos;
      const char call = row.fault[0];
      EXPECT_EQ(hit, call == 'f' ? name == "pkg.ini" : call != 'r' || !tree) << what;
      const bool made = !hit || (row.made && !tree);
      EXPECT_EQ(states().contains("out/" + name), made) << what;
      EXPECT_EQ(read_log("installer.log").find("\nError: ") == std::string::npos, made) << what;
      for (const auto &[file, state] : states())
        EXPECT_TRUE(state == new_states[file] || file.starts_with("out/sub/")) << file << what;
    }
  }
}

TEST_F(FirstInstall, FullDisk) {
  if (!mount_over({})) GTEST_SKIP() << "no mounts of its own: " << std::strerror(errno);
  const std::string longest(255, 'n');
  const struct {
    std::string name, command, text;
  } rows[] = {
      {"pkg.ini", "Ini src/t.ini out/pkg.ini", "Port=80\n"      },
      {"3",       "CopyFile src/3 - ./out",    std::string(13500, 'n')},
      {"sub/7",         "CopyDir src/sub - ./out",                              std::string(73500,              'n')},
      {"port",     "WFile out/port port",                                "80"                              },
      {longest,     "WFile out/" + longest + " port", "80"},
  };
  for (const auto &row : rows) {
    const TempDir scratch;
    write_product();
    write_file("installer.int", "");
    // What is there is the operator's: an empty file would stay one.
    write_file("installer.cpy",
               "[install]\nExist out/" + row.name + " have\n" + row.command + " have false\n");
    ASSERT_EQ(::mount("none", "out", "tmpfs", 0, "size=512k"), 0);
    write_file("out/filler", std::string(600000, 'x'));
    complete();
    EXPECT_FALSE(fs::exists("out/" + row.name)) << row.command;
    fs::remove("out/filler");
    complete();
    EXPECT_TRUE(read_file("out/" + row.name) == row.text) << row.command;
    EXPECT_EQ(::umount2("out", MNT_DETACH), 0);
  }
}

} // namespace installer::test
