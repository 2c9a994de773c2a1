// Runs that automation can trust, through the real program: exit statuses and reasons of strict
// runs, answers from a file, the record of answers, the lock.

#include "installer/log.h"
#include "tests/support.h"

#include <gtest/gtest.h>

#include <csignal>
#include <regex>
#include <set>
#include <sstream>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace installer::test {

/// The product "pkg": its install makes `out`. Root has no file that it cannot read, so a pipe lies
/// where that is wanted.
static void write_product() {
  write_file("pkg.dat", "product P\nport 80\nmissing /none/x\n");
  write_file("pkg.int", "RFile absent x - -\n");
  write_file("pkg.q", "[install]\nText port - - h Port\nYN sure port 81 h Sure\n[remove]\n[w]\n"
                      "Dir dir - - h Dir\nFileName name - - h Name\n[none]\n");
  write_file("pkg.cpy", "[install]\nMkDir out\nCopyDir src/* - $(current_dir)/out\n"
                        "WFile out/port port\n[remove]\nRmFile out/port -\nRmDir out -\n"
                        "[w]\nMkDir out\nWFile out/dir dir\nWFile out/name name\n");
  write_file("blurb.txt", "Bye\n");
  write_file("src/deep/b", "2");
  write_file("src/a", "1");
  fs::create_symlink("loop", "loop");
}

static void catch_errors() { ::dup2(::open("errors", O_WRONLY | O_CREAT | O_TRUNC, 0600), 2); }

struct Result {
  int status;
  std::string console, reasons;
};

/// A run with these arguments, separated by blanks.
static Result run_with(const std::string &arguments, const std::string &input = {},
                       void (*prepare)() = catch_errors) {
  std::istringstream words{arguments};
  const std::vector<std::string> list{std::istream_iterator<std::string>{words}, {}};
  const Outcome outcome = run(list, input, Via::Pipe, {.prepare = prepare});
  return {WEXITSTATUS(outcome.status), outcome.console, read_file("errors")};
}

/// What is different about a product: a file with that text, "-" for none, "|" for a pipe, "/" for
/// a directory. "PWD" in the reasons is the product's folder.
struct Row {
  std::string arguments, file, text;
  int status;
  std::string reasons, input = {};
};

static void change_product(const Row &row) {
  fs::remove(row.file);
  if (row.text == "|") ::mkfifo(row.file.c_str(), 0600);
  else if (row.text == "/") fs::create_directory(row.file);
  else if (!row.file.empty() && row.text != "-") write_file(row.file, row.text);
}

static void expect(const Row &row) {
  SCOPED_TRACE(row.arguments + " " + row.file + " " + row.text);
  const TempDir dir;
  write_product();
  change_product(row);
  const Result result = run_with(row.arguments, row.input);
  std::string reasons = row.reasons;
  for (std::size_t at = 0; (at = reasons.find("PWD")) != reasons.npos;)
    reasons.replace(at, 3, dir.path());
  EXPECT_EQ(result.status, row.status) << result.console;
  EXPECT_EQ(result.reasons.substr(0, result.reasons.find("Usage:")), reasons);
  EXPECT_EQ(fs::exists("out"), row.status < 2) << result.console;
  const bool installed = row.status == 0 && row.arguments.find("-special") == row.arguments.npos;
  EXPECT_EQ(result.console.find("\nBye\n") != std::string::npos, installed) << result.console;
  const std::string log = fs::is_regular_file("pkg.log") ? read_log("pkg.log") : "";
  std::istringstream lines{log.empty() ? "" : reasons};
  for (std::string line; std::getline(lines, line);)
    EXPECT_NE(log.find("Error: " + line + "\n"), log.npos) << log;
  EXPECT_EQ(log.find("Copy script completed successfully") != log.npos, row.status == 0) << log;
}

static const std::string Go = "-automate -strict";

