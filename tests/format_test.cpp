#include "installer/lib.h"

#include <gtest/gtest.h>

namespace installer::test {

static constexpr const char *None = nullptr;

/// What is formatted into exactly `size` bytes; "<" behind it: without a terminator. The pointer
/// keeps the compiler from reading the format, so that any can be tried.
template <class... Values>
static std::string print(std::size_t size, const char *format, Values... values) {
  const std::unique_ptr<char[]> buffer{new char[size]};
  int (*volatile const bounded)(char *, std::size_t, const char *, ...) = snprintf;
  const int result = bounded(buffer.get(), size, format, values...);
  if (result == -1) return std::string(buffer.get(), size) + "<";
  EXPECT_TRUE(format == nullptr || buffer.get()[result] == '\0') << format;
  return std::string(buffer.get(), static_cast<std::size_t>(result));
}

TEST(Format, Conversions) {
  const char open[] = {'a', 'b', 'c'};
  EXPECT_EQ(print(99, "%s|%10.2s|%S|%.*s|%.3s|%5.1s", None, None, None, 3, open, open, "xyz"),
            "(NULL)|(NULL)|(NULL)|abc|abc|    x");
  EXPECT_EQ(print(99, "%%d|%-*d|%.*d|%C%S", -3, 7, -1, 5, L'x', L"yz"), "%d|7  |5|xyz");
  for (const char *cut : {"ab%", "ab%-08", "ab%5.", "ab%.*"}) EXPECT_EQ(print(9, cut, 3), "ab");
  int counts[] = {-1, -1, -1};
  EXPECT_EQ(print(9, "ab%n%s%n", &counts[0], "cdefghijkl", &counts[1]), "abcdefgh");
  for (const char *format : {"%y", "%hn", "%ln", "%q%k", "%N"}) print(20, format, &counts[2]);
  EXPECT_EQ((std::vector<int>(counts, counts + 3)), (std::vector<int>{2, 8, -1}));
}

TEST(Format, Cuts) {
  EXPECT_EQ(print(5, "abcd"), "abcd");
  EXPECT_EQ(print(5, "abcdefg"), "abcde<");
  EXPECT_EQ(print(5, "abcd%%%%"), "abcd%<");
  EXPECT_EQ(print(4, None), "");
  EXPECT_EQ(print(5, "%s%s%d", "abcdefg", None, 1), "abcd");
  EXPECT_EQ(print(5, "%s!", "abcdefg"), "abcd!<");
  EXPECT_EQ(print(1, "%s%f", "x", 1.0), "");
  EXPECT_EQ(print(0, "x"), "<");
  EXPECT_EQ(print(1, "x"), "x<");
  char buffer[1];
  EXPECT_EQ(lprintf(buffer, 1, "x"), 0);
  EXPECT_EQ(snprintf(nullptr, 5, "x"), 0);
}

TEST(Wild, OddTexts) {
  for (const char *wild : {"", "**"}) EXPECT_EQ(wmatch("", wild, 1), 1) << wild;
  for (const char *wild : {"?", "*?", None}) EXPECT_EQ(wmatch("", wild, 1), 0) << or_empty(wild);
  EXPECT_EQ(wmatch(nullptr, "*", 1), 0);
  EXPECT_EQ(wmatch("aB\xe9", "Ab\xe9", 0), 1);
  EXPECT_EQ(wmatch("\xc9", "\xe9", 0), 0);
  EXPECT_EQ(wmatch("@", "`", 0), 0);
  EXPECT_EQ(wild_match("", "*"), 1);
  EXPECT_EQ(wild_match("A", "a"), 0);
  EXPECT_EQ(wild_match(nullptr, "*"), 0);
  std::string text(1000, 'a'), wild;
  while (wild.size() < 1000) wild += "a*";
  EXPECT_EQ(wmatch(text.c_str(), wild.c_str(), 1), 1);
  EXPECT_EQ(wild_ilist((text + "," + text).c_str(), (wild + "?b " + wild + "B").c_str()), 0);
  EXPECT_EQ(wild_list(", ,a, ,my\tfile,", " ,no\tfile ,, "), 1);
  EXPECT_EQ(wild_list("", "*"), 0);
  EXPECT_EQ(wild_list("a", nullptr), 0);
  EXPECT_EQ(wild_list(nullptr, "*"), 0);
}

} // namespace installer::test
