#include "installer/init.h"
#include "tests/support.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace installer {

namespace fs = std::filesystem;

namespace {

constexpr const char *candidates[] = {"one", "two", nullptr};

/// Asks for one value after the other: (U)ser, (G)roup, (R)oot, (S)cripts; "-" removes the file.
std::string ask(const std::string &wanted) {
  std::string found;
  for (const char letter : wanted) {
    char value[LineSize] = "";
    char error[LineSize] = "";
    const auto buffer = [&](char c) { return c == letter ? value : nullptr; };
    if (letter == '-') fs::remove("one");
    const int got = init_find_http_conf(buffer('U'), buffer('G'), buffer('R'), buffer('S'), error);
    found += (got == 1 ? value : error) + std::string{";"};
  }
  return found;
}

} // namespace

TEST(Http, FindsValues) {
  const char *const full = "User root\r\n Group\troot\nDocumentRoot \"/w/html\"\nScriptAlias "
                           "/cgi-bin/ \"/w/cgi/\"\nDocumentRoot /late";
  const std::string missing = "Could not find, Group";
  const std::string odd = " 'odd' has bad uid '-1';";
  const std::tuple<const char *, const char *, const char *, std::string> rows[] = {
      {"",                                                                     full,     "UGRS",  "root;root;/w/html;/w/cgi/;"                              },
      {full,                                                                   "User x", "U-GRS", "root;;root;/w/html;/w/cgi/;"                             },
      {"",                                                                     "",       "UU",    "Cannot find httpd.conf file;Cannot find httpd.conf file;"},
      {"User root",                                                            full,     "UR",    "root;" + missing + ", DocumentRoot, ScriptAlias;"        },
      {"USER root\ndocumentroot /a",                                           "",       "RS-RS",
       "/a;" + missing + ", ScriptAlias;;/a;Cannot find httpd.conf file;"                                                                                   },
      {"# User root\nUser\nUserDir x",                                         "",       "S",     missing + ", User, DocumentRoot, ScriptAlias;"            },
      {"User odd\nDocumentRoot /a",                                            "",       "RG",    "User" + odd + "User" + odd                               },
      {"DocumentRoot /a\nGroup odd",                                           "",       "RR",    "Group" + odd + "/a;"                                     },
      {"DocumentRoot /a\nDocumentRoot /b c\nDocumentRoot",                     "",       "R",     "/b;"                                                     },
      {"ScriptAlias /x/cgi-bin /b\nScriptAlias /cgi/ /a\nScriptAlias cgi-bin", "",       "S",     "/b;"                                                     },
      {"DocumentRoot \"/my docs\"\nScriptAlias cgi-bin \"",                    "",       "RS",    "/m;;"                                                    },
  };
  for (const auto &row : rows) {
    const TempDir folder;
    // What has been found stays to the end of a process, so each row has one of its own.
    const auto child = [&row] {
      http_files = candidates;
      const auto &[one, two, wanted, found] = row;
      // A pipe in the place of a missing first file is passed over.
      if (*one == '\0') EXPECT_EQ(::mknod("one", S_IFIFO | 0600, 0), 0);
      else write_file("one", one);
      if (*two != '\0') write_file("two", two);
      EXPECT_EQ(ask(wanted), found);
      std::exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(child(), ::testing::ExitedWithCode(0), "");
  }
}

} // namespace installer
