#include "installer/file.h"
#include "installer/init.h"
#include "installer/log.h"
#include "tests/support.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <set>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

namespace installer::test {

static std::multiset<std::string> calls; // sorted: a listing has no order

/// "outcome src>dst mode; "
template <bool good> static void note(const char *src, const char *dst, int mode) {
  calls.insert(std::string{good ? "ok" : std::strerror(errno)} + " " + or_empty(src) +
               (dst ? ">" : "") + or_empty(dst) + " " + std::to_string(mode) + "; ");
}

/// The calls since the last time.
static std::string take_calls() {
  std::string text;
  for (const std::string &call : std::exchange(calls, {})) text += call;
  return text;
}

struct FileTest : ::testing::Test {
  FileTest() { take_calls(), take_errors(), file_setup_fn(note<true>, note<false>); }
  TempDir folder;
};

TEST_F(FileTest, CopiesOneFile) {
  const std::string big(20000, 'x');
  write_file("big", big);
  write_file("dir/old", "old");
  fs::create_hard_link("big", "hard");
  fs::create_symlink("big", "link");
  fs::create_directory_symlink(".", "here");
  ASSERT_EQ(::mknod("pipe", S_IFIFO | 0600, 0) + ::mknod("sock", S_IFSOCK | 0600, 0), 0);
  const auto expect = [&](const std::string &src, const std::string &dst, unsigned bytes,
                          const std::string &error = {}) {
    std::uint64_t counted = 0xffffffff; // does not wrap
    EXPECT_EQ(file_copy(src.c_str(), dst.c_str(), 1, &counted), error.empty() ? 1 : 0);
    EXPECT_EQ(counted - 0xffffffff, bytes) << src << " > " << dst;
    EXPECT_EQ(take_errors(), error.empty() ? "" : "Error: Error " + error + "\n");
    const std::string outcome = error.empty() ? "ok" : error.substr(error.rfind(", ") + 2);
    EXPECT_EQ(take_calls(), outcome + " " + src + ">" + dst + " 1; ");
    EXPECT_EQ(read_file("dir/old") + read_file("big"), "old" + big) << src << " > " << dst;
  };
  for (const char *itself : {"big", "hard", "link", "here/big"}) expect("big", itself, 0);
  for (const char *dst : {"new", "/dev/null"}) expect("big", dst, 20000);
  expect("/dev/null", "hole", 0);
  EXPECT_EQ(read_file("new") + read_file("hole"), big);
  for (const std::string name : {"none/x", "dir", "pipe", "sock"}) {
    const std::string reason = name == "dir"      ? "Is a directory"
                               : name == "none/x" ? "No such file or directory"
                                                  : "Operation not supported";
    expect(name, "dir/old", 0, "opening '" + name + "' for read, " + reason);
    expect("big", name, 0, "opening '" + name + "' for write, " + reason);
  }
  expect("/dev/zero", "dir/old", 0, "opening '/dev/zero' for read, Operation not supported");
  if (has_proc())
    expect("/proc/self/mem", "dir/old", 0, "reading from '/proc/self/mem', Input/output error");
  expect("big", "/dev/full", 0, "writing to '/dev/full', No space left on device");
  for (const char *there : {"dir/old", "dir"}) EXPECT_EQ(file_copy("big", there, 0, nullptr), -1);
  errno = EPERM;
  EXPECT_EQ(file_copy("big", nullptr, 1, nullptr), 0);
  EXPECT_EQ(take_calls(), "Success big 1; ");
}

TEST_F(FileTest, ActsOnTrueNamesAndPlainFiles) {
  write_file("up", "up");
  for (const std::string name : {"b\\s", "..\\up", "end\\", "a\nb", "a, b", "-rf", "*", "\xe9"})
    for (const std::string &path : {name, "dir" + name + "/in"}) write_file("src/" + path, name);
  const Tree plain = read_tree("src");
  fs::create_symlink("none", "src/dangling");
  fs::create_directory_symlink(".", "src/loop");
  ASSERT_EQ(::mknod("src/pipe", S_IFIFO | 0600, 0) + ::mknod("src/sock", S_IFSOCK | 0600, 0), 0);
  const int zero = ::mknod("src/zero", S_IFCHR | 0600, makedev(1, 5)) == 0 ? 1 : 0; // as root
  EXPECT_EQ(file_xcopy("src", nullptr, nullptr, "dst", 1, nullptr), 1 + 3 * 8);
  EXPECT_EQ(calls.size(), 1U + 3 * 8 + 4 + static_cast<unsigned>(zero));
  EXPECT_EQ(file_rmdir("src", nullptr, 1), 1 + 3 * 8 + 4 + zero);
  EXPECT_EQ(read_tree("dst"), plain);
  EXPECT_EQ(read_file("up"), "up");
}

TEST_F(FileTest, NeverCutsPaths) {
  const std::string fits(251, 'f');
  const std::string longer(252, 'f'); // one too many behind "src/"; cut, it would be the other
  for (const std::string &name : {fits, longer}) write_file("src/" + name, name);
  EXPECT_EQ(file_xcopy("src", "*", nullptr, "dst", 1, nullptr), 2);
  EXPECT_TRUE(take_calls().starts_with("File name too long "));
  EXPECT_EQ(file_xcopy("dst", "*", nullptr, "other", 1, nullptr), 1);
  EXPECT_EQ(take_calls(), "File name too long dst/" + fits + ">other 1; ok other 1; ");
  take_errors();
  EXPECT_EQ(file_xcopy("src", "*", "ff*", "new", 1, nullptr) + file_rmdir("src", "ff*", 1), 1);
  EXPECT_EQ(take_errors(), ""); // what is excluded does not matter
  EXPECT_EQ(take_calls(), "Directory not empty src 0; ok new 1; ");
  EXPECT_EQ(file_rmdir("src", nullptr, 1), 1);
  EXPECT_EQ(read_file("src/" + longer) + read_file("dst/" + fits), longer + fits);
  EXPECT_EQ(read_tree(".").size(), 6U);
  EXPECT_TRUE(take_errors().ends_with(", File name too long\n"));
}

TEST_F(FileTest, TellsOfWhatHasNoStatus) {
  write_file("d/x", "");
  fs::permissions("d", fs::perms{0444}); // to be listed, not entered
  fs::permissions(".", fs::perms{0755});
  const ::uid_t user = ::geteuid();
  EXPECT_TRUE(user != 0 || ::seteuid(65534) == 0);
  std::string told;
  const FileSink sink = [&](const FileEvent &event) {
    told += std::string{event.what} + " " + event.path + ", " + cause_text(event.cause) + "; ";
  };
  for (const char *wild : {"x", "*"}) {
    const Entries entries{"d", wild,
                          [&](const Missed &missed) { file_missed(&sink, missed, true); }};
    EXPECT_EQ(static_cast<bool>(entries), *wild == '*'); // that one is listed with its type
  }
  EXPECT_EQ(told + take_errors() + take_calls(), "cannot read the status d/x, Permission denied; ");
  EXPECT_EQ(::seteuid(user), 0);
  fs::permissions("d", fs::perms{0755});
}

TEST_F(FileTest, CopyIntoItselfEnds) {
  for (const std::string into : {"t/x/y", "t/b/c", "link/c"}) {
    const TempDir inner;
    for (const char *file : {"t/f", "t/b/g"}) write_file(file, file);
    fs::create_directory_symlink("t/b", "link");
    EXPECT_EQ(file_xcopy("t", "*", nullptr, into.c_str(), 1, nullptr), 4) << into;
    EXPECT_EQ(read_tree("t").size(), into == "t/x/y" ? 8U : 7U) << into;
    EXPECT_EQ(read_file(into + "/f") + read_file(into + "/b/g"), "t/ft/b/g");
  }
}

TEST_F(FileTest, EntriesOutliveTheirListing) {
  for (const char *path : {"d/f", "other/f"}) write_file(path, path);
  FHandle h = nullptr;
  File x = file_first(&h, "d", "*");
  file_last(&h);
  const Descriptor same_number{::open("other", O_RDONLY | O_DIRECTORY)};
  ASSERT_TRUE(x != nullptr && same_number);
  EXPECT_EQ(file_chmod(x, 0600) + file_stat(x), 2);
  EXPECT_EQ(x->info.st_mode & 0777U, 0600U);
  EXPECT_EQ(fs::status("other/f").permissions(), fs::perms{0644});
  file_free(&x);
}

TEST_F(FileTest, WaitsForALease) {
  write_file("leased", "late");
  int ready[2] = {};
  ASSERT_EQ(::pipe(ready), 0);
  const ::pid_t holder = ::fork();
  if (holder == 0) {
    static const int fd = ::open("leased", O_RDWR);
    ::signal(SIGIO, [](int) { ::fcntl(fd, F_SETLEASE, F_UNLCK), ::_exit(0); });
    ::close(ready[::fcntl(fd, F_SETLEASE, F_WRLCK) == 0 ? 1 : 0]);
    ::close(ready[0]);
    ::pause();
  }
  ::close(ready[1]);
  char none = 0;
  EXPECT_EQ(::read(ready[0], &none, 1), 0);
  EXPECT_EQ(file_copy("leased", "copy", 1, nullptr), 1) << take_errors();
  EXPECT_EQ(read_file("copy"), "late");
  ::kill(holder, SIGKILL);
  EXPECT_EQ(::waitpid(holder, nullptr, 0), holder);
}

TEST_F(FileTest, NumbersOfUsers) {
  write_file("passwd", "root:x:0:0::/:\nfar:x:4294967294:2147483648::/:\n");
  write_file("group", "far:x:2147483648:\n");
  const auto look_up = [] {
    if (!mount_over({
            {"passwd", "/etc/passwd"},
            {"group",  "/etc/group" }
    }))
      ::_exit(3);
    char user[LineSize] = "", error[LineSize] = "";
    const char *const candidates[] = {"conf", nullptr};
    http_files = candidates;
    write_file("conf", "User far\nGroup far\nDocumentRoot /\nScriptAlias cgi-bin /");
    const struct ::rlimit nothing = {0, 0};
    Cause none;
    const bool known = file_getgid("none", &none) == static_cast<::gid_t>(-1) && !none;
    const int found = init_find_http_conf(user, nullptr, nullptr, nullptr, error);
    ::_exit(found == 1 && file_getuid("far") == 4294967294 && file_getgid("far") == 2147483648 &&
                    file_getuid("none", &none) == static_cast<::uid_t>(-1) && !none && known &&
                    ::setrlimit(RLIMIT_NOFILE, &nothing) == 0 &&
                    file_getgid("far", &none) == static_cast<::gid_t>(-1) && none.number == EMFILE
                ? 0
                : 1);
  };
  if (!can_mount()) GTEST_SKIP() << "no users of its own";
  EXPECT_EXIT(look_up(), ::testing::ExitedWithCode(0), "");
}

TEST_F(FileTest, MakesAndRemovesDirectories) {
  write_file("far/file", "");
  for (const char *path : {"d//", "d", "far/file", "m/n\\o\\", "m/n/p", "m//q//", "/"})
    EXPECT_EQ(file_mkdir(path, 1), 1);
  EXPECT_EQ(file_mkdir("e//", 0), 1);
  for (const char *target : {"circle", "none/x", "none"}) { // there, wherever it leads
    fs::create_symlink(target, "circle");
    EXPECT_EQ(file_mkdir("circle", 1) + fs::remove("circle"), 2) << target;
  }
  const ::mode_t mask = ::umask(0);
  EXPECT_EQ(file_mkdir("open", 0) + (fs::status("open").permissions() == fs::perms{0775}), 2);
  ::umask(mask);
  const std::string longest = "./" + std::string(254, 'n');              // one too many
  EXPECT_EQ(file_mkdir(longest.c_str(), 0) + file_mkdir("c:/no", 1), 0); // a drive is not made
  EXPECT_EQ(take_calls(),
            "File name too long " + longest +
                " 1; No such file or directory c:/no 1; ok d 1; ok e 1; ok m 1; ok m//q 1; "
                "ok m/n 1; ok m/n/o 1; ok m/n/p 1; ok open 1; ");
  EXPECT_EQ(file_xcopy("d", "*", nullptr, "sl/", 1, nullptr) + fs::remove("m/q"), 2);
  EXPECT_EQ(take_calls(), "ok sl 1; ");
  EXPECT_EQ(file_mkdir("x/y", 0) + file_mkdir("far/file/x", 1), 0);
  EXPECT_EQ(take_calls(), "No such file or directory x/y 1; Not a directory far/file/x 1; ");
  for (const char *directory : {".", "far"}) fs::permissions(directory, fs::perms{0555});
  fs::permissions("m", fs::perms{0777});
  const ::uid_t user = ::geteuid();
  EXPECT_TRUE(user != 0 || ::seteuid(65534) == 0); // root may write anywhere
  ::umask(0777);                                   // no way into what is made
  EXPECT_EQ(file_mkdir("m/made/no", 1), 1);
  ::umask(mask);
  EXPECT_EQ(take_calls(), "Permission denied m/made/no 1; ok m/made 1; ");
  EXPECT_EQ(file_mkdir("far/no/way/on", 1) + ::seteuid(user), 0);
  EXPECT_EQ(take_calls(), "Permission denied far/no/way/on 1; "); // as for the first
  fs::permissions(".", fs::perms{0700});
  fs::remove("m/made");
  for (const char *file : {"m/n/p/f", "m/x.log"}) write_file(file, "");
  fs::create_directory_symlink("../far", "m/far");
  EXPECT_EQ(file_rmdir("m", nullptr, 0) + file_rmdir("m", "*.log,o p", 1), 1);
  EXPECT_EQ(take_calls(), "Directory not empty m 0; Directory not empty m 0; Directory not empty "
                          "m/n 0; Directory not empty m/n 0; ok m/far 0; ");
  EXPECT_EQ(file_rmdir("m/n", nullptr, 1), 4);
  EXPECT_EQ(file_exist("far/file") + file_exist("far") + file_exist("m/n"), 3);
}

} // namespace installer::test
