// The examples of the manual pages and of the README, run as they stand there.

#include "tests/support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>

#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

namespace installer {

/// The files that a page shows: each in a display behind a comment with its name.
static Tree read_page(const std::string &name) {
  const std::regex display{R"re(\.\\" file (.*)\n.*\n([^]*?)\.Ed\n)re"}, backslash{R"(\\e)"};
  const std::string page = read_file(INSTALLER_SOURCE_DIR "/man/" + name);
  Tree files;
  for (std::sregex_iterator it{page.begin(), page.end(), display}, end; it != end; ++it)
    files[it->str(1)] = std::regex_replace(it->str(2), backslash, "\\");
  return files;
}

/// Installs, upgrades and removes the product in the working directory on a view of the machine,
/// where one can be had: nothing may be left.
static void expect_round_trip(const char *product) {
#ifdef INSTALLER_PREVIEW
  const Start start{"installer-preview", nullptr, INSTALLER_PREVIEW};
  const Outcome outcome = run({"-round-trip", product}, {}, Via::Pipe, start);
  if (WEXITSTATUS(outcome.status) == 125) std::printf("%s", outcome.console.c_str());
  else EXPECT_EQ(outcome.status, 0) << outcome.console;
#endif
}

TEST(Manual, ExampleProductRuns) {
  const TempDir folder;
  for (const char *name : {"dat", "int", "q", "cpy"})
    for (const auto &[file, text] : read_page(std::string{"installer-"} + name + ".5"))
      write_file(file, text);
  for (const char *file : {"bin/notesd", "bin/x.old", "share/index.html", "share/drafts/x"})
    write_file(std::string{"files/"} + file, file);
  write_file("www/other", "");
  const struct ::passwd *user = ::getpwuid(::getuid());
  const std::string own = // the first of a name wins
      "dir $(current_dir)/target\npages_dir $(current_dir)/www\npages true\nowner ";
  write_file("notes.dat", own + (user ? user->pw_name : "root") + "\n" + read_file("notes.dat"));
  fs::copy(INSTALLER_PROGRAM, "notes");
  expect_round_trip("./notes");
  const auto expect = [](const std::vector<std::string> &arguments, const char *text) {
    const std::string console = run(arguments, {}, Via::Pipe, {.name = "./notes"}).console;
    EXPECT_NE(console.find(text), std::string::npos) << console;
  };
  expect({"-automate"}, "[Install]\nCopying files[.......]\nSuccess 42 bytes in 19 files ");
  Tree installed = read_tree("target");
  EXPECT_NE(installed["etc/notes.conf"].find("\nPort=8080\n"), std::string::npos);
  EXPECT_TRUE(installed.contains("bin/notesd") && !installed.contains("share/drafts/"));
  installed["etc/notes.conf"] = "the operator's";
  write_file("target/etc/notes.conf", "the operator's");
  expect({"-automate"}, "[Upgrade]\nCopying files[..]\nSuccess ");
  EXPECT_EQ(read_tree("target"), installed);
  expect({"-automate", "-special", "pages"}, "]\n Success 1 files done.\n");
  EXPECT_EQ(read_file("www/index.html"), "share/index.html");
  expect({"-automate", "-special", "remove"}, "]\n Success 10 files done.\n");
  EXPECT_FALSE(fs::exists("target"));
  for (const char *fault : {"Error: Missing", "Error: Unknown"})
    EXPECT_EQ(read_log("notes.log").find(fault), std::string::npos) << read_log("notes.log");
}

TEST(Manual, GuideOfReadmeWorks) {
  const TempDir home;
  const std::string program = "$PWD/build/release/installer";
  const std::string readme = read_file(INSTALLER_SOURCE_DIR "/README.md");
  const std::size_t start = readme.find("```sh\nprogram=") + 6;
  std::string guide = readme.substr(start, readme.find("```", start) - start);
  write_file("guide", guide.replace(guide.find(program), program.size(), INSTALLER_PROGRAM));
  EXPECT_EQ(std::system("HOME=$PWD bash -eu guide >out 2>&1"), 0) << read_file("out");
  EXPECT_NE(read_file("out").find("\nHello, World!\n"), std::string::npos) << read_file("out");
  ::setenv("HOME", home.path().c_str(), 1);
  fs::current_path("hello");
  expect_round_trip("./hello");
}

} // namespace installer
