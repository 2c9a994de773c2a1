#include "installer/copy.h"
#include "installer/log.h"
#include "tests/support.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>

#include <unistd.h>

namespace installer::test {

struct CopyRunTest : ::testing::Test {
  CopyRunTest() {
    EXPECT_EQ(::mknod("pipe", S_IFIFO | 0600, 0), 0);
    take_errors();
  }
  /// Runs the commands, to the first failure: "files bytes" or "failed", then the errors.
  std::string run_all(const std::string &commands, int stop_on_fail = 1) const {
    write_file("../script", "[run]\n" + commands);
    const std::unique_ptr<copy, Release<copy_free>> x{copy_init(store.get())};
    EXPECT_EQ(copy_load(x.get(), "../script", "run"), 1);
    std::uint64_t files = 9, bytes = 9;
    const bool done = copy_process(x.get(), &files, &bytes, stop_on_fail) == 1;
    return (done ? std::to_string(files) + " " + std::to_string(bytes) : "failed") +
           std::regex_replace(take_errors(), std::regex{"Error: (.*)\n"}, "! $1");
  }
  /// Runs them in a new directory "work": also what that changes, with new contents.
  std::string changes(const std::string &commands) const {
    fs::current_path(folder.path());
    fs::remove_all("work");
    for (const std::string name :
         {"out1/", "out2/", "out.bak/", "src/a.txt", "src/B.TXT", "src/c.bak", "src/s/d.txt",
          "src/s/CVS/e", "src/s/cvs/f", "file", "nil"})
      write_file("work/" + name, name == "nil" ? "" : "8 bytes.");
    fs::current_path("work");
    Tree before = read_tree(".");
    std::string text = run_all(commands);
    for (const auto &[name, contents] : read_tree(".")) {
      const auto found = before.extract(name);
      if (found.empty()) text += " +" + name + (contents == "8 bytes." ? "" : contents);
      else if (found.mapped() != contents) text += " " + name + "=" + contents;
    }
    for (const auto &[name, contents] : before) text += " -" + name;
    return text;
  }