TEST(Strict, Begins) {
  const std::string to = "[install]\nMkDir out\n", full = ": No space left on device\n";
  expect({"-strict -debug -automate -debug -strict -automate", {}, {}, 0, ""});
  expect({Go, "pkg.q", "[install]\nYN port - - h Port\n", 0, ""});
  expect({"-strict", {}, {}, 0, "", "1\n82\n\n"});
  expect({"-strict", "pkg.q", "[install]\nYN port - - h Port\n", 0, "", "1\nmaybe\ny\n\n"});
  expect({Go, "src/deep/p", "|", 1,
          "pkg: pkg.cpy:3: CopyDir: cannot read: src/deep/p: Operation not supported\n"});
  expect({Go, "pkg.cpy", to + "MkDir out/a\nCopyDir src/* - $(current_dir)/out\nRmDir out -\n", 1,
          "pkg: pkg.cpy:4: CopyDir: cannot write: PWD/out/a: Is a directory\n"});
  expect({Go + " -special remove", "pkg.cpy",
          "[remove]\nMkDir out/d\nRename out/d out/e/f\nRmDir out -\n", 1,
          "pkg: pkg.cpy:3: Rename: cannot rename: out/d: No such file or directory\n"});
  expect({Go, "pkg.cpy", to + "WFile /dev/full port\n", 1,
          "pkg: pkg.cpy:3: WFile: cannot write: /dev/full" + full});
  expect({Go, "pkg.cpy", to + "#" + std::string(2000, '#') + "\nRmFile none -\n", 1,
          "pkg: pkg.cpy:4: RmFile: nothing matches: none\n"});
  expect({Go, "pkg.cpy", to + "Error port No\\n\nChmod none/* - 644\n", 1,
          "pkg: pkg.cpy:4: Chmod: cannot list: none/: No such file or directory\n"});
  expect({Go + " -special remove", "pkg.cpy",
          "[remove]\nMkDir out\nRmFile none/x -\nRmDir none -\nRmDir src/* b\n", 0, ""});
  if (has_proc()) {
    expect({Go + " -special remove", "pkg.cpy",
            "[remove]\nMkDir out\nRmFile /proc/self/stat -\nRmDir out -\n", 1,
            "pkg: pkg.cpy:3: RmFile: cannot remove: /proc/self/stat: Operation not permitted\n"});
  }
}

/// What is a failure in strict runs only.
TEST(Strict, BelievesNothingThatCannotBeKnown) {
  const std::string to = "[install]\nMkDir out\n", script = "pkg: pkg.cpy:3: ";
  const std::string circle = "loop: Too many levels of symbolic links\n";
  expect({Go, "pkg.cpy", to + "Chown src/none - root:no-group\n", 1,
          script + "Chown: no such group: no-group\n"});
  expect({Go, "pkg.cpy", to + "Exist loop a\n", 1, script + "Exist: cannot test: " + circle});
  expect({Go, "pkg.cpy", to + "MkDir ./loop/\n", 1,
          script + "MkDir: cannot create directory: ./" + circle});
  expect({Go, "pkg.cpy", to + "MkDir src/a\n", 1,
          script + "MkDir: cannot create directory: src/a: File exists\n"});
  expect({Go, "pkg.cpy", to + "MkDir src/e\nWFile out/e port\nCopyDir src/e - ./out\n", 1,
          "pkg: pkg.cpy:5: CopyDir: cannot enter: ./out/e: Not a directory\n"});
  expect({Go, "pkg.int", "Exist loop a - -\n", 2, "pkg: pkg.int:1: Exist: cannot test: " + circle});
  expect(
      {Go, "pkg.q", "[install]\nExist loop e\n", 2, "pkg: pkg.q:2: Exist: cannot test: " + circle});
  const TempDir dir;
  write_product();
  write_file("pkg.int", "Exist loop a - -\n");
  write_file("pkg.q", "[install]\nExist loop e\n");
  write_file("pkg.cpy", "[install]\nExist loop a\nMkDir loop\nMkDir src/a\nMkDir out\n");
  EXPECT_NE(run_with("-automate").console.find("Success 0 bytes in 4 files"), std::string::npos);
  EXPECT_EQ(read_log("pkg.log").find("Error"), std::string::npos) << read_log("pkg.log");
}

