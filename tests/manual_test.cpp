// The examples of the manual pages and of the README, run as they stand there.

#include "tests/support.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace installer {

TEST(Manual, ExampleProductRuns) {
  const TempDir folder;
  write_example("notes");
  const auto expect = [](const std::vector<std::string> &arguments, const char *text) {
    const std::string console = run(arguments, {}, Via::Pipe, {.name = "./notes"}).console;
    EXPECT_NE(console.find(text), std::string::npos) << console;
  };
  expect({"-automate"}, "[Install]\nCopying files[.......]\nSuccess 42 bytes in 23 files ");
  Tree installed = read_tree("out");
  EXPECT_NE(installed["etc/notes.conf"].find("\nPort=8080\n"), std::string::npos);
  EXPECT_TRUE(installed.contains("bin/notesd"));
  EXPECT_FALSE(installed.contains("share/drafts/"));
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
  const std::string program = "$PWD/build/release/installer";
  const std::string readme = read_file(INSTALLER_SOURCE_DIR "/README.md");
  const std::size_t start = readme.find("```sh\nprogram=") + 6;
  std::string guide = readme.substr(start, readme.find("```", start) - start);
  write_file("guide", guide.replace(guide.find(program), program.size(), INSTALLER_PROGRAM));
  EXPECT_EQ(std::system("HOME=$PWD bash -eu guide >out 2>&1"), 0) << read_file("out");
  EXPECT_NE(read_file("out").find("\nHello, World!\n"), std::string::npos) << read_file("out");
}

} // namespace installer
