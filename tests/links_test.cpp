#include "installer/answers.h"
#include "installer/copy.h"
#include "installer/file.h"
#include "installer/init.h"
#include "installer/links.h"
#include "installer/quest.h"
#include "installer/replace.h"
#include "tests/support.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>

#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace installer::test {

constexpr ::uid_t Other = 65533;
constexpr ::uid_t User = 65534;

/// A link, and what it leads to when that is not there yet, each given to a user.
static void plant(const std::string &link, const std::string &target, ::uid_t maker,
                  ::uid_t owner) {
  fs::remove_all(link);
  fs::create_symlink(target, link);
  EXPECT_EQ(::lchown(link.c_str(), maker, maker), 0);
  EXPECT_EQ(fs::exists(target) ? ::chown(target.c_str(), owner, owner) : 0, 0);
}

static std::string status_of(const std::string &path) {
  struct ::stat info = {};
  if (::stat(path.c_str(), &info) != 0) return "none";
  return std::to_string(info.st_mode & 07777) + " " + std::to_string(info.st_uid) + " " +
         (S_ISDIR(info.st_mode) ? "" : read_file(path));
}

/// Runs one command; its result, 0 or 1 and more.
static bool works(const std::string &command) {
  write_file("../script", "[run]\n" + command);
  const Store store = make_store({"value=new"});
  const std::unique_ptr<copy, Release<copy_free>> x{copy_init(store.get())};
  EXPECT_EQ(copy_load(x.get(), "../script", "run"), 1);
  return copy_do(x.get(), 0, nullptr) > 0;
}

/// A process that does `act`, which does not return, until this is gone.
struct Child {
  explicit Child(void (*act)()) : id(::fork()) {
    if (id == 0) act();
  }
  ~Child() {
    ::kill(id, SIGKILL);
    EXPECT_EQ(::waitpid(id, nullptr, 0), id);
  }
  Child(const Child &) = delete;
  Child &operator=(const Child &) = delete;
  /// A path as the process has it.
  [[nodiscard]] std::string root(const std::string &path) const {
    return "/proc/" + std::to_string(id) + "/root" + path;
  }
  ::pid_t id;
};

struct LinksTest : ::testing::Test {
  LinksTest() {
    fs::create_directory("work");
    fs::current_path("work");
  }
  TempDir folder;
};

TEST_F(LinksTest, OwnLinksWork) {
  for (const char *path : {"real/f", "src/a", "in/x"}) write_file(path, "old");
  fs::create_directory_symlink("real", "dir");
  fs::create_symlink("dir", "chain");
  fs::create_symlink("real/f", "file");
  fs::create_symlink("nothing", "dangling");
  fs::create_directory_symlink("../real", "in/sub");
  write_file("src/sub/b", "new");
  std::string far;
  while (far.size() < 4000) far += "./";
  fs::create_symlink(far + "real/f", "far");
  fs::create_symlink("x", "in/alias");
  for (const char *command :
       {"WFile chain/f value", "WFile file value", "WFile dangling value", "WFile dir/../n value",
        "CopyFile file - ./in", "CopyFile src/a - ./chain/../in", "CopyDir src/* - ./in",
        "Chmod chain/* - 600", "Chmod file - 640", "Ini chain/f dir/ini", "RFile file r",
        "WFile /proc/self/cwd/n value", "RFile /proc/thread-self/root/proc/mounts r",
        "MkDir chain/new/er", "Rename chain/new dir/newer", "RmDir chain/newer -",
        "RmFile chain/ini -", "RFile far r", "RFile in/alias r"})
    EXPECT_TRUE(works(command) || (!has_proc() && std::strstr(command, "/proc") != nullptr))
        << command << take_errors();
  EXPECT_EQ(read_file("nothing") + read_file("real/f") + read_file("real/b") + read_file("n"),
            "newnewnewnew");
  EXPECT_EQ(fs::status("real/f").permissions(), fs::perms{0640});
  fs::create_symlink("b-loop", "a-loop");
  fs::create_symlink("a-loop", "b-loop");
  fs::create_directory_symlink("/", "root");
  fs::create_symlink("missing", "gone");
  for (const char *command :
       {"WFile a-loop/f value", "WFile a-loop value", "Chmod root - 755",
        "Chmod /proc/self/root - 755", "Chmod a-loop - 755", "WFile dir/ value", "WFile new/ value",
        "WFile gone/ value", "RFile file/ r"})
    EXPECT_FALSE(works(command)) << command;
  EXPECT_EQ(find_spot(AT_FDCWD, "").cause.number, ENOENT);
  EXPECT_EQ(find_spot(AT_FDCWD, "//").name + find_spot(AT_FDCWD, "chain/..").name, "...");
  EXPECT_FALSE(works("WFile /proc/self/fd/999 value"));
}

