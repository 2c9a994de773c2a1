#include "installer/init.h"
#include "tests/support.h"

#include <gtest/gtest.h>

#include <regex>

#include <sys/stat.h>

namespace installer::test {

TEST(Init, LoadsAndEvaluates) {
  const TempDir folder;
  const Store store = make_store({"host=box", "day=%Y"});
  take_errors();
  const std::string lines = "one\n" + std::string(2000, 'x') + "\n";
  write_file("lines", lines);
  write_file("nil", "");
  ASSERT_EQ(::mknod("pipe", S_IFIFO | 0600, 0), 0);
  std::string fits = "lines";
  while (fits.size() < 255) fits.insert(0, "./");
  const std::regex place{"@"};
  const std::string script =
      " # Copy 1 x - -\n\tExist \t$(x)lines 1 - - 5 6\r\nCopy 1 x -\nexist gone 1 - -\n"
      "Exist gone 2 - -\nExist . 3 - -\nExist @ 4 - -\nExist /@ 13 - -\nCopy 5 host - -\n"
      "Copy host x - -\nCopy 6 host - -\nCopy 7 $(x) 2 false\nCopy 8 y 2 False\nCopy 8 y - yes\n"
      "Copy 8 y - no\nCopy 8 x w w\nCopy 9 x y -\nTimeDate gone 8 - -\nTimeDate day day2 - -\n"
      "WFile $(x)w 6 - -\nRFile w 10 - -\nWFile w text - -\nRFile $(x)w 11 - -\nCopy 9 x 11 x\n"
      "RFile nil 11 - -\nRFile gone 11 - -\nRFile pipe 11 - -\nWFile pipe x - -\n"
      "WFile /dev/full x - -\nWFile /@ x - -\nRFile lines 12 - -\nCopy 12 x - ";
  write_file("int", std::regex_replace(script, place, fits) + std::string(1000, 'x'));
  const std::unique_ptr<init_s, Release<init_free>> x{init_init()};
  EXPECT_EQ(init_load(x.get(), ".") + init_load(x.get(), "none"), 0);
  EXPECT_STREQ(init_error(), "Failed to read 'none', No such file or directory");
  EXPECT_EQ(init_load(x.get(), "int"), 1);
  init_evaluate(x.get(), store.get());
  std::string values;
  for (int i = 1; i <= 13; ++i)
    values += or_empty(ini_value_name(store.get(), std::to_string(i).c_str())) + std::string{"|"};
  EXPECT_EQ(values, "true|false|true|true|box|box|$(x)|x|x|box|text|" + lines + "|false|");
  const std::string errors =
      "Error: Unknown init command 'exist'\n"
      "Error: Line too long, nothing done for 'Copy 12'\n"
      "Error: Unknown init command 'xxxxxxxxxxxxx'\n"
      "Error: Failed to test (/@), File name too long\nError: TimeDate 'gone' is NULL\n"
      "Error: Failed to read (gone), No such file or directory\n"
      "Error: Failed to read (pipe), Operation not supported\n"
      "Error: Failed to write (pipe), Operation not supported\n"
      "Error: Failed to write (/dev/full), No space left on device\n"
      "Error: Failed to write (/@), File name too long\n";
  EXPECT_EQ(take_errors(), std::regex_replace(errors, place, fits));
  EXPECT_GE(s_atoi(ini_value_name(store.get(), "day2")), 2024);
}

} // namespace installer::test