TEST(Strict, DoesNotBegin) {
  const std::string q = "pkg: pkg.q:2: ";
  expect({Go + " -x\u009b\x1b\u202e",
          {},
          {},
          2,
          "pkg: unknown argument: -x\\302\\233\\033\\342\\200\\256\n"});
  expect({Go + " -special", {}, {}, 2, "pkg: option without its value: -special\n"});
  for (const char *option : {"-answers", "-record", "-strict -special"}) {
    const std::string last = option[1] == 's' ? "-special" : option;
    expect({std::string{option} + " w " + last + " w",
            {},
            {},
            2,
            "pkg: option given twice: " + last + "\n"});
  }
  expect({"-answers", {}, {}, 2, "pkg: option without its value: -answers\n"});
  expect({Go, "pkg.log", "/", 2, "pkg: pkg.log: cannot open the log: Is a directory\n"});
  expect({Go, "pkg.dat", "-", 2,
          "pkg: pkg.dat: Error opening 'PWD/pkg.dat' for read, No such file or directory\n"});
  expect({Go, "pkg.int", "-", 2,
          "pkg: pkg.int: Failed to read 'PWD/pkg.int', No such file or directory\n"});
  expect(
      {Go, "pkg.q", "-", 2, "pkg: pkg.q: Error opening 'PWD/pkg.q', No such file or directory\n"});
  expect({Go, "pkg.cpy", "-", 2,
          "pkg: pkg.cpy: Error opening 'PWD/pkg.cpy', No such file or directory\n"});
  expect({Go + " -special x", {}, {}, 2, "pkg: pkg.q: Section 'x' not found\n"});
  expect({Go + " -special none", {}, {}, 2, "pkg: pkg.cpy: Section 'none' not found\n"});
  expect({Go, "pkg.int", "#\nExist a\nexist a b - -\n", 2,
          "pkg: pkg.int:2: Exist: Too few words\npkg: pkg.int:3: Unknown init command 'exist'\n"});
  expect({Go, "pkg.int", "WFile $(missing) a - -\n", 2,
          "pkg: pkg.int:1: WFile: cannot write: /none/x: No such file or directory\n"});
  expect({Go, "pkg.int", "RFile src a - -\n", 2,
          "pkg: pkg.int:1: RFile: cannot read: src: Is a directory\n"});
  expect({Go, "pkg.q", "[Install]\nText a\nText a b\nText a b c d\nError e\nexist a\nLoop l\n", 2,
          q + "Text: the control is missing in [Install]\n" +
              "pkg: pkg.q:3: Text: the comparison is missing in [Install]\n" +
              "pkg: pkg.q:4: Text: the text is missing in [Install]\npkg: pkg.q:5: Error: the help "
              "word is missing in [Install]\n"
              "pkg: pkg.q:6: exist: the setting is missing in [Install]\npkg: pkg.q:7: Loop: the "
              "number is missing in [Install]\n"});
  expect({Go, "pkg.q", "[install]\nText port - - h " + std::string(999, 'x') + " x\n", 2,
          q + "The line is too long in [install]\n"});
  expect({Go, "pkg.cpy", "[install]\nMkDir a\nCopyFile a - " + std::string(999, 'x') + " y\n", 2,
          "pkg: pkg.cpy:3: The line is too long in [install]\n"});
  expect({Go, "pkg.cpy", "[install]\nMkDr out\nMkDir\nCopyFile a -\nChmod a\nWFile x\n", 2,
          "pkg: pkg.cpy:2: Unknown copy type 'MkDr' in [install]\npkg: pkg.cpy:3: MkDir: the path "
          "is missing in [install]\n"
          "pkg: pkg.cpy:4: CopyFile: the destination is missing in [install]\npkg: pkg.cpy:5: "
          "Chmod: the exclusion list is missing in [install]\n"
          "pkg: pkg.cpy:6: WFile: the value is missing in [install]\n"});
  expect({Go, "pkg.q", "[install]\nDirExist missing - - h x\n", 2,
          q + "missing: Directory '/none/x' must exist\n"});
  expect({Go, "pkg.q", "[install]\nText a - - h x\n", 2,
          q + "a: There is neither an answer nor a default\n"});
  expect({Go, "pkg.q", "[install]\nExist none e\nError e h No\n", 2, "pkg: pkg.q:3: Error: No\n"});
  const std::string error = "]\nExist none e\nError e h No $(port)\n";
  expect({Go + " -special w", "pkg.q", "[w" + error, 2, "pkg: pkg.q:3: Error: No $(port)\n"});
  expect({"-strict", "pkg.q", "[remove" + error, 2, "pkg: pkg.q:3: Error: No $(port)\n", "3\n"});
  expect({"-strict", "pkg.q", "[upgrade" + error, 2, "pkg: pkg.q:3: Error: No 80\n", "2\n"});
  expect({Go, "pkg.q", "[install]\nExist none e\nLoop e 0\n", 2,
          "pkg: pkg.q:3: Loop: The questions repeat without end\n"});
  expect(
      {Go, "pkg.q", "[install]\nText port - - h x\nFile missing - - h x\nExist none e\nLoop e 1\n",
       2,
       "pkg: pkg.q:5: Loop: The questions repeat without end, the answer to 'missing' was refused "
       "last\n"});
  expect({Go, "pkg.q", "[install]\nText port - - h x\nExist none e\nLoop e 1\n", 2,
          "pkg: pkg.q:4: Loop: The questions repeat without end\n"});
  expect({Go, "pkg.dat", "port q\n", 2, q + "port: The default is 'q', which quits\n"});
  expect({Go, "pkg.dat", "port B\n", 2, q + "port: The default is 'b', which goes back\n"});
  expect({"-strict", {}, {}, 3, "", "4\n"});
  expect({"-strict", {}, {}, 3, ""});
  expect({"-strict", {}, {}, 3, "", "1\nq\n4\n"});
  expect({"-strict -special w", {}, {}, 3, "", "q\n"});
  expect({"-strict", {}, {}, 3, "", "1\n82\n"});
}