TEST_F(LinksTest, OnlyTrustedLinksAreFollowed) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root may make links of other users";
  const struct {
    ::uid_t maker, owner, runner;
    bool dangling, trusted;
  } rows[] = {
      {0,     Other, 0,    false, true }, // root's
      {0,     0,     User, false, true },
      {User,  0,     User, false, true }, // the runner's own
      {Other, Other, 0,    false, true }, // that of the target's owner
      {Other, Other, User, false, true },
      {Other, 0,     0,    false, false},
      {Other, User,  0,    false, false},
      {Other, User,  User, false, false},
      {0,     0,     User, true,  true },
      {User,  0,     User, true,  true },
      {Other, 0,     0,    true,  false},
      {Other, Other, User, true,  false},
  };
  for (const auto &row : rows) {
    const TempDir inner;
    write_file("target", "old");
    write_file("inner/target", "old");
    if (row.dangling) fs::remove("target"), fs::remove("inner/target");
    for (const char *open_to_all : {".", "inner"}) fs::permissions(open_to_all, fs::perms{0777});
    const std::string to = inner.path("target");
    plant("link", to, row.maker, row.owner);
    plant("inner/chain", "../link", 0, row.owner);
    plant("dir", inner.path("inner"), row.maker, row.owner);
    if (!row.dangling) fs::permissions("target", fs::perms{0666});
    EXPECT_EQ(::seteuid(row.runner), 0);
    const std::string who = std::to_string(row.maker) + " made the link to a file of " +
                            std::to_string(row.owner) + ", followed by " +
                            std::to_string(row.runner);
    for (const char *path : {"link", "inner/chain"}) {
      Cause cause;
      EXPECT_EQ(open_trusted(path, O_RDWR | O_CREAT, Allow::Target, 0666, cause).get() >= 0,
                row.trusted)
          << who;
      EXPECT_EQ(cause.number, row.trusted ? 0 : ELOOP) << who;
    }
    if (!row.dangling) {
      EXPECT_EQ(open_directory("dir", O_PATH, *std::make_unique<Cause>()).get() >= 0, row.trusted)
          << who;
    }
    EXPECT_EQ(::seteuid(0), 0);
  }
}

