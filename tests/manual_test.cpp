// The examples of the manual pages and of the README, run as they stand there.

#include "tests/support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>

namespace installer {

TEST(Manual, KeywordsHaveExamples) {
  const std::regex keyword{R"(\n\.It Ic (\S+))"};
  for (const std::string name : {"int", "q", "cpy"}) {
    const std::string page = read_file(INSTALLER_SOURCE_DIR "/man/installer-" + name + ".5");
    const std::string example = "\n" + read_page("installer-" + name + ".5")["notes." + name];
    std::sregex_iterator it{page.begin(), page.end(), keyword}, end;
    EXPECT_NE(it, end) << name;
    for (; it != end; ++it)
      EXPECT_NE(example.find("\n" + it->str(1) + " "), example.npos) << name << ": " << it->str(1);
  }
}

TEST(Manual, ExampleProductRuns) {
  const TempDir folder;
  write_notes();
  const auto expect = [](const std::vector<std::string> &arguments, const char *text) {
    const std::string console = run(arguments, {}, Via::Pipe, {.name = "./notes"}).console;
    EXPECT_NE(console.find(text), std::string::npos) << console;
  };
  expect({"-automate"}, "[Install]\nCopying files[.......]\nSuccess 42 bytes in 23 files ");
  Tree installed = read_tree("out");
  EXPECT_NE(installed["etc/notes.conf"].find("\nPort=8080\n"), std::string::npos);
  EXPECT_TRUE(installed.contains("bin/notesd") && !installed.contains("share/drafts/"));
  installed["etc/notes.conf"] = "the operator's";
  write_file("out/etc/notes.conf", "the operator's");
  expect({"-automate"}, "[Upgrade]\nCopying files[...]\nSuccess ");
  EXPECT_EQ(read_tree("out"), installed);
  expect({"-automate", "-special", "pages"}, "]\n Success 1 files done.\n");
  EXPECT_EQ(read_file("www/index.html"), "share/index.html");
  expect({"-automate", "-special", "remove"}, "]\n Success 9 files done.\n");
  EXPECT_FALSE(fs::exists("out"));
  for (const char *fault : {"Error: Missing", "Error: Unknown"})
    EXPECT_EQ(read_log("notes.log").find(fault), std::string::npos) << read_log("notes.log");
}

TEST(Manual, GuideOfReadmeWorks) {
  const TempDir home;
  const std::string tools = "$PWD/build/release", build = "scripts/build release\n";
  const std::string readme = read_file(INSTALLER_SOURCE_DIR "/README.md");
  const std::size_t start = readme.find("```sh\ntools=") + 6;
  std::string guide = readme.substr(start, readme.find("```", start) - start);
  const std::string built = fs::path{INSTALLER_PROGRAM}.parent_path().string();
  guide.erase(guide.find(build), build.size());
  guide.replace(guide.find(tools), tools.size(), built);
  write_file("guide", guide);
  EXPECT_EQ(std::system("HOME=$PWD bash -eu guide >out 2>&1"), 0) << read_file("out");
  EXPECT_NE(read_file("out").find("\nHello, World!\n"), std::string::npos) << read_file("out");
}

} // namespace installer
