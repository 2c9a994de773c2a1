#include "installer/init.h"
#include "tests/support.h"

#include <gtest/gtest.h>

#include <ctime>

#include <sys/stat.h>

namespace installer {

TEST(Init, LoadsAndEvaluates) {
  const TempDir folder;
  take_errors();
  const std::string lines = "one\n" + std::string(2000, 'x') + "\n";
  write_file("lines", lines);
  write_file("nil", "");
  ASSERT_EQ(::mknod("pipe", S_IFIFO | 0600, 0), 0);
  std::string fits = "lines";
  while (fits.size() < 255) fits.insert(0, "./");
  const SettingList settings[2] = {
      SettingList{"host", "box", Ini_Fixed}
  };
  Ini store = ini_init();
  ini_setup(store, settings, nullptr, 1);
  ini_add_name(store, "day", "%Y%m%d");
  Init x = init_init();
  write_file(
      "int",
      " # Copy 1 x - -\n\tExist \t$(x)lines 1 - - 5 6\r\nCopy 1 x -\nexist gone 1 - "
      "-\nExist gone 2 - -\nExist . 3 - -\nExist " +
          fits + " 4 - -\nExist /" + fits +
          " 5 - -\n"
          "Copy 5 host - -\nCopy host x - -\nCopy 6 host - -\nCopy 7 $(x) 2 "
          "false\nCopy 8 x 2 False\nCopy 8 x w w\nCopy 8 y - yes\n"
          "Copy 8 y - no\nCopy 9 x y -\nTimeDate gone 8 - -\nTimeDate day day2 - "
          "-\nWFile $(x)w 6 - -\nRFile w 10 - -\nWFile w text - -\n"
          "RFile $(x)w 11 - -\nCopy 9 x 11 x\nRFile nil 11 - -\nRFile gone 11 - -\nRFile pipe 11 - "
          "-\nWFile pipe x - -\nWFile /dev/full x - -\nWFile /" +
          fits + " x - -\nRFile lines 12 - -\nCopy 12 " + std::string(1000, 'x') + " - -");
  EXPECT_EQ(init_load(x, ".") + init_load(x, "none"), 0);
  EXPECT_STREQ(init_error(), "Failed to read 'none', No such file or directory");
  EXPECT_EQ(init_load(x, "int"), 1);
  init_evaluate(x, store);
  std::string values;
  for (int i = 1; i <= 12; ++i)
    values += or_empty(ini_value_name(store, std::to_string(i).c_str())) + std::string{"|"};
  EXPECT_EQ(values, "true|false|true|true|box|box|$(x)|x|x|box|text|" + lines + "|");
  EXPECT_EQ(
      take_errors(),
      "Error: Unknown init command 'exist'\nError: Line too long or with a zero byte, skipped: "
      "'Copy 12 xxxxxxxxxxxx...'\nError: Line too long or with a zero byte, skipped: 'xxxxxxxxx - "
      "-...'\nError: Failed to "
      "test (/" +
          fits +
          "), File name too long\nError: TimeDate 'gone' is NULL\n"
          "Error: Failed to read (gone), No such file or directory\nError: Failed to read (pipe), "
          "Operation not supported\nError: Failed to write (pipe), Operation not supported\n"
          "Error: Failed to write (/dev/full), No space left on device\nError: Failed to write (/" +
          fits + "), File name too long\n");
  char today[9];
  const std::time_t now = std::time(nullptr);
  std::strftime(today, sizeof today, "%Y%m%d", std::localtime(&now));
  EXPECT_STREQ(ini_value_name(store, "day2"), today);
  init_free(&x);
  ini_free(&store);
}

} // namespace installer
