// The preview on real name spaces. Each test takes a mount name space of its own, so that what it
// mounts in its scratch folder is nobody else's.

#include "preview/mounts.h"
#include "preview/report.h"
#include "tests/support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <regex>
#include <sstream>

#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace installer::test {

using Arguments = std::vector<std::string>;

static Outcome preview(const Arguments &arguments, const std::string &input = {},
                       void (*prepare)() = nullptr, Via via = Via::Pipe,
                       const std::string &program = INSTALLER_PREVIEW) {
  // Where this system has single files mounted, the preview says so first.
  static const std::regex remark{"installer-preview: cannot be written to in the view[^\n]*\n"};
  Outcome outcome = run(arguments, input, via, {"installer-preview", prepare, program.c_str()});
  outcome.console = std::regex_replace(outcome.console, remark, "");
  return outcome;
}

static Outcome shell(const std::string &script) {
  return run({"-c", script}, {}, Via::Pipe, {"sh", nullptr, "/bin/sh"});
}

/// The lines of changes: between the empty line that they begin with and the one of the totals.
static std::string changes(const std::string &console) {
  const std::size_t begin = console.find('\n') + 1;
  const std::size_t end = console.find("\n\n", begin - 1);
  return end == console.npos || end < begin ? "" : console.substr(begin, end + 1 - begin);
}

static bool mount_memory(const std::string &place, const char *options = "") {
  fs::create_directories(place);
  return ::mount("memory", place.c_str(), "tmpfs", 0, options) == 0;
}

static constexpr ::uid_t SomeUser = 4711;

static void become_user() {
  if (::setgroups(0, nullptr) != 0 || ::setresgid(SomeUser, SomeUser, SomeUser) != 0 ||
      ::setresuid(SomeUser, SomeUser, SomeUser) != 0)
    ::_exit(1);
}

/// Name spaces of the preview's own, for it may be the one that is broken: a command that gets out
/// of its view must not find the machine. What is not given ends the process before it starts.
static void be_apart() {
  if (::unshare(CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWIPC) != 0) ::_exit(1);
  const ::pid_t pid = ::fork();
  if (pid == 0 && ::setsid() > 0) return;
  int status = 1;
  static_cast<void>(pid < 0 || ::waitpid(pid, &status, 0) < 0);
  ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}

/// A scratch folder with a file system of its own, of which the tests may mount more. Tests are
/// skipped where the system gives too little for a view; where it does and there is none, they
/// fail.
struct Preview : testing::Test {
  void SetUp() override {
    if (::geteuid() != 0 || !can_have_view()) GTEST_SKIP() << "no name spaces, or no overlay";
    ASSERT_TRUE(::unshare(CLONE_NEWNS) == 0 &&
                ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                mount_memory(scratch.path("m")));
    fs::permissions(scratch.path(), fs::perms{0755});
    here = scratch.path("m");
    fs::current_path("m");
  }
  void TearDown() override {
    fs::current_path("/");
    while (!here.empty() && ::umount2(here.c_str(), MNT_DETACH) == 0) {
    }
  }

  TempDir scratch;
  std::string here;
};