TEST_F(LinksTest, PlantedLinksLeadNowhere) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root may make links of other users";
  fs::create_directories("../safe/dir");
  write_file("../safe/file", "old");
  write_file("../safe/dir/f", "old");
  fs::permissions("../safe/file", fs::perms{0600});
  for (const char *path : {"src/file", "src/sub/f", "tree/own"}) write_file(path, "planted");
  fs::create_directory("tree/t");
  const std::string safe = folder.path("safe");
  plant("tree/file", safe + "/file", Other, 0);
  plant("tree/cur", safe + "/dir", Other, 0);
  plant("tree/t/sub", safe + "/dir", Other, 0);
  plant("tree/t/file", safe + "/file", Other, 0);
  plant("tree/gone", safe + "/new", Other, 0);
  // A process of theirs could lead these elsewhere at any moment, whoever owns what is there now.
  write_file("theirs/f", "old");
  for (const char *path : {"theirs", "theirs/f"}) EXPECT_EQ(::chown(path, Other, Other), 0);
  const Descriptor held{::open("theirs/f", O_RDONLY)}, held_dir{::open("theirs", O_RDONLY)};
  const std::string fds = "/proc/" + std::to_string(::getpid()) + "/fd/";
  plant("tree/proc", fds + std::to_string(held.get()), Other, Other);
  plant("tree/procdir", fds + std::to_string(held_dir.get()), Other, Other);
  const Child other{[] { ::pause(); }};
  plant("tree/root", other.root(folder.path("work/theirs")), Other, Other);
  plant("tree/far", other.root(folder.path("work/theirs/f")), Other, Other);
  plant("tree/on", "far", Other, Other);
  fs::create_directory_symlink("/proc/" + std::to_string(other.id), "other"); // root's
  write_file("script", "RFile tree/file stolen - -\n");
  const Store store = make_store({});
  const std::unique_ptr<init_s, Release<init_free>> init{init_init()};
  EXPECT_EQ(init_load(init.get(), "script"), 1);
  init_evaluate(init.get(), store.get());
  EXPECT_EQ(ini_value_name(store.get(), "stolen"), nullptr);
  for (const char *path : {"cur", "gone"}) // nothing is made where something is
    EXPECT_TRUE(works("MkDir tree/" + std::string{path}) && !fs::exists("../safe/new")) << path;
  write_file("q", "[q]\nDirEmpty dir - - h t\n");
  const std::unique_ptr<questions, Release<quest_free>> questions{quest_init(store.get())};
  EXPECT_EQ(quest_load(questions.get(), "q", "q"), 1);
  char answer[] = "tree/cur";
  EXPECT_EQ(quest_answer(questions.get(), 0, answer), 0);
  const Tree before = read_tree("../safe");
  EXPECT_EQ(answers_write({}, "tree/cur/f", "answers").number, ELOOP);
  Answers answers;
  EXPECT_TRUE(answers_load(answers, "tree/file", [](const Fault &) {}));
  for (const char *command : {"Chmod tree/f* - 777",
                              "Chown tree/f* - nobody",
                              "Chmod tree/cur - 777",
                              "Chmod tree/cur/* - 777",
                              "Chown tree/cur/* - nobody",
                              "WFile tree/file value",
                              "WFile tree/gone value",
                              "WFile tree/cur/f value",
                              "WFile tree/cur/new value",
                              "Ini src/file tree/file",
                              "Ini src/file tree/cur/f",
                              "Ini tree/file out",
                              "RFile tree/file r",
                              "CopyFile src/file - ./tree/t",
                              "CopyFile tree/file - ./src",
                              "CopyFile src/file - ./tree/cur/d*",
                              "CopyFile src/file - ./tree/cur/../dir",
                              "CopyDir src/sub - ./tree/t",
                              "RmFile tree/cur/f -",
                              "RmDir tree/cur/* -",
                              "MkDir tree/cur/new",
                              "MkDir tree/gone/new",
                              "Rename tree/cur/f here",
                              "Rename src/file tree/cur/f",
                              "WFile tree/proc value",
                              "Chmod tree/proc - 777",
                              "Chown tree/procdir - nobody",
                              "WFile tree/procdir/f value",
                              "WFile tree/root/f value",
                              "Chown tree/far - nobody",
                              "Chmod tree/on - 777",
                              "Chmod tree/root/* - 777",
                              "RmFile tree/root/f -",
                              "MkDir tree/root/new",
                              "Ini other/cwd/theirs/f out",
                              "WFile other/task/../root/dev/null value",
                              "CopyFile other/exe - ./src"}) {
    if (!has_proc() && std::strstr(command, "tree/proc") != nullptr) break; // as all that follow
    EXPECT_FALSE(works(command)) << command;
    EXPECT_NE(take_errors().find("is not trusted"), std::string::npos) << command;
    EXPECT_EQ(read_tree("../safe"), before) << command;
    EXPECT_EQ(status_of("../safe/file"), "384 0 old") << command;
    EXPECT_EQ(fs::status("../safe/dir").permissions(), fs::perms{0755}) << command;
  }
  EXPECT_TRUE(works("RmFile tree/f* -") && works("RmDir tree -")); // the links themselves
  EXPECT_EQ(read_tree("../safe"), before);
}

