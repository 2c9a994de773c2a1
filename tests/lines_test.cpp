#include "installer/lines.h"
#include "tests/support.h"

#include <gtest/gtest.h>

#include <cstring>

namespace installer::test {

using std::literals::operator""s;

struct LinesRow {
  std::string text, want;
  const char *section;
  LineRules rules;
};

/// Each line as "number:line", with "+" for one that continues another and "~" for one that is
/// cut; then why reading ended early; then the remarks, "!" and their number and text.
static std::string read_lines(const LinesRow &row) {
  write_file("lines", row.text);
  std::string remarks, got;
  const auto take = [&](const Fault &fault) {
    remarks += "!" + std::to_string(fault.line) + " " + fault.text + ";";
  };
  Lines lines{"lines", take, row.rules};
  if (*row.section == '\0' || lines.enter(row.section))
    for (const char *line : lines)
      got += std::to_string(lines.number()) + ":" + (lines.continued() ? "+" : "") +
             (std::strlen(line) < 20 ? line : "long") + (lines.cut() ? "~" : "") + ";";
  return got + (lines.failed() ? lines.reason() : "") + remarks;
}

TEST(Lines, ReadsAndCounts) {
  const TempDir folder;
  const std::string long_word(999, 'x'), blanks(3000, ' ');
  const std::string long_line = "!1 The line is longer than 999 characters;";
  const std::string outside = "!1 The line stands before the first section;";
  const std::string mark = "!1 The file begins with a byte order mark;";
  const std::string end = "!7 The line ends with a carriage return;";
  const LineRules plain = {}, joined = {.joined_comments = true}, ends = {.zero_ends_line = true};
  const LinesRow rows[] = {
      {"a\n\n # b\n  c d \t\nlast",              "1:a;4:c d;5:last;",               "",  plain },
      {long_word + "\nb",                        "1:long;2:b;",                     "",  plain },
      {long_word + blanks + "\nb",               "1:long;2:b;",                     "",  plain },
      {"ab" + blanks + "c\nd",                   "1:ab~;1:+c;2:d;" + long_line,     "",  plain },
      {long_word + "y\n[b]",                     "1:long~;1:+y;2:[b];" + long_line, "",  plain },
      {"#" + long_word + "y\nb",                 "1:+xy;2:b;" + long_line,          "",  plain },
      {"#" + long_word + long_word + "y\nb",     "2:b;",                            "",  joined},
      {"a\n# \0b\n\0\nc"s,                       "1:a;line 3 holds a zero byte",    "",  plain },
      {"a\nb\0c\nd"s,                            "1:a;2:b;3:d;",                    "",  ends  },
      {"\0\n[x]\n\0\n[i]\na\n[\0]\n\0"s,         "5:a;",                            "I", plain },
      {"[i]\na\n\0"s,                            "2:a;line 3 holds a zero byte",    "i", plain },
      {"[i\0]\na"s,                              "line 1 holds a zero byte",        "i", plain },
      {"o\np\n[x]\nb\n[i\n#c\nd\r\ne\r\n[i]\nf", "7:d;8:e;" + outside + end,        "i", plain },
      {"\xef\xbb\xbf[i]\na",                     mark + outside,                    "i", plain },
  };
  for (const LinesRow &row : rows) EXPECT_EQ(read_lines(row), row.want) << row.text.substr(0, 40);
}

TEST(Lines, EntersEachSection) {
  const TempDir folder;
  write_file("lines", "a\n[One] x\nb\n[two]\n[three\nc\nd");
  Lines lines{"lines"};
  std::string got;
  while (lines.enter_next()) {
    got += std::to_string(lines.number()) + "[" + lines.section();
    for (const char *line : lines) got += " " + std::string{line};
  }
  EXPECT_EQ(got, "2[One] x b4[two5[three c d");
}

} // namespace installer::test
