#include "installer/init.h"
#include "tests/support.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace installer::test {

/// Asks for one value after the other: (U)ser, (G)roup, (R)oot, (S)cripts.
static std::string ask(const std::string &wanted) {
  std::string found;
  for (const char letter : wanted) {
    char value[LineSize] = "", error[LineSize] = "";
    const auto buffer = [&](char c) { return c == letter ? value : nullptr; };
    const int got = init_find_http_conf(buffer('U'), buffer('G'), buffer('R'), buffer('S'), error);
    found += (got == 1 ? value : error) + std::string{";"};
  }
  return found;
}

TEST(Http, KeepsWhatItFinds) {
  const TempDir folder;
  const char *const candidates[] = {"pipe", "one", "two", nullptr};
  http_files = candidates;
  ASSERT_EQ(::mknod("pipe", S_IFIFO | 0600, 0), 0); // is passed over
  EXPECT_EQ(ask("UU"), "Cannot find httpd.conf file;Cannot find httpd.conf file;");
  write_file("two", "# User root\nUser\nUserDir x\nScriptAlias /cgi/ /x");
  EXPECT_EQ(ask("S"), "Could not find, Group, User, DocumentRoot, ScriptAlias;");
  write_file("two", "User odd\nDocumentRoot /a");
  EXPECT_EQ(ask("RU"), "User 'odd' has bad uid '-1';User 'odd' has bad uid '-1';");
  write_file("two", "USER root\n documentroot\t\"/my docs\"\r\nScriptAlias cgi-bin \"\nGroup odd");
  EXPECT_EQ(ask("RRSU"), "Group 'odd' has bad uid '-1';/m;;root;");
  write_file("one", "DocumentRoot /late");
  EXPECT_EQ(ask("RGR"), "/m;Could not find, Group;/late;");
  for (const char *file : {"one", "two"}) fs::remove(file);
  EXPECT_EQ(ask("UG"), "root;Cannot find httpd.conf file;");
  write_file("two", "Group root\nDocumentRoot /later");
  EXPECT_EQ(ask("GR"), "root;/late;"); // nothing is read behind the last missing value
}

} // namespace installer::test