TEST_F(Preview, TellsEachChange) {
  const struct {
    const char *before, *script, *want; // "@" is the scratch folder, and "@/" that with a "/"
  } rows[] = {
      {"",                                                       "umask 22; mkdir d; printf 12345 >d/f",
       "A 0755 root:root - @/d/\nA 0644 root:root 5 @/d/f\n"                                                                                                                                     },
      {"echo 1 >f",                                              "echo 22 >>f",                                                                        "M 0644 root:root 2->5 @/f\n"             },
      {"echo 1 >f",                                              "echo 2 >f; chmod 600 f; chown 1:1 f",
       "M 0644->0600 root:root->daemon:daemon 2 @/f\n"                                                                                                                                           },
      {"echo 1 >f; mkdir d",                                     "chmod 640 f; chmod 700 d",
       "P 0755->0700 root:root @/d/\nP 0644->0640 root:root @/f\n"                                                                                                                               },
      {"echo 1 >f; mkdir -p d/e; echo >d/x; mkdir k; echo >k/y", "rm -r f d k/y",
       "D 0755 root:root - @/d/ (2 entries)\nD 0644 root:root 2 @/f\nD 0644 root:root 1 @/k/y\n"                                                                                                 },
      {"mkdir d; echo 1 >d/f; echo 2 >d/g",                      "mkdir h; mv d h/e; echo 3 >>h/e/g",
       "D 0755 root:root - @/d/ (2 entries)\nA 0755 root:root - @/h/\nA 0755 root:root - @/h/e/\n"
       "A 0644 root:root 2 @/h/e/f\nA 0644 root:root 4 @/h/e/g\n"                                                                                                                                },
      {"mkdir d; echo 1 >d/f; echo 2 >d/g",                      "rm -r d; mkdir d; echo 1 >d/f",
       "D 0644 root:root 2 @/d/g\n"                                                                                                                                                              },
      {"echo 1 >f; mkdir d",                                     "rm f; mkdir f; rmdir d; echo >d",
       "A 0644 root:root 1 @/d\nD 0755 root:root - @/d/ (0 entries)\nD 0644 root:root 2 @/f\n"
       "A 0755 root:root - @/f/\n"                                                                                                                                                               },
      {"ln -s a l; ln -s b loop",                                "rm l; ln -s '\t' l; ln -sf loop loop; ln -s x new; rm -f gone",
       "M 0777 root:root 1 @/l -> \\t\nM 0777 root:root 1->4 @/loop -> loop\n"
       "A 0777 root:root 1 @/new -> x\n"                                                                                                                                                         },
      {"ln -s a l",                                              "chown -h 1 l",                                                                       "P 0777 root:root->daemon:root @/l -> a\n"},
      {"",                                                       "mkfifo p; mknod n c 1 3",
       "A 0644 root:root 0 @/n (character device 1:3)\n"
       "A 0644 root:root 0 @/p (pipe)\n"                                                                                                                                                         },
      {"",                                                       "echo >\"$(printf 'a\\nb\\tc\\001\\\\ \\377\\303\\244')\"",
       "A 0644 root:root 1 @/a\\nb\\tc\\001\\\\ \\377ä\n"                                                                                                                                       },
      {"",                                                       "chmod 700 .",                                                                        "P 1777->0700 root:root @/\n"             },
      {"",                                                       "echo >a-; mkdir a; echo >a/b",
       "A 0644 root:root 1 @/a-\nA 0755 root:root - @/a/\nA 0644 root:root 1 @/a/b\n"                                                                                                            },
      {"",                                                       "echo >sh.log; echo >sh.log12; echo >sh.log.1; mkdir d; echo >d/sh.log; rm sh.log12",
       "A 0755 root:root - @/d/\nA 0644 root:root 1 @/d/sh.log\nA 0644 root:root 1 @/sh.log.1\n"                                                                                                 },
      {"",                                                       "mkfifo sh.log1; ln -s x sh.log2; echo >sh.log3; chmod 2711 sh.log3",
       "A 0644 root:root 0 @/sh.log1 (pipe)\nA 0777 root:root 1 @/sh.log2 -> x\n"
       "A 2711 root:root 1 @/sh.log3\n"                                                                                                                                                          },
      {"echo >sh.log1; chmod 4755 sh.log1; mkdir sh.log2",
       "rm -r sh.log*; echo >sh.log1; echo >sh.log2",                                                                                                  "P 4755->0644 root:root @/sh.log1\nA 0644 root:root 1 @/sh.log2\n"
       "D 0755 root:root - @/sh.log2/ (0 entries)\n"                                                                                        },
  };
  for (const auto &r : rows) {
    const Outcome made = shell("umask 22; rm -rf ./*; chmod 1777 .; " + std::string{r.before});
    EXPECT_EQ(made.console, "");
    std::string want = r.want;
    for (std::size_t at = 0; (at = want.find('@', at)) != want.npos;) want.replace(at, 1, here);
    const Outcome outcome = preview({"sh", "-c", "umask 22; " + std::string{r.script}});
    EXPECT_EQ(changes(outcome.console), want) << r.script << outcome.console;
    EXPECT_EQ(outcome.status, 0) << r.script;
  }
}

TEST_F(Preview, TellsRightsOfAttributes) {
  // Rights to bind low ports; and user 1 may write.
  using std::literals::operator""s;
  const std::string capability = "\1\0\0\2\0\4\0\0\0\0\0\0\0\0\0\0\0\0\0\0"s;
  const std::string any = "\377\377\377\377", head = "\2\0\0\0\1\0\6\0"s;
  const std::string list =
      head + any + "\2\0\6\0\1\0\0\0\4\0\4\0"s + any + "\20\0\4\0"s + any + "\40\0\4\0"s + any;
  for (const char *name : {"a", "b", "c", "d"}) write_file(name, "x");
  fs::create_directory("e");
  ASSERT_EQ(::setxattr("a", "security.capability", capability.data(), capability.size(), 0), 0);
  ASSERT_EQ(::setxattr("c", "system.posix_acl_access", list.data(), list.size(), 0), 0);
  ASSERT_EQ(::setxattr("e", "system.posix_acl_default", list.data(), list.size(), 0), 0);
  const Outcome outcome =
      preview({"sh", "-c", "mv a x; mv b a; mv x b; mv c d; mkdir e/f; echo >e/g; touch d"});
  EXPECT_EQ(std::regex_replace(changes(outcome.console), std::regex{here}, "@"),
            "P 0644 root:root @/a (capabilities)\nP 0644 root:root @/b (capabilities)\n"
            "D 0644 root:root 1 @/c\nP 0644 root:root @/d (access list)\n"
            "A 0644 root:root - @/e/f/ (access list, default access list)\n"
            "A 0644 root:root 1 @/e/g (access list)\n");
}

