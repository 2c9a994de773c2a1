#include "installer/lib.h"

#include <gtest/gtest.h>

#include <cstring>

namespace installer::test {

static constexpr const char *None = nullptr;

/// What `change` leaves of a text in exactly `size` bytes, then a result that is a number or null.
template <class Change>
static std::string in_block(std::size_t size, const std::string &text, Change change) {
  const std::unique_ptr<char[]> block{new char[size]};
  std::copy_n(text.c_str(), std::min(size, text.size() + 1), block.get());
  const auto result = change(block.get());
  const std::string left(block.get(), ::strnlen(block.get(), size));
  if constexpr (std::is_integral_v<decltype(result)>) return left + " " + std::to_string(result);
  else return result != nullptr ? left : left + " null";
}

TEST(Text, ComparesAndTrims) {
  EXPECT_EQ(s_stricmp("aBz", "AbZ"), 0);
  EXPECT_EQ(s_stricmp("a_", "AB"), '_' - 'b');
  EXPECT_EQ(s_stricmp("a", ""), 'a');
  EXPECT_EQ(s_stricmp("\xc9", "\xe9"), -32);
  EXPECT_EQ(s_stricmp("a", None), -1);
  EXPECT_EQ(s_strcmp(None, "a"), -1);
  for (const char *text : {" \t\v a b\t\f\r\n", "a b", "a b\n\n", "\n\ra b"})
    EXPECT_STREQ(s_strtrm(std::string{text}.data()), "a b") << text;
  EXPECT_STREQ(s_strtrm(std::string{" \t\r\n"}.data()), "");
  for (const char *yes : {"true", "YES", "y", "On", "checked", "SELECTED", "1", "-1", "2x", " 5"})
    EXPECT_EQ(std::pair(istrue(yes), isfalse(yes)), std::pair(1, 0)) << yes;
  for (const char *no : {"false", "No", "n", "OFF", "0", "00", "-0", "a0", "0x1"})
    EXPECT_EQ(std::pair(istrue(no), isfalse(no)), std::pair(0, 1)) << no;
  for (const char *neither : {"", "maybe", "truex", "nope", "yes ", "ab0", "-", None})
    EXPECT_EQ(std::pair(istrue(neither), isfalse(neither)), std::pair(0, 0)) << or_empty(neither);
}

TEST(Text, CopiesAndCuts) {
  EXPECT_EQ(in_block(4, "ab", [](char *b) { return scpy(b, "cdef", 4); }), "cde 3");
  EXPECT_EQ(in_block(4, "ab", [](char *b) { return scpy(b, None, 4); }), " 0");
  EXPECT_EQ(in_block(4, "ab", [](char *b) { return scat(b, None, 4); }), "ab 0");
  EXPECT_EQ(in_block(4, "ab", [](char *b) { return scpy(b, "x", 0); }), "ab 0");
  EXPECT_EQ(in_block(4, "ab", [](char *b) { return scat(b, "x", 0); }), "ab 0");
  EXPECT_EQ(in_block(6, "ab", [](char *b) { return scat(b, "cd", 6); }), "abcd 4");
  EXPECT_EQ(in_block(5, "ab", [](char *b) { return scat(b, "cd", 5); }), "abc 3");
  EXPECT_EQ(in_block(4, "abcd", [](char *b) { return scat(b, "e", 4); }), "abc 3");
  EXPECT_EQ(in_block(3, "", [](char *b) { return schunk("abc,.d", ".,", b, 3); }), "ab 2");
  EXPECT_EQ(in_block(4, "", [](char *b) { return schunk("abc,.d", ".,", b, 4); }), "abc 3");
  EXPECT_EQ(in_block(5, "cd", [](char *b) { return spre(b, "ab", 5); }), "abcd");
  EXPECT_EQ(in_block(4, "cd", [](char *b) { return spre(b, "ab", 4); }), "cd null");
  EXPECT_EQ(in_block(9, "", [](char *b) { return sreplace("aaab", "aa", "ba", b, 9); }), "baab");
  EXPECT_EQ(in_block(4, "", [](char *b) { return sreplace("a.b.cd", ".", None, b, 4); }), "abc");
  EXPECT_EQ(scpy(nullptr, "x", 4), 0U);
  EXPECT_EQ(scat(nullptr, "x", 4), 0U);
  EXPECT_EQ(schunk("x", ".", nullptr, 4), 0U);
  EXPECT_STREQ(HeapText{smake("abcd", 4)}.get(), "abc");
  EXPECT_STREQ(HeapText{sadd(sadd(sadd(nullptr, "ab"), None), "cd")}.get(), "abcd");
}

TEST(Text, ControlsAreEscaped) {
  const char *const rows[][2] = {
      {"a b\\ \u00a0\u00e4\u20ac\U0001F600",       "a b\\ \u00a0\u00e4\u20ac\U0001F600"           },
      {"\n\t\r\x1f\x7f~",                          "\\n\\t\\015\\037\\177~"                       },
      {"\xc2\x80\xc2\x9f",                         "\\302\\200\\302\\237"                         },
      {"\x80\x9f\xa0\xff\xc2",                     "\\200\\237\xa0\xff\xc2"                       },
      {"\xc0\x9b\xe0\x82\x9b\xed\xa0\x80\xe2\x82", "\xc0\\233\xe0\\202\\233\xed\xa0\\200\xe2\\202"},
      {"\xf0\x8f\xbf\xbf\xf4\x90\x80\xa0\xf5",     "\xf0\\217\xbf\xbf\xf4\\220\\200\xa0\xf5"      },
  };
  for (const auto &[text, want] : rows) {
    EXPECT_EQ(escape_controls(text), want);
    EXPECT_EQ(has_controls(text), std::string{text} != want) << want;
  }
  for (const char *steering :
       {"\u061c", "\u200e", "\u200f", "\u2028", "\u202e", "\u2066", "\u2069"})
    EXPECT_TRUE(has_controls(steering)) << escape_controls(steering);
  for (const char *harmless :
       {"\u061b", "\u061d", "\u200d", "\u2010", "\u2027", "\u202f", "\u2065", "\u206a"})
    EXPECT_FALSE(has_controls(harmless)) << harmless;
}

TEST(Text, NothingOfNothing) {
  const void *const results[] = {s_strtrm(nullptr),   s_strstr(None, "a"),
                                 s_strstr("a", None), smake("x", 0),
                                 smake(None, 4),      spre(nullptr, "x", 4),
                                 sadd(nullptr, None), strip_path(nullptr),
                                 strip_ext(nullptr),  strip_file(nullptr, nullptr, 0)};
  for (const void *const &result : results) EXPECT_EQ(result, nullptr) << &result - results;
}

TEST(Paths, Strip) {
  const char *const rows[][4] = {
      {"/usr/lib/x.y.so", "/usr/lib", "x.y.so", "/usr/lib/x.y"},
      {"a/b\\c.d\\e",     "a/b\\c.d", "e",      "a/b\\c.d\\e" },
      {"/top.x",          "",         "top.x",  "/top"        },
      {"dir.d//",         "dir.d/",   "",       "dir.d//"     },
      {".rc",             "",         ".rc",    ".rc"         },
      {"d/.rc",           "d",        ".rc",    "d/"          },
  };
  for (const auto &[path, directory, name, bare] : rows) {
    char last[9] = "";
    EXPECT_EQ(in_block(20, path, [&](char *b) { return strip_file(b, last, 9); }), directory);
    EXPECT_STREQ(last, name) << path;
    EXPECT_EQ(in_block(20, path, strip_path), name) << path;
    EXPECT_EQ(in_block(20, path, strip_ext), bare) << path;
  }
}

TEST(Paths, Attach) {
  const char *const rows[][3] = {
      {"a",        "b",      "a/b"     },
      {"a\\",      "\\b\\c", "a/b/c"   },
      {"a",        "/b",     "a/b"     },
      {"a/",       "//b",    "a//b"    },
      {"",         "\\b",    "/b"      },
      {"",         "b",      "b"       },
      {"a",        "",       "a/"      },
      {"a\\b",     None,     "a/b"     },
      {"",         "",       " null"   },
      {"abcdefg",  "hi",     "abcdefg/"},
      {"abcdefgh", "i",      "abcdefgh"}
  };
  for (const auto &row : rows)
    EXPECT_EQ(in_block(9, row[0], [&](char *b) { return attach_path(b, row[1], 9); }), row[2])
        << row[0];
  EXPECT_EQ(in_block(6, "abc", [](char *b) { return attach_ext(b, ".log", 6); }), "abc.l");
  EXPECT_EQ(in_block(6, "d", [](char *b) { return join_path(b, 6, b, "a\\b"); }), "d/a\\b 1");
  EXPECT_EQ(in_block(3, "d", [](char *b) { return join_path(b, 3, b, "x"); }), "d 0");
}

} // namespace installer::test