TEST(Strict, SaysAnErrorOnceOnATerminal) {
  if (!has_terminals()) GTEST_SKIP() << "no pseudo-terminals";
  const struct {
    const char *questions, *error;
  } rows[] = {
      {"YN port - - h x\nDirExist missing - - h x", "Directory '/none/x' must exist"  },
      {"Exist none e\nError e h No",                "No\r\n"                          },
      {"Exist none e\nLoop e 0",                    "The questions repeat without end"},
      {"Text back - - h x",                         " go"                             },
  };
  for (const auto &row : rows) {
    const TempDir dir;
    write_product();
    write_file("pkg.dat", read_file("pkg.dat") + "back b\n");
    write_file("pkg.q", std::string{"[install]\n"} + row.questions);
    const std::string console = run({"-automate", "-strict"}, {}, Via::Pty).console;
    const std::size_t told = console.find(row.error);
    EXPECT_TRUE(told != console.npos && told == console.rfind(row.error)) << console;
  }
}

TEST(Strict, TellsOfAConsoleOrALogThatLosesLines) {
  const auto no_console = [] { catch_errors(), ::dup2(::open("/dev/full", O_WRONLY), 1); };
  const auto no_log = [] {
    const struct ::rlimit small = {600, RLIM_INFINITY};
    catch_errors(), ::setrlimit(RLIMIT_FSIZE, &small);
  };
  const struct {
    void (*prepare)();
    const char *reason;
  } rows[] = {
      {no_console, "pkg: cannot write to the console: No space left on device\n"},
      {no_log,     "pkg: cannot write to the log: "                             }
  };
  for (const auto &row : rows) {
    const TempDir dir;
    write_product();
    const Result result = run_with(Go, {}, row.prepare);
    EXPECT_EQ(result.status, 1) << row.reason;
    EXPECT_TRUE(result.reasons.starts_with(row.reason)) << result.reasons;
    EXPECT_TRUE(fs::exists("out/port")) << row.reason;
  }
}