TEST_F(LinksTest, WhatTookThePlaceOfAnEntryIsLeftAlone) {
  for (const char *path : {"../safe/file", "../safe/dir/f", "tree/file", "tree/dir/f", "out/x"})
    write_file(path, path);
  const Tree before = read_tree("../safe");
  for (const std::string name : {"file", "dir"}) {
    Entries entries{"tree", name.c_str(), log_missed()};
    const File listed = *entries.begin();
    ASSERT_NE(listed, nullptr);
    const Spot spot = find_spot(listed->dir, name_at(*listed));
    fs::remove_all("tree/" + name);
    fs::create_symlink("../../safe/" + name, "tree/" + name);
    Cause cause;
    EXPECT_FALSE(open_spot(spot, O_RDONLY, Allow::Plain, 0, cause)) << name;
    Copying copying;
    const Target out = open_target("out");
    const int made = name == "file" ? file_copy_entry(copying, *listed, out)
                                    : file_xcopy_entry(copying, *listed, out); // the directory
    EXPECT_EQ(made + file_rmdir_entry(*listed, nullptr), name == "file" ? 0 : 1) << name;
    EXPECT_FALSE(fs::exists("out/file") || fs::exists("out/dir/f")) << name;
    EXPECT_EQ(file_chmod(listed, 0711) + file_chown(listed, Other, Other), 0) << name;
    struct ::stat info = {};
    EXPECT_EQ(::lstat(listed->name, &info), 0);
    EXPECT_EQ(info.st_uid, ::geteuid()) << name;
    EXPECT_NE(fs::status("../safe/" + name).permissions(), fs::perms{0711}) << name;
  }
  EXPECT_EQ(read_tree("../safe"), before);
  const Spot file = find_spot(AT_FDCWD, "out/x");
  fs::remove("out/x"), fs::create_directory("out/x");
  Cause cause;
  EXPECT_FALSE(open_spot(file, O_RDONLY, Allow::Plain, 0, cause));
  take_errors();
}

/// Exchanges entries of a tree for links, over and over.
[[noreturn]] static void swap_for_ever() {
  const int links = ::open("links", O_PATH), tree = ::open("tree", O_PATH);
  const int inner = ::openat(tree, "d", O_PATH); // the directory itself, wherever it is
  for (;;)
    for (const char *entry : {"file", "sub", "d"})
      ::renameat2(*entry == 'd' ? tree : inner, entry, links, entry, RENAME_EXCHANGE);
}

/// Puts a file that is another user's at the place of an own one and takes it away, over and over,
/// where only this process and those who come through it can see it.
[[noreturn]] static void mount_for_ever() {
  if (::setuid(Other) != 0 || ::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) ::pause();
  for (;;) {
    ::mount("../safe/file", "theirs", nullptr, MS_BIND, nullptr);
    ::umount2("theirs", MNT_DETACH);
  }
}

TEST_F(LinksTest, NoSwapWins) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root may make links of other users";
  for (const char *path : {"../safe/file", "../safe/sub/file", "../safe/d/file"})
    write_file(path, "old");
  for (const char *path : {"src/d/file", "src/d/sub/file", "tree/d/file", "tree/d/sub/file"})
    write_file(path, "planted");
  fs::create_directory("links");
  const std::string safe = folder.path("safe");
  fs::create_directory_symlink("tree", "way"); // the system cannot say at once that it has no links
  plant("links/file", safe + "/file", Other, 0);
  plant("links/sub", safe + "/sub", Other, 0);
  plant("links/d", safe + "/d", Other, 0);
  const auto all = [] {
    std::string text;
    for (const char *path : {"file", "sub", "sub/file", "d", "d/file"})
      text += status_of(std::string{"../safe/"} + path) + "; ";
    return text + std::to_string(read_tree("../safe").size());
  };
  const std::string before = all();
  fs::permissions("..", fs::perms{0755});
  write_file("theirs", "old");
  EXPECT_EQ(::chown("theirs", Other, Other), 0);
  const Child swapper{swap_for_ever}, mounter{mount_for_ever};
  plant("mounted", mounter.root(folder.path("work/theirs")), Other, Other);
  for (int i = 0; i < times(120); ++i)
    for (const char *command :
         {"CopyDir src/* - ./tree", "Chmod tree/* - 777", "Chown tree/* - nobody",
          "WFile tree/d/file value", "WFile way/d/file value", "WFile way/d/sub/file value",
          "Chmod way/d/sub/file - 777", "Chmod mounted - 777", "WFile mounted value"})
      static_cast<void>(works(command));
  take_errors();
  EXPECT_EQ(all(), before);
}

} // namespace installer::test
