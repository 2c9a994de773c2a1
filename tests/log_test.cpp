#include "installer/log.h"
#include "tests/support.h"

#include <gtest/gtest.h>

#include <csignal>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace installer::test {

struct LogTest : testing::Test {
  const TempDir dir;
  Log x = log_init(LogDebug);

  LogTest() { log_set(x); }
  ~LogTest() override { log_set(nullptr), log_free(&x); }
  void write_lines(int first, int last) const {
    for (int i = first; i <= last; ++i) log_line(x, std::to_string(i).c_str(), LogInfo);
  }
  /// What stands in the log when it has been opened, reported to and closed.
  std::string logged(void (*report)(const char *, ...) = nullptr, std::size_t length = 0) const {
    fs::remove("log");
    EXPECT_EQ(log_open(x, "log"), 1);
    errno = ENOTTY;
    if (report != nullptr) report(nullptr), report("%s!", std::string(length, 'x').c_str());
    EXPECT_TRUE(report == nullptr || errno == ENOTTY);
    log_close(x);
    return read_log("log");
  }
};

TEST_F(LogTest, LevelsAndCuts) {
  const std::string cut(999, 'x');
  const struct {
    LogLevel level;
    void (*report)(const char *, ...);
    std::size_t length;
    std::string line;
  } rows[] = {
      {LogDebug, emsg, 2,    "Error: xx!\n"                   },
      {LogDebug, imsg, 2,    "Info: xx!\n"                    },
      {LogDebug, dmsg, 1500, "Debug: " + cut + "\n"           },
      {LogInfo,  imsg, 1500, "Info: " + cut + "\n"            },
      {LogInfo,  emsg, 999,  "Error: " + cut + "\n"           },
      {LogInfo,  dmsg, 2,    ""                               },
      {LogError, emsg, 998,  "Error: " + cut.substr(1) + "!\n"},
      {LogError, imsg, 2,    ""                               },
      {LogNone,  emsg, 2,    ""                               },
  };
  for (const auto &row : rows) {
    log_set_level(x, row.level);
    EXPECT_EQ(logged(row.report, row.length), row.line) << row.level << row.line;
  }
}

TEST_F(LogTest, ErrorsWaitForALogThatTakesThem) {
  const auto wait = [&](LogLevel level, Log current, const char *error) {
    log_set_level(x, level);
    log_set(current);
    emsg("%s", error);
  };
  log_set(nullptr);
  logged(); // errors of earlier tests
  wait(LogNone, x, "silent");
  wait(LogDebug, nullptr, "early");
  EXPECT_EQ(logged(), "Error: silent\nError: early\n");
  EXPECT_EQ(logged(), "");
  EXPECT_EQ(log_open(x, "log"), 1);
  EXPECT_EQ(x->Size, read_file("log").size());
}

TEST_F(LogTest, SixRotationsKeepFiveBackups) {
  EXPECT_EQ(log_open(x, "log"), 1);
  log_doflush(x, 6);
  write_lines(10, 10);
  x->Rotate = 3 * x->Size; // reached by every third line
  write_lines(11, 29);
  EXPECT_EQ(read_log("log"), "Info: 28\n"); // 29 waits for the next flush
  EXPECT_EQ(read_log("log0"), "Info: 25\nInfo: 26\nInfo: 27\n");
  EXPECT_EQ(read_log("log4"), "Info: 13\nInfo: 14\nInfo: 15\n");
  EXPECT_EQ(read_tree(".").size(), 6U);
  for (const auto &entry : fs::directory_iterator{"."})
    EXPECT_EQ(entry.status().permissions(), fs::perms{0600}) << entry;
}

TEST_F(LogTest, FileThatCannotBeMovedKeepsItsBackups) {
  const std::string name(250, 'l'); // too long for the temporary name, not for the back-ups
  for (const char *number : {"0", "1", "2", "3", "4"}) write_file(name + number, number);
  EXPECT_EQ(log_open(x, name.c_str()), 1);
  x->Rotate = 100;
  log_doflush(x, 1);
  write_lines(11, 14);
  EXPECT_EQ(read_log(name), "Info: 11\nInfo: 12\nInfo: 13\nInfo: 14\n");
  for (const char *number : {"0", "1", "2", "3", "4"}) EXPECT_EQ(read_file(name + number), number);
  fs::remove(name); // it would come back if every line tried again
  write_lines(15, 15);
  EXPECT_FALSE(fs::exists(name));
  write_file("other", std::string(x->Held, '\n')); // does not wait for the file that failed
  EXPECT_EQ(log_open(x, "other"), 1);
  write_lines(16, 16);
  EXPECT_TRUE(fs::exists("other0"));
}

TEST_F(LogTest, OnlyPlainPlacesOpen) {
  fs::create_directory("place");
  ASSERT_EQ(::mkfifo("pipe", 0600), 0);
  fs::create_symlink("pipe", "to_pipe");
  fs::create_symlink("/dev/null", "to_null");
  for (const char *wrong : {"place", "pipe", "to_pipe", "/dev/full", "no/such"}) {
    EXPECT_EQ(log_open(x, wrong), 0) << wrong;
    write_lines(1, 1);
    EXPECT_STREQ(x->File, "");
  }
  if (::geteuid() == 0) {
    write_file("theirs", "");
    EXPECT_EQ(::chown("theirs", 1, 1), 0);
    EXPECT_EQ(log_open(x, "theirs"), 0);
    write_file("ours", "");
    for (const char *target : {"ours", "/etc/passwd", "nothing"}) {
      fs::remove("planted");
      fs::create_symlink(target, "planted");
      EXPECT_EQ(::lchown("planted", 1, 1), 0);
      EXPECT_EQ(log_open(x, "planted"), 0) << target;
    }
    EXPECT_FALSE(fs::exists("nothing"));
  }
  write_file("open", "");
  fs::permissions("open", fs::perms{0666});
  EXPECT_EQ(log_open(x, "open"), 1);
  EXPECT_EQ(fs::status("open").permissions(), fs::perms{0600});
  fs::create_hard_link("open", "second");
  EXPECT_EQ(log_open(x, "open"), 0);
  EXPECT_EQ(log_open(x, "to_null"), 1);
  log_rotate(x); // moves regular files only
  EXPECT_TRUE(fs::is_symlink("to_null") && !fs::exists("to_null0"));
  EXPECT_EQ(log_open(x, "place/log"), 1);
  write_lines(2, 2);
  fs::rename("place", "gone");
  EXPECT_EQ(log_rotate(x), 0);
  write_lines(3, 3);
  fs::rename("gone", "place");
  write_lines(4, 4);
  log_close(x);
  EXPECT_EQ(read_log("place/log"), "Info: 2\nInfo: 4\n");
}

TEST_F(LogTest, OnlyWrittenCharactersCount) {
  const struct ::rlimit small = {200, RLIM_INFINITY}, large = {RLIM_INFINITY, RLIM_INFINITY};
  std::signal(SIGXFSZ, SIG_IGN);
  log_open(x, "log");
  log_doflush(x, 1);
  ::setrlimit(RLIMIT_FSIZE, &small);
  write_lines(1, 9);
  ::setrlimit(RLIMIT_FSIZE, &large);
  EXPECT_LE(x->Size, 200U);
}

} // namespace installer::test