TEST(Strict, LogTellsTheWayOfARun) {
  const struct {
    std::string arguments, script;
    std::vector<const char *> lines;
  } rows[] = {
      {Go,
       "[install]\nMkDir out\nCopyDir src/* - $(current_dir)/out\nWFile out/port port\n", {"Info: pkg.cpy:2 MkDir\nDebug: Processing [", "Info: created out\n",
        "Info: pkg.cpy:3 CopyDir\n", "out/a\n", "Info: pkg.cpy:4 WFile\n",
        "Info: Outcome 0, complete: 3 commands, 5 files, 2 bytes, 0 failures, "}},
      {"-automate",
       "[install]\nMkDir out\nCopyFile none/*.x - $(current_dir)/out\nMkDir no\n",        {"Info: Processing copy script...\nDebug: Processing [260:out->,,,]\n",
        "Info: No files found to copy in 'none/' matching '*.x'\nInfo: Stop on fail set, "
        "stopping...\n"}                                                               },
      {"-automate -special remove",
       "[remove]\nRmFile none -\nMkDir no port 9\nMkDir out\n",                           {"Info: Stop on fail NOT set, continuing...\n",
        "Debug: Doing nothing due to controlling setting\n", "Debug: Directory created 'out'\n",
        "Info: Copy script completed successfully\n"}                                                     },
  };
  for (const auto &row : rows) {
    const TempDir dir;
    write_product();
    write_file("pkg.cpy", row.script);
    run_with(row.arguments);
    EXPECT_TRUE(fs::exists("out") && !fs::exists("no"));
    const std::string log = read_log("pkg.log");
    std::size_t at = 0;
    for (const char *line : row.lines) {
      EXPECT_NE(at = log.find(line, at), log.npos) << line << log;
      if (at == log.npos) break;
    }
  }
}

TEST(Strict, SecondRunOfTheProductEndsAtOnce) {
  const TempDir dir;
  write_product();
  take_errors(); // of tests before this one
  Log x = log_init(LogDebug);
  ::pid_t holder = 0;
  EXPECT_EQ(log_open(x, "pkg.log"), 1);
  EXPECT_FALSE(log_lock(x, holder));
  const std::string in_use = "pkg: pkg.log: in use by process " + std::to_string(::getpid()) + "\n";
  const auto expect_kept_out = [&](const char *when) {
    const std::string log = read_log("pkg.log");
    const Result second = run_with(Go);
    EXPECT_EQ(second.status, 2) << when;
    EXPECT_EQ(second.reasons, in_use) << when;
    EXPECT_EQ(second.console + read_log("pkg.log"), log) << when;
  };
  expect_kept_out("at the start");
  x->Rotate = 1;
  log_line(x, "line", LogInfo);
  expect_kept_out("after it has turned its log over");
  write_file("pkg.log", std::string(1 << 20, '\n'));
  EXPECT_EQ(run_with("-automate").status, 0); // neither takes nor heeds it
  EXPECT_TRUE(fs::exists("out"));
  EXPECT_EQ(read_log("pkg.log1"), "Info: line\n");
  expect_kept_out("after another run has turned it over");
  for (const char *file : {"pkg.dat", "pkg.int", "pkg.q", "pkg.cpy"})
    fs::copy(file, "other" + std::string{file}.substr(3));
  const Outcome other = run({"-automate", "-strict"}, {}, Via::Pipe, {.name = "./other"});
  EXPECT_EQ(other.status, 0) << other.console;
  log_free(&x);
  EXPECT_FALSE(fs::exists("pkg.log.lock") || fs::exists("other.log.lock"));
}

TEST(Strict, LockThatIsThereIsUsedWhenNobodyHasIt) {
  const struct {
    const char *text;
    bool stays;
    int status;
  } rows[] = {
      {"",         false, 0}, // of a run that was killed
      {"somebody", true,  0},
      {"/",        true,  2}
  };
  for (const auto &row : rows) {
    const TempDir dir;
    write_product();
    change_product({Go, "pkg.log.lock", row.text, 0, {}});
    const Result result = run_with(Go);
    EXPECT_EQ(result.status, row.status) << row.text << result.reasons;
    EXPECT_EQ(fs::exists("pkg.log.lock"), row.stays) << row.text;
  }
}

// ---- Signals ----

/// The whole lines of the log that say how the run ended.
static std::vector<std::string> outcomes() {
  std::istringstream log{read_file("pkg.log")};
  std::vector<std::string> found;
  for (std::string line; std::getline(log, line);)
    if (line.find("Outcome ") != line.npos) found.push_back(line);
  return found;
}

/// How the log says that the run ended; where is "before", "in" or "after".
static std::string expect_ended_by(int signal, const std::string &line) {
  static const std::regex form{
      R"(\w{3} \w{3} [ \d]\d \d\d:\d\d:\d\d  \[\d+\] Info: Outcome (\d+), )"
      R"(ended by signal (\d+) (?:(before|after) the work|(in) pkg\.cpy:\d )"
      R"((?:MkDir|CopyDir|WFile)): \d commands, \d+ files, \d+ bytes, )"
      R"(0 failures, \d+ seconds)"};
  std::smatch match;
  EXPECT_TRUE(std::regex_match(line, match, form)) << line;
  if (match.empty()) return {};
  EXPECT_EQ(match.str(1), std::to_string(128 + signal));
  EXPECT_EQ(match.str(2), std::to_string(signal));
  return match.str(3) + match.str(4);
}