TEST_F(Preview, TotalsAreOfFileSystems) {
  ASSERT_TRUE(mount_memory(here + "/small", "size=64k") && mount_memory(here + "/other"));
  write_file("small/same", "same");
  write_file("big", std::string(5000, '.'));
  const Outcome outcome =
      preview({"sh", "-c",
               "cp big small/1; cp big small/2; ln small/1 small/3; printf same >same;"
               "printf same >small/same; head -c 70000 big big big big big big big big "
               "big big big big big big >small/4; rm big"});
  const std::string &console = outcome.console;
  const std::string wants[] = {
      "\n\n" + here + ": 1 file, 4096 bytes needed, ",
      "\n" + here +
          "/small: 4 files, 90112 bytes needed, 61440 bytes free, does not fit, unchanged: 1\n"};
  for (const std::string &want : wants) EXPECT_NE(console.find(want), console.npos) << console;
  EXPECT_EQ(console.find("/other"), console.npos);
  EXPECT_EQ(WEXITSTATUS(outcome.status), 1);
  EXPECT_EQ(preview({"true"}).console, "\nNothing would change.\n");
  write_file("small/old", std::string(30000, 'x'));
  const struct {
    const char *script, *told;
    int status;
  } rows[] = {
      {"printf 1 >>small/old",                                                            " 0 bytes needed, 28672 bytes free, un", 0},
      {"chmod 600 small/old",                                                             " 0 bytes needed",                       0},
      {"cp small/old small/.n; printf 1 >>small/.n; mv small/.n small/old",
       " 32768 bytes needed, 28672 bytes free, does not fit",                                                                      1},
      {"cp small/old small/.n; mv small/.n small/old; exit 3",                            ", does not fit, unchanged: 1",          3},
      {"cp big small/.n; mv small/.n small/old; cp big small/.n; mv small/.n small/same",
       " 12288 bytes needed",                                                                                                      0},
  };
  for (const auto &[script, told, status] : rows) {
    const Outcome replaced = preview({"sh", "-c", script});
    EXPECT_NE(replaced.console.find(told), console.npos) << script << replaced.console;
    EXPECT_EQ(WEXITSTATUS(replaced.status), status) << script;
  }
}

// ---- Nothing happens to the machine ----

/// Everything about everything below `path`, times and numbers included.
static std::string snapshot(const std::string &path) {
  std::ostringstream text;
  for (const fs::directory_entry &entry : fs::recursive_directory_iterator{path}) {
    struct ::stat s = {};
    ::lstat(entry.path().c_str(), &s);
    text << entry.path() << ' ' << s.st_dev << ' ' << s.st_ino << ' ' << s.st_mode << ' '
         << s.st_nlink << ' ' << s.st_uid << ' ' << s.st_gid << ' ' << s.st_size << ' '
         << s.st_mtim.tv_sec << '.' << s.st_mtim.tv_nsec << ' ' << s.st_ctim.tv_sec << '.'
         << s.st_ctim.tv_nsec << ' ' << s.st_atim.tv_sec << '.' << s.st_atim.tv_nsec << '\n';
  }
  return text.str();
}

