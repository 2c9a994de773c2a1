#include "installer/installer.h"
#include "tests/support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pty.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace installer::test {

using Arguments = std::vector<std::string>;

static const Arguments Automate = {"-automate"};

// A dialogue is written down as it looks on a terminal. What the operator types stands in braces; a
// line end behind them is typed as well. "@name" is an abbreviation.

static const Tree abbreviations = {
    {"@banner", R"(======================================================
             Welcome to the @product installer
 You will be asked a series of questions, for each a
 default answer will be provided (thus), to accept the
 default simply press <enter>, otherwise enter a new
 answer and press <enter>
======================================================
)"                    },
    {"@menu",   "\n1. Install @product\n2. Upgrade @product\n3. Remove @product\n4. Exit\n\n"},
    {"@choose", "@menuWhat would you like to do[1]? "                                        },
    {"@review", "Do you want to change your answers [n]? "                                   },
    {"@exit",   "\n<Press enter to exit>"                                                    },
};

/// Has the dialogue; through a pipe typing does not show.
static void talk(Via via, const Arguments &arguments, std::string dialogue, Tree words,
                 const Start &start = {}) {
  words.insert(abbreviations.begin(), abbreviations.end());
  for (int nesting = 0; nesting < 5; ++nesting)
    for (const auto &[word, text] : words)
      for (std::size_t at = 0; (at = dialogue.find(word, at)) != dialogue.npos;)
        dialogue.replace(at, word.size(), text);
  std::string input;
  for (std::size_t at = 0; (at = dialogue.find('{', at)) != dialogue.npos;) {
    const std::size_t close = dialogue.find('}', at);
    const bool line_end = dialogue[close + 1] == '\n';
    const std::string typed = dialogue.substr(at + 1, close - at - 1) + (line_end ? "\n" : "");
    input += typed;
    dialogue.replace(at, close + 1 + (line_end ? 1 : 0) - at, via == Via::Pty ? typed : "");
  }
  Outcome outcome = run(arguments, input, via, start);
  std::erase(outcome.console, '\r');
  EXPECT_EQ(outcome.console, dialogue);
  EXPECT_EQ(outcome.status, 0);
}

// ---- The demo product ----

/// It lies in a scratch directory of its own, and its directory is the working one.
struct Demo : testing::TestWithParam<Via> {
  Demo() {
    fs::copy(INSTALLER_SOURCE_DIR "/examples/demo", "product", fs::copy_options::recursive);
    fs::current_path("product");
    payload = read_tree("files/board");
    payload.erase("doc/french.draft");
    words["@payload"] = size_of(payload);
    words["@product"] = "Notice Board";
    words["@blurb"] = R"(- look at its settings in conf/board.conf; an upgrade leaves them alone
- let the installer write a site file for your web server: -special web
- send an empty mail to me@b.org to see whether it arrives
)";
  }

  /// A dialogue after changes of the product's settings: the first of a name wins.
  void converse(Via via, const Arguments &arguments, const std::string &presets,
                const std::string &dialogue) const {
    write_file("noticeboard.dat", presets + read_file("noticeboard.dat"));
    talk(via, arguments, "@banner" + dialogue, words, {.name = "./noticeboard"});
  }

  static std::string size_of(const Tree &tree) {
    std::size_t size = 0;
    for (const auto &[name, text] : tree) size += text.size();
    return std::to_string(size);
  }

  TempDir scratch;
  Tree payload, words;
};