TEST(Strict, SignalAtAnyMomentEndsTheRunWithALineOfTheLog) {
  const auto elsewhere = [] { ::setenv("TZ", "X-05:30", 1); };
  std::set<std::string> places;
  bool in_time = false;
  for (int place = 7;; place += 7) {
    const TempDir dir;
    write_product();
    const auto send = [=](int pid) {
      ::kill(pid, SIGTERM);
      if (place % 2 == 0) ::kill(pid, SIGHUP);
    };
    const int status = run_traced(place, send, {"-automate", "-strict"}, {.prepare = elsewhere});
    if (!WIFSIGNALED(status)) break;
    const std::string log = read_file("pkg.log");
    if (log.find("Automated") == log.npos) continue;
    const std::vector<std::string> found = outcomes();
    ASSERT_EQ(found.size(), 1U) << log;
    const std::size_t at = log.find(found[0]);
    EXPECT_EQ(at + found[0].size() + 1, log.size());
    if (found[0].find("Outcome 0, complete") != log.npos) continue;
    places.insert(expect_ended_by(WTERMSIG(status), found[0]));
    in_time = in_time || log.rfind(found[0].substr(0, 20), at - 1) != log.npos;
  }
  EXPECT_EQ(places, (std::set<std::string>{"before", "in", "after"}));
  EXPECT_TRUE(in_time);
}

TEST(Strict, InterruptAtAQuestionEndsTheRunWithALineOfTheLog) {
  if (!has_terminals()) GTEST_SKIP() << "no pseudo-terminals";
  const TempDir dir;
  write_product();
  const auto control = [] { ::setsid(), ::ioctl(0, TIOCSCTTY, 0); };
  run({"-strict"}, "1\n\3", Via::Pty, {.prepare = control, .signal = SIGINT});
  ASSERT_EQ(outcomes().size(), 1U);
  EXPECT_EQ(expect_ended_by(SIGINT, outcomes()[0]), "before");
}

TEST(Strict, SignalThatIsIgnoredOrInARunThatIsNotStrictDoesAsBefore) {
  const auto ignore = [] { std::signal(SIGHUP, SIG_IGN); };
  const TempDir dir;
  write_product();
  const auto hang_up = [](int pid) { ::kill(pid, SIGHUP); };
  EXPECT_EQ(run_traced(150, hang_up, {"-automate", "-strict"}, {.prepare = ignore}), 0);
  EXPECT_EQ(outcomes().size(), 1U);
  fs::remove("pkg.log");
  EXPECT_EQ(WTERMSIG(run_traced(150, hang_up, {"-automate"})), SIGHUP);
  EXPECT_EQ(outcomes().size(), 0U);
}

// ---- Answers ----