TEST_F(Preview, NothingHappensToTheMachine) {
  for (const char *folder : {"a", "a/b", "a/c"}) ASSERT_TRUE(mount_memory(folder));
  for (const char *folder : {".", "a", "a/b", "a/c"})
    for (const char *name : {"old", "gone", "mode", "d/x", "d/y"})
      write_file(std::string{folder} + "/" + name, "text");
  fs::create_hard_link("old", "again");
  fs::create_symlink("old", "link");
  for (const char *name : {"input", "output"}) write_file(name, "text\n");
  fs::create_directory("ro");
  ASSERT_EQ(::mount("a", "ro", nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(::mount(nullptr, "ro", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
  write_file("hostile", R"sh(
exec 5<. 6<old
for root in '' /proc/self/root /proc/1/root /proc/self/cwd/../../.. /.. /../../proc/1/root; do
  for dir in . a a/b a/c ro; do
    cd "$root$HERE/$dir" || continue
    echo new >>old; mv gone went; mv d e; rm -rf e; mkdir d; ln old linked; ln -s old soft
    chmod 777 mode . ..; chown 1:1 mode .; touch -d 2001-01-01 mode .; mkfifo p; mknod n c 1 3
    setfattr -n user.x -v y mode; truncate -s 9 mode; mv -T "$HERE/again" over
  done
done
cd "$HERE"
for fd in 0 1 2 5 6; do chmod 777 /proc/self/fd/$fd; chown 1:1 /proc/self/fd/$fd; echo new >>/proc/self/fd/$fd; done
for place in $HERE / $HERE/a $HERE/ro /sys /dev; do mount -o remount,rw,bind $place; umount -l $place; done
unshare -Urm sh -c "mount -o remount,rw,bind $HERE/ro; umount -l $HERE; echo new >>$HERE/old"
chroot . /bin/sh -c 'echo new >>../../../../old'
echo 1 >/proc/sys/vm/drop_caches; echo x >/sys/kernel/uevent_helper; touch /dev/made
kill -9 -1 1
)sh");
  ::setenv("HERE", here.c_str(), 1);
  static_cast<void>(snapshot(here)); // what only reading changes has changed now
  const std::string before = snapshot(here);
  const Outcome outcome = preview({"sh", "./hostile"}, {}, [] {
    // Regular files as standard streams, and open directories.
    ::dup2(::open("input", O_RDONLY), STDIN_FILENO);
    ::dup2(::open(".", O_RDONLY), 9);
    be_apart();
  });
  EXPECT_NE(outcome.console.find("D 0644 root:root 4 " + here + "/gone\n"), std::string::npos)
      << outcome.console;
  EXPECT_EQ(snapshot(here), before);

  const std::string with_files =
      "chmod 604 output; " INSTALLER_PREVIEW
      " sh -c 'echo out; chmod 777 /dev/stdout; chown 1:1 /dev/stdout; echo err >&2' >output 2>&1; "
      "stat -c '%a %U' output; cat output";
  const std::string told = shell(with_files).console;
  EXPECT_TRUE(told.starts_with("604 root\n")) << told;
  EXPECT_NE(told.find("out\nerr\n\nNothing would change.\n"), told.npos) << told;
}

TEST_F(Preview, ViewHasTheMachinesMounts) {
  for (const char *folder : {"a,b:c\\d e", "n\nl", "hid/in", "hid", "stack", "stack", "noexec"})
    ASSERT_TRUE(mount_memory(folder, ""));
  for (int i = 0; i < 300; ++i) ASSERT_TRUE(mount_memory("many/" + std::to_string(i)));
  ASSERT_TRUE(mount_memory("zz"));
  write_file("zz/sub/f", "1\n");
  write_file("real/sub/f", "1\n");
  write_file("single", "1\n");
  write_file("file", "");
  for (const char *place : {"bind", "deep", "ro", "aa"}) fs::create_directory(place);
  for (const auto &[from, to] : Tree{
           {"real",     "bind"},
           {"real/sub", "deep"},
           {"zz/sub",   "aa"  },
           {"",         ""    }
  })
    if (!from.empty()) {
      ASSERT_EQ(::mount(from.c_str(), to.c_str(), nullptr, MS_BIND, nullptr), 0);
    }
  ASSERT_EQ(::mount("real", "ro", nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(::mount(nullptr, "ro", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
  ASSERT_EQ(::mount("single", "file", nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(::mount(nullptr, "noexec", nullptr, MS_REMOUNT | MS_BIND | MS_NOEXEC, nullptr), 0);
  const Outcome outcome = preview({"sh", "-c", R"sh(
echo >'a,b:c\d e/x'; echo >'n
l/x'; echo >stack/x; echo >many/299/x; [ ! -e hid/in ] || echo hidden
echo 2 >bind/sub/f; cat real/sub/f deep/f ro/sub/f; echo 3 >file; cat single; echo 4 >aa/f; cat zz/sub/f
touch ro/new 2>/dev/null && echo written
cp /bin/true noexec; noexec/true 2>/dev/null && echo executed
[ "$(stat -c %d.%i /..)" = "$(stat -c %d.%i /)" ] || echo a way out
grep -vE -e ' - (overlay|devpts|mqueue) ' -e '^([^ ]+ ){5}ro,' /proc/self/mountinfo
rm noexec/true; exit 5)sh"});
  EXPECT_TRUE(outcome.console.starts_with("2\n2\n2\n3\n4\n\nA ")) << outcome.console;
  for (const char *line :
       {"A 0644 root:root 1 @/a,b:c\\\\d e/x\n", "A 0644 root:root 1 @/n\\nl/x\n",
        "M 0644 root:root 2 @/real/sub/f\n", "M 0644 root:root 2 @/single\n",
        "A 0644 root:root 1 @/many/299/x\n", "A 0644 root:root 1 @/stack/x\n"}) {
    std::string want = line;
    want.replace(want.find('@'), 1, here);
    EXPECT_NE(outcome.console.find(want), std::string::npos) << want << outcome.console;
  }
  EXPECT_EQ(WEXITSTATUS(outcome.status), 5);

  const Outcome fixed = preview({"sh", "-c", "echo >x; echo >/usr/x"}, {}, [] {
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0)
      ::_exit(1);
  });
  EXPECT_EQ(changes(fixed.console.substr(fixed.console.find("\n\nA") + 1)),
            "A 0644 root:root 1 " + here + "/x\n");
}

/// What a shell in name spaces of its own prints; `preview` calls the program there.
static std::string apart(const std::string &script, const std::string &input, Via via) {
  const std::string call = "preview() { $as " INSTALLER_PREVIEW " \"$@\"; }\n";
  return run({"-c", call + script}, input, via, {"sh", be_apart, "/bin/sh"}).console;
}

/// Ways out of a view: in /dev of the test's own are a socket, a pipe and the caller's terminals.
static constexpr const char *WaysOut = R"sh(
exec 2>&1
export ASAN_OPTIONS=detect_leaks=0 # there is no /proc of these processes
rm -rf ./*; mkdir d ro; for place in d ro; do mount -t tmpfs none $place; done; mkdir d/pts d/mqueue; touch one
mount --bind /dev/pts d/pts; mknod -m 666 d/null c 1 3; mkfifo d/fifo; mkfifo -m 600 fifo
mount -t mqueue none d/mqueue; touch d/mqueue/queue; mount --rbind d /dev
perl -MSocket -e 'for (@ARGV) {
  socket($s{$_}, AF_UNIX, SOCK_STREAM, 0); bind($s{$_}, sockaddr_un($_)); listen($s{$_}, 9);
  chmod 0666, $_;
} open F, ">ready"; print F 1; close F; sleep 60' /dev/socket ro/socket socket & server=$!
while [ ! -s ready ]; do sleep 0.1; done
mount --bind socket one; mount -o remount,bind,ro ro
perl -e 'msgget(77, 01666); shmget(77, 1, 01666); semget(77, 1, 01666)'
change='for fd in 0 1 2; do chmod 777 /proc/self/fd/$fd; chown 1:1 /proc/self/fd/$fd; done'
)sh";

TEST_F(Preview, NothingLeadsOut) {
  const struct {
    const char *script, *want;
  } rows[] = {
      {R"(preview perl -e 'print ioctl(STDIN, 0x5412, $x = "x") ? "typed" : $!')",
       "Operation not permitted"                                                                                                                      },
      {"preview unshare -U true",                                                                            "unshare failed: Operation not permitted"},
      {R"(stat -Lc '%a %u' /dev/null; preview sh -c "$change" </dev/null; stat -Lc '%a %u.' /dev/null)",
       "666 0."                                                                                                                                       },
      {R"(stat -Lc '%a %u' - ; preview sh -c "$change"; stat -Lc '%a %u.' - )",                              "600 0."                                 },
      {R"(exec 4<>fifo; preview sh -c "$change" >fifo; stat -c '%a %u.' fifo)",                              "600 0."                                 },
      {"trap 'echo hit' TERM; preview sh -c 'kill 0'; echo =$?",                                             "\n=143\r\n"                             },
      {R"(preview perl -MSocket -e 'for (qw(/dev/socket ro/socket one socket)) {
            socket(my $s, AF_UNIX, SOCK_STREAM, 0); connect($s, sockaddr_un($_)); print "$!," }')",
       "Connection refused,Connection refused,Connection refused,Connection refused,"                                                                 },
      {R"(own=$(preview stat -c %i /dev/fifo | head -n 1); test $own -ne $(stat -c %i /dev/fifo) &&
          echo other)",
       "other"                                                                                                                                        },
      {R"(preview perl -e 'print map { $_ // "none," } msgget(77, 0), shmget(77, 1, 0), semget(77, 1, 0)')",
       "none,none,none,"                                                                                                                              },
      {"preview sh -c 'echo $(ls /dev/mqueue /dev/pts); tty'",
       "/dev/mqueue: /dev/pts: 0 ptmx\r\n/dev/pts/0\r\n"                                                                                              },
  };
  for (const char *as : {"", "setpriv --reuid=4711 --regid=4711 --clear-groups"}) {
    std::string script = std::string{WaysOut} + "as='" + as + "'\n";
    for (const auto &r : rows) script += "echo '[row]'\n" + std::string{r.script} + "\n";
    const std::string console = apart(script + "kill $server\n", {}, Via::Pty);
    std::size_t begin = console.find("[row]");
    for (const auto &r : rows) {
      const std::size_t end = console.find("[row]", begin + 1);
      const std::string part = console.substr(begin, end - begin);
      EXPECT_NE(part.find(r.want), part.npos) << as << r.script << part;
      EXPECT_EQ(part.find("hit"), part.npos) << part;
      begin = end;
    }
  }
}

TEST_F(Preview, TerminalIsRelayed) {
  const struct {
    const char *script, *input, *want;
  } rows[] = {
      {"stty cols 77 rows 33; preview stty size",                                                 "",       "33 77\r\n"                      },
      {R"((sleep 0.3; stty cols 55 rows 22 <&2) &
          preview sh -c 'sleep 0.6; echo; sleep 0.2; stty size')",
       "",                                                                                                  "22 55\r\n"                      },
      {R"(preview sh -c 'stty -echo; printf "Key? "; read x; stty echo; echo "[$x]"')",           "abc\n",
       "Key? [abc]\r\n"                                                                                                                      },
      {R"(preview sh -c 'printf "Name? "; read x; echo "[$x]"')",                                 "abc\n",
       "Name? abc\r\n[abc]\r\n"                                                                                                              },
      {R"(preview sh -c 'printf "? "; read x'; echo =$?)",                                        "\3\n",   "=130\r\n"                       },
      {R"(preview sh -c 'printf "? "; cat'; echo =$?)",                                           "",       "=0\r\n"                         },
      {R"(preview sh -c 'printf "? "; read x; echo "[$x]"'; echo =$?)",                           "\x1a\n", "[]\r\n"                         },
      {"preview seq 30000",                                                                       "",       "\n29999\r\n30000\r\n\r\nNothing"},
      {"preview seq 30000 | cksum; preview yes | head -n 1",                                      "",       "2697719541 168917\r\ny\r\n"     },
      {R"(echo | preview sh -c 'printf "Key? "; read x </dev/tty; echo "[$x]"' | cat)",           "abc\n",
       "[abc]\r\n"                                                                                                                           },
      {"stty -g >a; preview sleep 0.5 | cat & sleep 0.3; stty -g >b; cmp a b && echo same; wait",
       "",                                                                                                  "same"                           },
      {"stty -g >a; preview true; stty -g >b; cmp a b && echo same",                              "",       "same"                           },
      {"stty -g >a; for n in KILL USR1 TERM; do " INSTALLER_PREVIEW
       " sh -c 'read x </dev/tty' & sleep 0.5\n"
       "stty -g >b; cmp -s a b || echo raw >>c; kill -$n $!; wait $!; sleep 0.3; stty -g >b\n"
       "cmp a b && echo same >>c; done; tr '\\n' , <c",                                    "",       "raw,same,raw,same,raw,same,"    },
  };
  for (const auto &r : rows) {
    const std::string console = apart(r.script, r.input, Via::Pty);
    EXPECT_NE(console.find(r.want), console.npos) << r.script << console;
  }
}

// ---- Runs ----

TEST_F(Preview, StatusIsTheCommands) {
  const struct {
    Arguments arguments;
    int want;
    const char *told;
    void (*prepare)();
  } rows[] = {
      {{"sh", "-c", "exit 3"},                                    3,             "Nothing would change.",                     nullptr},
      {{"--", "sh", "-c", "echo >x; kill -TERM $$"},              128 + SIGTERM, "/x\n",                                      nullptr},
      {{"sh", "-c", "sleep 100 & setsid sleep 100 & kill -9 $$"}, 128 + SIGKILL, "",                                          nullptr},
      {{"./none"},                                                127,           "./none: No such file",                      nullptr},
      {{"/etc"},                                                  126,           "/etc: Permission denied",                   nullptr},
      {{},                                                        125,           "Usage: installer-preview [-manifest FILE]", nullptr},
      {{"-keep"},                                                 125,           "Usage: ",                                   nullptr},
      {{"-other", "true"},                                        125,           "Usage: ",                                   nullptr},
      {{"-manifest", "none/x", "true"},                           125,           "none/x: No such file",                      nullptr},
      {{"-keep", "none/x", "true"},                               125,           "none/x: No such file",                      nullptr},
      {{"-manifest", ".", "sh", "-c", "echo ran"},
       125,                                                                      "installer-preview: .: Is a directory",
       nullptr                                                                                                                       },
      {{"-manifest", "./", "true"},                               125,           "./: Is a directory",                        nullptr},
      {{"true"},
       125,                                                                      "a standard stream: Is a directory",
       [] { ::dup2(::open(".", O_RDONLY), 0); }                                                                                      },
      {{"true"},
       125,                                                                      "the working directory",
       [] {
         fs::create_directory("d");
         fs::current_path("d");
         fs::remove("../d");
       }                                                                                                                             },
      {{"true"},
       125,                                                                      "the working directory is hidden",
       [] { ::unshare(CLONE_NEWNS), mount_memory(fs::current_path()); }                                                              },
  };
  for (const auto &r : rows) {
    const Outcome outcome = preview(r.arguments, {}, r.prepare);
    EXPECT_EQ(WEXITSTATUS(outcome.status), r.want) << outcome.console;
    EXPECT_NE(outcome.console.find(r.told), std::string::npos) << outcome.console << r.told;
  }
}

TEST_F(Preview, NeedsNameSpaces) {
  if (!can_have_view(become_user)) GTEST_SKIP() << "no user name space, whose limits are its own";
  const Outcome outcome = preview({"true"}, {}, [] {
    if (::unshare(CLONE_NEWUSER) != 0) ::_exit(1); // else the limit would be the machine's
    write_file("/proc/sys/user/max_mnt_namespaces", "0");
  });
  EXPECT_EQ(WEXITSTATUS(outcome.status), 125);
  EXPECT_NE(outcome.console.find("sysctl user.max_user_namespaces"), std::string::npos);
}

TEST_F(Preview, RunsEndWithThePreview) {
  const auto start = std::chrono::steady_clock::now();
  for (const auto &[signal, want] : Tree{
           {"TERM", "=143\n"},
           {"HUP",  "=129\n"},
           {"KILL", "=137\n"}
  }) {
    // The console ends only when the last process is gone that can write to it.
    const std::string script = INSTALLER_PREVIEW
                               " sh -c 'setsid sleep 40 & echo >x; sleep 40' & p=$!;"
                               "sleep 0.4; kill -" +
                               signal + " $p; wait $p; echo =$?";
    const std::string console = shell(script).console;
    EXPECT_TRUE(console.ends_with(want)) << console;
    EXPECT_EQ(console.find("/x\n") != console.npos, signal != "KILL") << console;
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds{40});
  EXPECT_FALSE(fs::exists("x"));
}

/// The time that ended children have worked, in seconds.
static double worked() {
  struct ::rusage usage = {};
  ::getrusage(RUSAGE_CHILDREN, &usage);
  const auto seconds = [](const ::timeval &t) {
    return static_cast<double>(t.tv_sec) + 1e-6 * static_cast<double>(t.tv_usec);
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

TEST_F(Preview, WaitsWithoutWork) {
  const double before = worked();
  EXPECT_EQ(preview({"true"}).status, 0);
  const double start = worked();
  EXPECT_EQ(preview({"sleep", "3"}, "unread").status, 0);
  EXPECT_LT(worked() - start, start - before + 0.3);
}

TEST_F(Preview, TreesOfAnyDepthAndSize) {
  int directory = ::open(".", O_RDONLY);
  for (int level = 0; level < 900; ++level) {
    ::mkdirat(directory, "down", 0755);
    directory = ::dup3(::openat(directory, "down", O_RDONLY), directory, 0);
    ::close(directory + 1);
  }
  ::close(::openat(directory, "bottom", O_CREAT | O_WRONLY, 0644));
  ::close(directory);
  std::string console = preview({"-manifest", "sums", "mv", "down", "up"}).console;
  EXPECT_EQ(std::ranges::count(console, '\n'), 1 + 1 + 901 + 2);
  EXPECT_NE(console.find(here + "/down/ (900 entries)\n"), console.npos);
  EXPECT_NE(console.find("/down/bottom\n"), console.npos);
  EXPECT_TRUE(read_file("sums").starts_with(
      "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855  " + here + "/up/down/"));
  console =
      preview({"-manifest", "sums", "sh", "-c",
               "mkdir a b; seq -f a/%.0f 4000 | xargs touch; seq -f b/%.0f 250 | xargs touch"})
          .console;
  EXPECT_EQ(std::ranges::count(console, '\n'), 1 + 4252 + 2);
  EXPECT_EQ(std::ranges::count(read_file("sums"), '\n'), 4250);
}

TEST_F(Preview, KeepsItsLayers) {
  write_file("old", "1");
  ASSERT_TRUE(mount_memory("disk", "size=1m"));
  const Outcome outcome =
      preview({"-keep", "disk/k", "sh", "-c", "echo >new; rm old; head -c 9m /dev/zero >big"});
  EXPECT_EQ(WEXITSTATUS(outcome.status), 1) << outcome.console; // the view was full
  EXPECT_NE(outcome.console.find("A 0644 root:root 1 " + here + "/new\n"), std::string::npos);
  const std::string told =
      shell("cd disk/k && find . -name new; find . -name old -printf '%y\\n'; readlink */mount")
          .console;
  EXPECT_TRUE(told.ends_with("/files/new\nc\n" + here + "\n")) << told;
  EXPECT_EQ(WEXITSTATUS(preview({"-keep", "disk/k", "true"}).status), 125);
}

TEST_F(Preview, UsersHaveAViewOfTheirOwn) {
  if (!can_have_view(become_user)) GTEST_SKIP() << "no user name space";
  ASSERT_EQ(::chown(here.c_str(), SomeUser, SomeUser), 0);
  const std::string program = here + "/program"; // users may be kept out of the original's place
  fs::copy_file(INSTALLER_PREVIEW, program);
  const auto as_user = [&](const Arguments &arguments) {
    return preview(arguments, {}, become_user, Via::Pipe, program).console;
  };
  write_file("mine", "1");
  ASSERT_EQ(::chown("mine", SomeUser, SomeUser), 0);
  write_file("theirs", "1");
  fs::create_directories("roots/own");
  ASSERT_EQ(::chown("roots/own", SomeUser, SomeUser), 0);
  fs::current_path("roots/own");
  const std::string below = as_user({"sh", "-c", "echo >x; mkdir y; echo >y/x"});
  for (const char *added : {"/own/x\n", "/own/y/\n", "/own/y/x\n"})
    EXPECT_NE(below.find(added), below.npos) << below;
  fs::current_path(here);
  const std::string console = as_user(
      {"sh", "-c",
       "id -u; echo >new; echo 22 >mine; echo >>theirs; echo >/etc/x; mkdir d; chmod 0 new"});
  EXPECT_TRUE(console.starts_with("installer-preview: an ordinary user's view: "));
  const std::string want =
      "\nA 0755 4711:4711 - @/d/\nM 0644 4711:4711 1->3 @/mine\nA 0000 4711:4711 1 @/new\n\n";
  EXPECT_NE(console.find(std::regex_replace(want, std::regex{"@"}, here)), std::string::npos)
      << console;
  EXPECT_EQ(console.find("/etc/x\n"), std::string::npos) << console;
  // Where something covers a part of it, the system gives a user no new process file system.
  ASSERT_EQ(::mount("none", "/proc/fs", "tmpfs", 0, nullptr), 0);
  const std::string covered = as_user({"cat", "/proc/self/comm"});
  EXPECT_NE(covered.find("\ncat\n"), std::string::npos) << covered;
  ::umount("/proc/fs");
}

// ---- Products ----

/// The demo product in the working directory "product".
static void make_demo() {
  fs::copy(INSTALLER_SOURCE_DIR "/examples/demo", "product", fs::copy_options::recursive);
  fs::copy(INSTALLER_PROGRAM, "product/noticeboard");
  fs::current_path("product");
}

/// The lines that a preview should have for the entries below `path` if all of them were new.
static std::string as_added(const std::string &path) {
  std::map<std::string, std::string> lines;
  for (const fs::directory_entry &entry : fs::recursive_directory_iterator{path}) {
    struct ::stat s = {};
    ::lstat(entry.path().c_str(), &s);
    char mode[8];
    snprintf(mode, sizeof mode, "%04o", s.st_mode & 07777U);
    const bool folder = entry.is_directory();
    lines[entry.path().string() + (folder ? "/" : "")] =
        "A " + std::string{mode} + " root:root " + (folder ? "-" : std::to_string(s.st_size));
  }
  std::string text;
  for (const auto &[name, line] : lines) text += line + " " + name + "\n";
  return text;
}

TEST_F(Preview, ShowsWhatTheDemoInstalls) {
  make_demo();
  for (const Via via : {Via::Pipe, Via::Pty}) {
    const bool asks = via == Via::Pty;
    Arguments arguments{"-manifest", here + "/sums", "./noticeboard"};
    if (!asks) arguments.emplace_back("-automate");
    Outcome outcome = preview(arguments, asks ? std::string(20, '\n') : "", nullptr, via);
    std::erase(outcome.console, '\r');
    EXPECT_EQ(outcome.status, 0);
    const std::string told = outcome.console.substr(outcome.console.find("\n\nA ") + 1);
    EXPECT_FALSE(fs::exists("../noticeboard"));
    ASSERT_EQ(run({"-automate"}, {}, Via::Pipe, {.name = "./noticeboard"}).status, 0);
    const std::string added = as_added(here + "/noticeboard");
    EXPECT_NE(told.find(added), told.npos) << outcome.console << added;
    EXPECT_EQ(shell("sha256sum --quiet -c ../sums").console, "");
    fs::remove_all("../noticeboard");
    for (const char *name : {"noticeboard.log", "last_start"}) fs::remove(name);
  }
}

TEST_F(Preview, RoundTrips) {
  make_demo();
  const Arguments round_trip{"-round-trip", "./noticeboard"};
  Outcome outcome = preview(round_trip);
  EXPECT_EQ(outcome.status, 0) << outcome.console;
  for (const char *text :
       {"[Install]", "[Upgrade]", "[remove]", "The round trip leaves nothing.\n"})
    EXPECT_NE(outcome.console.find(text), std::string::npos) << outcome.console;
  const std::string script = read_file("noticeboard.cpy");
  const std::size_t remove = script.find("[remove]");
  write_file("noticeboard.cpy", script.substr(0, remove) + "[remove]\n");
  outcome = preview(round_trip);
  EXPECT_EQ(WEXITSTATUS(outcome.status), 1);
  EXPECT_NE(outcome.console.find(here + "/noticeboard/conf/board.conf\n"), std::string::npos);
  write_file("noticeboard.cpy", "[install]\n");
  EXPECT_EQ(WEXITSTATUS(preview(round_trip).status), 1);
  EXPECT_EQ(WEXITSTATUS(preview({"-round-trip", "sh", "-c", "echo >x; exit 7"}).status), 7);
}

// ---- Forms ----

TEST(PreviewForms, MountListsAreRead) {
  const struct {
    const char *line, *point, *root, *type;
    bool read_only;
  } rows[] = {
      {"22 27 0:21 / /proc rw,relatime - proc proc rw", "/proc",      "/",    "proc",  false},
      {"36 35 98:0 /m\\0401 /a\\134b\\012c\\011 rw master:1 shared:7 - ext3 /dev/root "
       "rw,errors=x",                            "/a\\b\nc\t", "/m 1", "ext3",  false},
      {"36 35 98:0 / /x ro,noexec - tmpfs  rw,size=4k", "/x",         "/",    "tmpfs", true },
      {"36 35 98:0 / /x rw - tmpfs  ro",                "/x",         "/",    "tmpfs", true },
  };
  for (const auto &r : rows) {
    std::istringstream list{r.line};
    const std::vector<preview::Mount> mounts = preview::mounts_parse(list);
    ASSERT_EQ(mounts.size(), 1U) << r.line;
    EXPECT_EQ(mounts[0].point + "|" + mounts[0].root + "|" + mounts[0].type,
              std::string{r.point} + "|" + r.root + "|" + r.type);
    EXPECT_EQ(mounts[0].read_only, r.read_only) << r.line;
  }
}

TEST(PreviewForms, NamesAreEscaped) {
  const struct {
    std::string name, want;
  } rows[] = {
      {"a b",                                  "a b"                           },
      {"\n\t\\\r\x7f",                         "\\n\\t\\\\\\015\\177"          },
      {"\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80", "ä€😀"                     },
      {"\xc2\x9b\xc0\x80\xe2\x82",             "\\302\\233\\300\\200\\342\\202"},
      {"\xed\xa0\x80\xff",                     "\\355\\240\\200\\377"          },
      {"\xe2\x80\xae",                         "\\342\\200\\256"               },
  };
  for (const auto &r : rows) EXPECT_EQ(preview::report_name(r.name), r.want);
}

} // namespace installer::test