TEST_F(Demo, WholeLifeUnattended) {
  Tree tree = payload;
  for (const auto &[name, text] : read_tree("files/samples")) tree["notices/" + name] = text;
  const bool root = ::geteuid() == 0; // who alone can give the notices away
  const std::string presets = root ? "change_owner yes\nadmin me@b.org\n" : "admin me@b.org\n";
  words["@bytes"] = size_of(tree);
  words["@files"] = root ? "43" : "39";
  words["@here"] = fs::current_path();
  converse(Via::Pipe, Automate, presets, R"(@menu[Install]
Copying files[......................]
Success @bytes bytes in @files files copied

Once "Notices" is in @here/../noticeboard:
@blurb)");
  for (const char *directory : {"conf/", "conf/answers/", "log/", "notices/", ".noticeboard/"})
    tree[directory] = "";
  tree["conf/installed"] = "2.1";
  tree["conf/language"] = "en";
  for (const auto &[name, text] : Tree{
           {"admin",     "me@b.org"     },
           {"logfile",   "log/board.log"},
           {"page_size", "20"           },
           {"posting",   "true"         },
           {"title",     "Notices"      }
  })
    tree["conf/answers/" + name] = text;
  tree["html/index.html"] = tree["html/welcome.en.html"];
  for (const char *page : {"html/welcome.de.html", "html/welcome.en.html"}) tree.erase(page);
  const std::string conf = tree["conf/board.conf"] = read_file("../noticeboard/conf/board.conf");
  EXPECT_NE(conf.find("\ntitle=Notices\nadmin=me@b.org\npage_size=20\n"), conf.npos);
  EXPECT_EQ(read_tree("../noticeboard"), tree);
  EXPECT_EQ(fs::status("../noticeboard/cgi/post.cgi").permissions(), fs::perms{0755});
  struct ::stat info = {};
  EXPECT_EQ(::stat("../noticeboard/notices/rules.txt", &info), 0);
  EXPECT_EQ(info.st_uid, root ? ::getpwnam("daemon")->pw_uid : ::geteuid());

  // An upgrade is the default once the board is there. It mends what it owns, and nothing else.
  tree["conf/board.conf.new"] = conf;
  for (const char *file : {"conf/previous.conf", "conf/board.conf", "notices/mine.txt"})
    write_file("../noticeboard/" + std::string{file}, tree[file] = "mine");
  write_file("../noticeboard/html/index.html", "broken");
  fs::remove("../noticeboard/doc/guide.txt");
  converse(Via::Pipe, Automate, "",
           "@menu[Upgrade]\nCopying files[.........]\nSuccess @payload bytes in 32 files copied\n");
  EXPECT_EQ(read_tree("../noticeboard"), tree);

  run({"-automate", "-special", "install"}, {}, Via::Pipe, {.name = "./noticeboard"});
  EXPECT_EQ(read_tree("../noticeboard"), tree); // a whole board keeps its settings
  converse(Via::Pipe, {"-automate", "-special", "web"}, "",
           "[web]\nExecuting[]\n Success 3 files done.\n");
  EXPECT_TRUE(fs::exists("../noticeboard/noticeboard-site.conf"));

  // With the site file and the board itself. The file that the script names shows no dot, and a
  // directory in one that it names two.
  words["@dots"] = std::string(tree.size() + 2 - 1 + 1, '.');
  words["@files"] = std::to_string(tree.size() + 2 + 10);
  converse(Via::Pipe, {"-automate", "-special", "remove"}, "",
           "[remove]\nExecuting[@dots]\n Success @files files done.\n");
  fs::current_path("..");
  fs::remove_all("product");
  EXPECT_TRUE(read_tree(".").empty());
}