TEST(Answers, StandInForDefaults) {
  const std::string with = Go + " -answers answers";
  expect({with, "answers", "# c\n\n port \t 8 $(x) \r\ndir /x\n", 0, ""});
  expect({Go + " -answers -", {}, {}, 0, "", "port 9"});
  expect({with, {}, {}, 2, "pkg: answers: cannot read the answers: No such file or directory\n"});
  expect({"-answers none",
          {},
          {},
          2,
          "pkg: none: cannot read the answers: No such file or directory\n"});
  expect({"-answers /none/x",
          {},
          {},
          2,
          "pkg: /none/x: cannot read the answers: No such file or directory\n"});
  expect({Go + " -answers src/a", {}, {}, 2, "pkg: src/a:1: '1' has no answer\n"});
  expect({
      with, "answers", std::string{"port 1\n\0", 8},
        2,
      "pkg: answers: cannot read the answers: line 2 holds a zero byte\n"
  });
  expect({with, "answers", "port q", 2, "pkg: pkg.q:2: port: The default is 'q', which quits\n"});
  expect({with, "answers", "port 81\nsure maybe\n", 2,
          "pkg: pkg.q:3: sure: You must answer either Yes or No\n"});
  expect({with, "answers", "port 81\n", 2,
          "pkg: pkg.q:3: sure: There is neither an answer nor a default\n"});
  expect({with, "answers", "port " + std::string(1999, 'x') + "\n#" + std::string(1999, 'x'), 2,
          "pkg: answers:1: The line is too long\n"});
  expect({with, "answers", "x 1\nport\nport 2\nport 3\ndir " + std::string(999, 'x') + "\n", 2,
          "pkg: answers:2: 'port' has no answer\npkg: answers:4: 'port' is given twice\n"
          "pkg: answers:5: The line is too long\npkg: answers:1: No question asks for 'x'\n"});
  const TempDir dir;
  write_product();
  write_file("answers", "port 81\nport 2\nx 1\nsure maybe\n");
  const Result lenient = run_with("-answers answers", "1\n\n\nyes\ny\n85\n\n");
  EXPECT_NE(
      lenient.console.find("Port [81]? Sure [maybe]? Error: You must answer either Yes or No, "
                           "please try again\nSure [maybe]? Do you want to change your answers "
                           "[n]? Port [81]? Do you want"),
      std::string::npos)
      << lenient.console;
  EXPECT_EQ(lenient.reasons, "");
  EXPECT_EQ(read_file("out/port"), "85");
}

TEST(Answers, RecordReplaysToTheSameTree) {
  const TempDir dir;
  write_product();
  const std::string web = " -strict -special w";
  EXPECT_EQ(run_with("-record answers" + web, "a \"b\" c/\n/x/a.tar.gz\n\n").status, 0);
  EXPECT_EQ(read_file("answers"), "# P, w\ndir a \"b\" c/\nname /x/a.tar.gz\n");
  EXPECT_EQ(fs::status("answers").permissions(), fs::perms{0600});
  const Tree tree = read_tree("out");
  fs::remove_all("out");
  EXPECT_EQ(run_with("-automate -answers answers" + web).status, 0);
  EXPECT_EQ(read_tree("out"), tree);
  EXPECT_EQ(run_with("-record answers" + web, " a\n" + std::string(996, 'n') + "\n\n").status, 0);
  EXPECT_EQ(read_file("answers"),
            "# P, w\n# dir: no line can hold the answer\n# name: no line can hold the answer\n");
  fs::create_symlink("answers", "link");
  for (const char *wrong : {"link", "src", "/dev/null", "none/x"}) {
    fs::remove_all("out");
    const Result result = run_with(std::string{"-automate -record "} + wrong);
    EXPECT_EQ(result.status, 2) << wrong;
    EXPECT_TRUE(result.reasons.starts_with("pkg: cannot record the answers: ")) << result.reasons;
    EXPECT_TRUE(!fs::exists("out") && result.console.find("Bye") == std::string::npos) << wrong;
  }
}

TEST(Answers, ManyTakeTimeInProportion) {
  const TempDir dir;
  write_product();
  std::string questions = "[w]\n", answers;
  for (int i = 0; i < 20000; ++i) {
    questions += "Text q" + std::to_string(i) + " - - h x\n";
    answers += "q" + std::to_string(i) + " a\n";
  }
  write_file("pkg.q", questions);
  write_file("answers", answers);
  const auto in_seconds = [] {
    const struct ::rlimit time = {8, 8};
    catch_errors(), ::setrlimit(RLIMIT_CPU, &time);
  };
  EXPECT_EQ(run_with(Go + " -special w -answers answers -record r", {}, in_seconds).status, 0);
  EXPECT_TRUE(read_file("r") == "# P, w\n" + answers);
}

TEST(Answers, HelpOpensNothing) {
  for (const char *arguments :
       {"-help", "-x --help", "-special -h", "-strict -automate -answers -h"}) {
    const TempDir dir;
    const Result result = run_with(arguments);
    EXPECT_EQ(result.status, 0) << arguments;
    EXPECT_NE(result.console.find("\n  -answers FILE"), std::string::npos) << result.console;
    EXPECT_FALSE(fs::exists("pkg.log")) << arguments;
  }
  const TempDir dir;
  EXPECT_EQ(run_with("--version -strict -x").console, "Installer version 1.0d\n");
}

} // namespace installer::test