  TempDir folder;
  Store store = make_store(
      {"host=box", "empty=", "yes=Yes", "no=no", "two=2", "mode=Full", "alias=fULL", "port=80"});
};

TEST_F(CopyRunTest, DoesItsCommands) {
  const std::string gone = "No such file or directory";
  const Tree rows = {
      {"CopyFile src/ - ./out1",                                   "3 24 +out1/B.TXT +out1/a.txt +out1/c.bak"                           },
      {"CopyFile file *.BAK,x ./o*",                               "2 16 +out1/file +out2/file"                                         },
      {"CopyFile file - ./out1/",                                  "failed! No destination directories found"                           },
      {"CopyFile file - ./fil*",                                   "failed! No destination directories found"                           },
      {"CopyFile src/a.txt - ./src",                               "1 0"                                                                },
      {"CopyDir src/s - ./src",                                    "3 0"                                                                },
      {"CopyDir src/* CVS,?.* ./out1",                             "3 8 +out1/s/ +out1/s/cvs/ +out1/s/cvs/f"                            },
      {"CopyDir ./o* - ./out1",                                    "2 0 +out1/out.bak/ +out1/out2/"                                     },
      {"CopyDir ./src s.*,?.* ./src/s",                            "1 0 +src/s/src/"                                                    },
      {"RmFile src/* *.bAk",                                       "2 0 -src/B.TXT -src/a.txt"                                          },
      {"RmDir .. -",                                               "failed"                                                             },
      {"RmDir src/s CVS",                                          "3 0 -src/s/cvs/ -src/s/cvs/f -src/s/d.txt"                          },
      {"RmFile none/* -",                                          "failed! Error opening dir 'none/', No such file or directory"       },
      {"Rename file z",                                            "1 0 +z -file"                                                       },
      {"Rename no z",                                              "failed! Error renaming 'no'->'z', " + gone + ", " + gone            },
      {"Exist src s\nWFile f s\nExist no t\nMkDir d s\nMkDir e t", "4 0 +d/ +ftrue"                                                     },
      {"Exist file s\nMkDir d no_such s\nExist no s\nWFile f s",   "4 0 +d/ +ffalse"                                                    },
      {"RFile file r\nWFile f r\nRFile nil r\nWFile file r",       "4 0 +f"                                                             },
      {"RFile file host\nWFile file host",                         "2 0 file=box"                                                       },
      {"RFile src x",                                              "failed! Failed to read (src), Is a directory"                       },
      {"WFile no/x x",                                             "failed! Failed to write (no/x), " + gone                            },
      {"WFile ../pipe x",                                          "failed! Failed to write (../pipe), Operation not supported"         },
      {"Ini ../pipe file",                                         "failed! Error reading ini file '../pipe', Operation not supported"  },
      {"Ini file src",                                             "failed! Error creating ini file 'src', Is a directory"              },
      {"WFile /dev/full x",                                        "failed! Failed to write (/dev/full), No space left on device"       },
      {"Ini file ./file",                                          "failed! Error creating ini file './file', Invalid argument"         },
      {"Ini file /dev/full",                                       "failed! Error writing ini file '/dev/full', No space left on device"},
      {"Error none x\nError yes x\nMkDir d",                       "3 0 +d/"                                                            },
      {"Error no My  words $(port)\nMkDir d",                      "failed"                                                             }
  };
  for (const auto &[commands, want] : rows) EXPECT_EQ(changes(commands), want) << commands;
  EXPECT_STREQ(copy_error(), "My  words 80");
  for (const std::string control :
       {"", "yes", "two", "port", "none", "none x", "mode full", "mode alias", "no NO"})
    EXPECT_EQ(changes("MkDir d " + control), "1 0 +d/") << control;
  for (const std::string control : {"no", "empty", "mode", "mode lite", "mode port", "yes no"})
    EXPECT_EQ(changes("MkDir d " + control), "0 0") << control;
}

TEST_F(CopyRunTest, FillsTemplates) {
  const std::string x(2999, 'x');
  changes("");
  for (const std::string &row :
       std::vector<std::string>{"[a]\n  P=$(port)\n  N=f\n|[a]\nP=80\n  N=f\n",
                                "\ta \t\r\n\r\n $(port)$(x) \r\nend|\ta\n\n80$(x)\nend\n",
                                x + "yy\n$(port|" + x + "\nyy\n$(port\n", "|"}) {
    write_file("from", row.substr(0, row.find('|')));
    EXPECT_EQ(run_all("Ini from file"), "1 0");
    EXPECT_EQ(read_file("file"), row.substr(row.find('|') + 1));
  }
}

TEST_F(CopyRunTest, TakesNothingByHalves) {
  const std::string cut = "! Line too long, nothing done for '";
  const std::string lacks = "! Missing not wildcard! Missing copy destination path";
  std::string command = "RmDir src/s a";
  while (command.size() < 996) command += ",a";
  EXPECT_EQ(changes(command + ",CVS no"),
            "failed! Unknown copy type 'VS'" + lacks + cut + "src/s'");
  EXPECT_EQ(changes(command + "   no"),
            "failed! Unknown copy type 'no'! Missing copy source path" + lacks + cut + "src/s'");
  EXPECT_TRUE(changes("CopyFile " + std::string(990, 'p') + " - out1")
                  .starts_with("failed" + lacks + "! Unknown copy type '-'" + lacks + cut));
  EXPECT_EQ(changes("#" + std::string(998, ' ') + "MkDir d\nMkDir e"), "1 0 +e/");
  EXPECT_EQ(changes("MkDir d" + std::string(998, ' ') + "\nMkDir e"), "2 0 +d/ +e/");
  EXPECT_TRUE(changes("MkDir d no NO " + command).ends_with(" +d/")); // more words do not count
  const std::string zeros(2000, '\0'), why = ", it holds a zero byte";
  for (const std::string before : {"", "line\n"}) {
    changes("");
    write_file("zero", before + zeros + "lost");
    EXPECT_EQ(run_all("RFile zero port"), "failed! Failed to read (zero)" + why);
    EXPECT_EQ(run_all("Ini zero file"), "failed! Error reading ini file 'zero'" + why);
    EXPECT_EQ(read_file("file"), "8 bytes.");
    write_file("zero", before + zeros);
    EXPECT_EQ(
        run_all("RFile zero r" + before.substr(0, 1) + "\nWFile file r" + before.substr(0, 1)),
        "2 0"); // at the very end they are dropped
    EXPECT_EQ(read_file("file"), before.empty() ? "r" : before);
  }
  const std::string longer(300, 'p');
  EXPECT_EQ(changes("Exist " + longer + " found\nWFile f found"),
            "2 0! Failed to test (" + longer + "), File name too long +ffalse");
}

TEST_F(CopyRunTest, LooksAValueUpWhenTheFileIsOpen) {
  // A look-up decides where the next value of a setting goes.
  const std::string commands = "Exist src s\nWFile no/x s\nExist none s\nWFile f s";
  changes("");
  run_all(commands, 0);
  EXPECT_EQ(read_file("f"), "true");
}

TEST_F(CopyRunTest, CopiesToAllDestinations) {
  changes("");
  for (const char *path : {"m/a/", "m/b/sub/f", "m/b/top", "m/c/"}) write_file(path, "");
  EXPECT_EQ(run_all("CopyDir m/b/* - ./m/*"), "8 0");
  for (const char *path : {"m/a/sub/f", "m/c/sub/f", "m/a/top", "m/c/top"})
    EXPECT_TRUE(fs::exists(path)) << path;
}

TEST_F(CopyRunTest, TellsAWatch) {
  const Tree rows = {
      {"CopyFile src/?.* *.bak ./out1", "copied ./out1/B.TXT; copied ./out1/a.txt; ~ 2"                 },
      {"CopyFile src/s - ./out1",       "~ 0"                                                           },
      {"CopyDir none* - ./out1",        "nothing matches none*; ~ 0"                                    },
      {"CopyFile file - ./none",        "no directory to copy to ./none: No such file or directory; ~ 0"},
      {"CopyFile ../pipe - ./out2",     "cannot read ../pipe: Operation not supported; ~ 0"             },
      {"MkDir a/b",                     "created a; created a/b; ~ 1"                                   },
      {"MkDir file/x",                  "cannot create directory file/x: Not a directory; ~ 0"          },
      {"RmDir src/s CVS",
       "kept src/s; removed src/s/cvs; removed src/s/cvs/f; removed src/s/d.txt; ~ 3"                   },
      {"RmFile none* -",                "nothing matches none*; ~ 0"                                    },
      {"Chmod src/none - 700",          "nothing matches src/none; ~ 0"                                 },
      {"Chown file - no-user",          "no such user no-user; ~ 0"                                     },
      {"WFile no/x x",                  "cannot write no/x: No such file or directory; ~ 0"             },
      {"WFile f x no",                  "~ -1"                                                          },
      {"Error no Not now",              "Not now ; ~ 0"                                                 },
  };
  for (const auto &[command, want] : rows) {
    changes("");
    std::multiset<std::string> told;
    const CopyWatch watch = {
        .begins = [&](std::uint32_t index) { EXPECT_EQ(index, 0U); },
        .event =
            [&](const FileEvent &event) {
              told.insert(std::string{event.what} + " " + or_empty(event.path) +
                          (event.cause ? ": " : "") + (event.cause ? cause_text(event.cause) : ""));
            },
        .ends = [&](std::uint32_t,
                    int result) { return told.insert("~ " + std::to_string(result)), false; }};
    write_file("../script", "[run]\n" + command);
    const std::unique_ptr<copy, Release<copy_free>> x{copy_init(store.get())};
    EXPECT_EQ(copy_load(x.get(), "../script", "run"), 1);
    x->watch = &watch;
    static_cast<void>(copy_process(x.get(), nullptr, nullptr, 1));
    std::string text;
    for (const std::string &line : told) text += (text.empty() ? "" : "; ") + line;
    EXPECT_EQ(text, want) << command;
  }
}

TEST_F(CopyRunTest, GoesOnOrStops) {
  const std::string script = "MkDir d\nMkDir f port 9\nCopyFile nil - none\nMkDir e";
  EXPECT_EQ(changes(script), "failed! No destination directories found +d/");
  EXPECT_EQ(run_all(script, 0), "2 0! No destination directories found");
}

TEST_F(CopyRunTest, ChangesModesAndOwners) {
  changes("");
  fs::create_directory_symlink("../src/s", "out1/link");
  fs::create_symlink("none", "out2/dangling");
  EXPECT_EQ(run_all("Chmod src/* - 4700"), "9 0");
  EXPECT_EQ(run_all("Chmod src/s */CVS*,s 0641"), "2 0"); // full paths are compared
  EXPECT_EQ(run_all("Chmod out1/* - 751"), "1 0");
  EXPECT_EQ(run_all("Chmod ./out? - 711"),
            "3 0! Error changing mode of './out2/dangling' to 457, No such file or directory");
  const auto mode = [](const char *path) { return fs::status(path).permissions(); };
  for (const char *all : {"src/a.txt", "src/s/cvs", "src/s/CVS/e"})
    EXPECT_EQ(mode(all), fs::perms{04700}) << all;
  EXPECT_TRUE(mode("src/s/d.txt") == fs::perms{0641} && mode("src/s") == fs::perms{0711});
  if (::geteuid() != 0) GTEST_SKIP() << "only root may give files away";
  const auto expect = [this](const char *commands, const char *result, ::uid_t uid, ::gid_t gid) {
    EXPECT_EQ(run_all(commands), result) << commands;
    struct ::stat info = {};
    EXPECT_EQ(::stat("src/a.txt", &info), 0);
    EXPECT_TRUE(info.st_uid == uid && info.st_gid == gid) << commands;
  };
  const ::uid_t daemon = file_getuid("daemon");
  expect("Chown src/* - no-user:bin", "failed", 0, 0);
  expect("Chown src/* - daemon:bin", "9 0", daemon, file_getgid("bin"));
  expect("Chown src/* - daemon:no-group", "9 0", daemon, daemon);
  expect("Chown src/* *.txt root", "6 0", daemon, daemon);
  expect("WFile v root\nRFile v later\nChown src/* - $(later)$(none)", "11 0", 0, 0);
}

TEST_F(CopyRunTest, ReachesNotTooFar) {
  std::string dots;
  while (dots.size() < 256) dots += "./";
  const std::string stars = "./" + std::string(255, '*') + "x"; // cut, it would match all
  fs::create_directory_symlink("/", "root");
  const auto refuses = [&](const std::string &command, const std::string &source) {
    const std::size_t at = command.find('@');
    const std::string refused = changes(std::string{command}.replace(at, 1, source));
    EXPECT_TRUE(refused.starts_with("failed! ")) << command << ' ' << source << ' ' << refused;
    EXPECT_EQ(refused.find("'empty'") == refused.npos, source.find("$(empty)") == source.npos);
  };
  for (const std::string command : {"RmFile @ -", "RmDir @ -", "Chmod @ - 700", "Chown @ - root"})
    for (const std::string source :
         {"$(empty)src/*", "src$(empty)", "/no-such-*", "//no-such-?", "../root/no-such-*",
          "$(none)src/*", dots.c_str(), stars.c_str()})
      refuses(command, source);
  for (const std::string command : {"CopyFile @ - ./out1", "CopyDir @ - ./out1"})
    for (const std::string source : {"/no-such-*", "//no-such-?", "../root/no-such-*"})
      refuses(command, source);
  for (const std::string command : {"Rename @ z", "Rename file @"})
    for (const std::string source : {"$(empty)file", "z$(empty)", "/", "//", "/.."})
      refuses(command, source);
  for (const char *command : {"CopyFile @src/* - ./out1", "CopyDir ./src - @out1", "MkDir @new"})
    refuses(command, dots);
  EXPECT_EQ(changes("RmDir /no-such-entry -"), "failed");
  EXPECT_EQ(changes("Rename ../root ../moved\nRename ../moved ../root"), "2 0"); // a link only
  if (::geteuid() != 0) GTEST_SKIP() << "only root may have a root directory of its own";
  const auto run_in_root = [this] {
    fs::create_directories("." + fs::temp_directory_path().string());
    if (::chroot(".") != 0 || ::chdir("/") != 0 || file_exist("/src/s/CVS/e") != 1) ::_exit(2);
    const Tree before = read_tree("src");
    for (const char *command : {"RmDir / -", "RmFile /* -", "RmDir ../* -", "Chmod /./ - 1"})
      EXPECT_EQ(run_all(command).substr(0, 7), "failed!") << command;
    ::_exit(HasFailure() || read_tree("src") != before ? 1 : 0); // an exit looks for leaks in /proc
  };
  EXPECT_EXIT(run_in_root(), ::testing::ExitedWithCode(0), "");
}

} // namespace installer::test