TEST_P(Demo, Interactive) {
  if (GetParam() == Via::Pty && !has_terminals()) GTEST_SKIP() << "no pseudo-terminals";
  Tree copied = payload;
  copied["own notice"] = read_file("blurb.txt");
  words["@bytes"] = size_of(copied);
  converse(GetParam(), {}, "dir ../board\nadmin me@b.org\nsource files\n", R"(@choose{}
[Install]
Directory for the board (full path) [../board]? {..}
That directory is there already. Unless it is empty, name another one [..]? {}
Error: Directory '..' must be empty, please try again
That directory is there already. Unless it is empty, name another one [..]? {../hall/}
Language of the pages, en or de [en]? {de}
Notices on a page [20]? {5}
May everybody post a notice [y]? {NO}
Hang up samples, a notice of your own or none
(samples/own/none) [samples]? {own}
File with your notice [files/samples/welcome.txt]? {/none}
Error: File '/none' must exist, No such file or directory, please try again
File with your notice [files/samples/welcome.txt]? {blurb.txt}
Log file, below the directory of the board unless it is a full path
[log/board.log]? {}
Should the notices belong to another user (only root can do that) [n]? {}
Name of the board [Notices]? {Bob's $HOME  }
Mail address of its keeper [me@b.org]? {}
In ../hall there will be the board "Bob's $HOME", with me@b.org as its keeper.
Is that right [y]? {n}
Name of the board [Bob's $HOME]? {}
Mail address of its keeper [me@b.org]? {}
In ../hall there will be the board "Bob's $HOME", with me@b.org as its keeper.
Is that right [y]? {}
@review{}
Copying files[....................]
Success @bytes bytes in 37 files copied

Once "Bob's $HOME" is in ../hall:
@blurb@exit)");
  converse(GetParam(), {}, "", R"(@choose{2}
[Upgrade]
Directory of the board [../board]? {../hall}
Language of the pages, en or de [en]? {}
Your settings stay as they are. Keep a copy of them as well [y]? {}
Name of the copy [previous]? {/tmp/old.conf}
@review{}
Copying files[.........]
Success @payload bytes in 32 files copied
@exit)");
  EXPECT_EQ(read_file("../hall/html/index.html"), payload["html/welcome.en.html"]);
  EXPECT_TRUE(fs::exists("../hall/conf/old.conf"));
  EXPECT_EQ(read_file("../hall/conf/board.conf.new"), read_file("../hall/conf/board.conf"));
  converse(GetParam(), {}, "", R"(@choose{3}
[Remove]
Directory of the board [../board]? {../hall}
Keep the notices [n]? {y}
Remove the board from ../hall now [y]? {}
@review{}
Removing files[.........................]
 Success 34 files removed
@exit)");
  EXPECT_EQ(read_tree("../hall").size(), 3U); // the notice, its directory, and whose it is
}

INSTANTIATE_TEST_SUITE_P(, Demo, testing::Values(Via::Pipe, Via::Pty),
                         testing::PrintToStringParamName());

// ---- Small products ----

/// The product "pkg", with another text for one of its files, or without that file.
static void write_product(const std::string &changed = {}, const Text &text = {}) {
  write_file("pkg.dat", "product P\ne no\n");
  write_file("pkg.int", "");
  write_file("pkg.q", "[install]\nText a - - h A\n[w]\n");
  write_file("pkg.cpy", "[install]\nWFile out a\n[W]\nWFile out a\nRmFile out.* -\n");
  write_file("blurb.txt", "Bye\n");
  if (text) write_file(changed, *text);
  else fs::remove(changed);
}

struct Small : testing::TestWithParam<Via> {
  void SetUp() override {
    if (GetParam() == Via::Pty && !has_terminals()) GTEST_SKIP() << "no pseudo-terminals";
  }

  Tree words = {
      {"@product", "P"                                                   },
      {"@install", "@choose{1}\n[Install]\n"                             },
      {"@1",       "@banner@install"                                     },
      {"@again",   ", please try again\n"                                },
      {"@auto",    "@banner@menu[Install]\n"                             },
      {"@no",      "That is not a recognised option@again"               },
      {"@done",    "Copying files[]\nSuccess 0 bytes in 1 files copied\n"},
      {"@zero",    "line 2 holds a zero byte"                            },
      {"@unread",  "Failed to read '@int', No such file or directory"    },
      {"@bye",     "\nBye\n"                                             },
  };

  /// A dialogue with the product, changed as said, that leaves `out` in its one file. It is an
  /// unattended run if it starts with "@auto".
  void expect(const std::string &dialogue, const std::string &out, const std::string &changed = {},
              const Text &text = {}, Arguments arguments = {}, const Start &start = {}) {
    SCOPED_TRACE(dialogue);
    const TempDir dir;
    write_product(changed, text);
    if (dialogue.starts_with("@auto")) arguments = Automate;
    for (const char *file : {"dat", "int", "q", "cpy"})
      words[std::string{"@"} + file] = dir.path(std::string{"pkg."} + file);
    talk(GetParam(), arguments, dialogue, words, start);
    EXPECT_EQ(read_file("out"), out);
  }
};

TEST_P(Small, Dialogues) {
  const Text zero_byte = std::string{"[install]\nText\0\n", 16};
  const Text early = std::string{"a\0\n[install]\n", 13};
  const char *two = "[install]\nText a - - h A\nText b - - h B\n";
  // The menu.
  expect("@banner@choose{abc}\n@no@choose{0}\n@no@choose{6}\n@no@choose{ 4 }\n@exit", "");
  expect("@banner@choose{-1}\n@no@choose{5}\n[special]\n@exit", "", {}, {}, {"--automate", "x"});
  expect("@banner@choose@exit", "");
  // Replies, and their end.
  expect("@1A []? {x y }\n@review{}\n@done@bye@exit", "x y");
  expect("@1A []? {x}@review@done@bye@exit", "x");
  expect("@1A []? @choose@exit", "");
  expect("@1A []? {x}\nB []? {Q}\n@installA [x]? {q}\n@choose{4}\n@exit", "", "pkg.q", two);
  expect("@1A []? {b}\nA []? {quit}\nB []? {B}\nA [quit]? {}\nB []? {}\nError: You must enter an "
         "answer@againB []? {x}\n@review{Yes}\nA [quit]? {y}\nB [x]? {}\n"
         "@review{maybe}\n@done@bye@exit",
         "y", "pkg.q", two);
  // Entries that are not asked.
  expect("@1Error: No $(product)\n@bye@exit", "", "pkg.q", "[install]\nError e h No $(product)");
  expect("@banner@choose{2}\n[Upgrade]\nError: No P\n@exit", "", "pkg.q",
         "[upgrade]\nError e h No $(product)");
  expect("@1Error: The questions repeat without end\n@bye@exit", "", "pkg.q",
         "[install]\nExist . here\nLoop e 0");
  expect("@1X []? {x}\n@review{}\n@done@bye@exit", "false", "pkg.q",
         "[install]\nExist . s\nText x none s h X\nExist none s\nCopy a - - h s");
  // Unattended.
  expect("@auto@done@bye", "a", "pkg.q", "[install]\nLoop e -1\nText a - - h A");
  expect("@auto@done@bye", "1", "pkg.dat", "product P\na 1");
  expect("@auto", "", "pkg.dat", "product P\na Q");
  expect("@autoError: Cannot go back from question 'a' unattended\n@bye", "", "pkg.dat",
         "product P\na b");
  expect("@autoError: You must answer either Yes or No, please try again\n@bye", "", "pkg.q",
         "[install]\nYN a - - h A");
  expect("@banner[w]\nExecuting[]\n Success 1 files done.\n", "a", {}, {},
         {"-special", "x", "-automate", "-special", "w"});
  // Files.
  expect("@exit", "", "pkg.dat");
  expect("Error: Failed to load init file '@int', @unread\n@exit", "", "pkg.int");
  expect("@banner@menuWhat would you like to do[2]? {}\n[Upgrade]\n@exit", "", "pkg.int",
         "Copy action upgrade - -");
  expect("@1@bye@exit", "", "pkg.q");
  expect("Error: Error reading '@dat', @zero\n@exit", "", "pkg.dat", zero_byte);
  expect("Error: Failed to load init file '@int', Failed to read '@int', @zero\n@exit", "",
         "pkg.int", zero_byte);
  expect("@1Error: Error reading '@q', @zero\n@bye@exit", "", "pkg.q", zero_byte);
  expect("@1A []? {x}\n@review{}\nError: Error reading '@cpy', @zero\n@bye@exit", "", "pkg.cpy",
         zero_byte);
  expect("@auto@done@bye", "x", "pkg.cpy", *early + "WFile out x\n");
  expect("@auto@done@bye", "a", "pkg.q", early);
  expect("@auto@bye", "", "pkg.cpy");
  expect("@autoCopying files[]\nFailed, Not P@bye", "", "pkg.cpy",
         "[install]\nError e Not $(product)\nWFile out x");
  expect("@auto@done\nFor P\n\n!\n", "", "blurb.txt", " \tFor $(product) \n\n$(none)!");
  expect("@auto@done", "", "blurb.txt");
}

static void make_input_impatient() { ::fcntl(0, F_SETFL, O_NONBLOCK | ::fcntl(0, F_GETFL)); }
static void make_input_fail() { ::dup2(::open("/", O_RDONLY), 0); }
/// The input is a terminal that is gone.
static void hang_up() {
  int main_end = -1;
  int terminal = -1;
  if (::openpty(&main_end, &terminal, nullptr, nullptr, nullptr) == 0) ::dup2(terminal, 0);
  ::close(main_end);
}

TEST_P(Small, InputThatFails) {
  expect("@1A []? {}\nError: You must enter an answer@againA []? {x}\n@review{}\n@done@bye@exit",
         "x", {}, {}, {}, {.prepare = make_input_impatient});
  for (const auto prepare : {make_input_fail, hang_up}) {
    if (prepare == hang_up && !has_terminals()) continue;
    const Start failing = {.prepare = prepare};
    expect("@banner@choose@exit", "", {}, {}, {}, failing);
    expect("@banner[w]\n@review@exit", "", {}, {}, {"-special", "w"}, failing); // no consent
  }
}

TEST_P(Small, TypedControlsAreRefused) {
  const TempDir dir;
  write_product("pkg.dat", "product P\na \x1b[D\n"); // a default is not typed
  for (const char *odd : {"x\x1b[D", "\tx", "\x7f", "x\u009b1", "x\x9b", "x\u202ey"}) {
    const bool pipe = GetParam() == Via::Pipe;
    if (*odd == '\x7f' && !pipe) continue; // the terminal acts on it
    const Outcome outcome =
        run({}, "1\n" + std::string{odd} + (pipe ? "\n\n\n" : "\nx\u00e4\n\n\n"), GetParam());
    const bool refused =
        outcome.console.find("Error: The answer holds a control character, please try again") !=
        std::string::npos;
    EXPECT_EQ(refused, !pipe) << odd;
    EXPECT_EQ(read_file("out"), pipe ? odd : "x\u00e4");
  }
  run({}, "1\n\n\n\n", GetParam());
  EXPECT_EQ(read_file("out"), "\x1b[D");
}

INSTANTIATE_TEST_SUITE_P(, Small, testing::Values(Via::Pipe, Via::Pty),
                         testing::PrintToStringParamName());

// ---- Starting the program ----

TEST(Start, NameAndLog) {
  for (const char *name : {"./pkg.setup.bin", "/opt/x.d/pkg", "pkg", "a\\pkg.exe"}) {
    SCOPED_TRACE(name);
    const TempDir dir;
    write_product("pkg.q", "[install]\n");
    EXPECT_EQ(run(Automate, "4\n", Via::Pipe, {.name = name}).unread, 2);
    EXPECT_EQ(read_file("out"), "a");
    const std::string log = read_log("pkg.log");
    EXPECT_TRUE(log.starts_with("Info: Log file opened in '" + dir.path("pkg.log") + "'\n")) << log;
    EXPECT_TRUE(log.ends_with("\nInfo: Copy script completed successfully\n")) << log;
  }
}

TEST(Start, OptionsThatEndTheRun) {
  const TempDir dir;
  const Outcome version = run({"-debug", "-version", "-special"});
  EXPECT_EQ(version.console, "Installer version 1.0d\n");
  EXPECT_EQ(version.status, 0);
  const Outcome special = run({"-automate", "-special"});
  EXPECT_EQ(special.console, "Usage: install -special <tag>\n");
  EXPECT_EQ(WEXITSTATUS(special.status), 1);
  const std::string opened = "Info: Log file opened in '" + dir.path("pkg.log") + "'\n";
  EXPECT_EQ(read_log("pkg.log"), opened + "Info: Logging set to debug\n" + opened +
                                     "Info: Automated install/upgrade...\n");
}

static void go_deep() {
  const std::string name(200, 'd');
  fs::create_directories(name + "/" + name);
  fs::current_path(name + "/" + name);
}
static void leave_no_directory() { fs::remove_all(fs::current_path()); }
static void close_all() {
  for (int fd : {0, 1, 2}) ::close(fd);
}
static void lose_console() {
  int ends[2] = {};
  if (::pipe(ends) == 0) ::dup2(ends[1], 1);
  for (int fd : ends) ::close(fd);
}

TEST(Start, OddSurroundings) {
  const auto expect = [](const Start &start, const char *console, const char *out) {
    const TempDir dir;
    write_product("pkg.q", "[install]\n");
    const Outcome outcome = run(Automate, "", Via::Pipe, start);
    EXPECT_EQ(outcome.console, console);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(read_file(dir.path("out")), out);
  };
  expect({.name = ""}, "", "");
  expect({.prepare = go_deep}, "Error: The path of the data files is too long\n", "");
  expect({.prepare = leave_no_directory}, "", "");
  for (const auto prepare : {close_all, lose_console}) expect({.prepare = prepare}, "", "a");
}

TEST(Start, DotsAppearFiveAtATime) {
  const TempDir dir;
  const auto print = [] {
    if (std::freopen("dots", "w", stdout) == nullptr) ::_exit(1);
    for (int dot = 1; dot <= 12; ++dot) printdot(nullptr, nullptr, 0);
    ::_exit(0);
  };
  EXPECT_EXIT(print(), ::testing::ExitedWithCode(0), "");
  EXPECT_EQ(read_file("dots"), "..........");
}

} // namespace installer::test
