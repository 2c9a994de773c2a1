#include "installer/shared.h"
#include "installer/tcp.h"
#include "tests/support.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace installer::test {

TEST(DataFile, BecomesSettings) {
  const TempDir dir;
  char name[LineSize];
  const std::string host = tcp_hostname(name, sizeof name), here = dir.path();
  write_file("pkg.dat", "\n  # note\r\nproduct  My \t Product \r\n\ttabbed\t \ta\tb\nonly\n"
                        "host mine\nurl $(HOST):$(current_dir)/$(product)$(action)$(nosuch)\n");
  const std::string want = "host36=" + host + ";system_dir36=/etc;current_dir36=" + here +
                           ";action0=install;product4=My \t Product;tabbed4=a\tb;only4-;" +
                           "host4=mine;url4=" + host + ":" + here + "/My \t Product$(nosuch);";
  fs::create_directory("directory");
  write_file("zero", std::string{"root /opt\0/x\n", 14});
  ASSERT_EQ(::mkfifo("pipe", 0600), 0);
  const Store x{ini_init()};
  for (const char *wrong :
       {"missing", "directory", "pipe", "zero", static_cast<const char *>(nullptr)})
    EXPECT_EQ(load_datfile(x.get(), wrong), 0) << or_empty(wrong);
  EXPECT_EQ(load_datfile(nullptr, "pkg.dat"), 0);
  EXPECT_EQ(load_datfile(x.get(), "pkg.dat"), 1);
  std::string got;
  for (std::int32_t i = 0; i < x->items; ++i) {
    const SettingList &entry = x->list[static_cast<std::size_t>(i)];
    got += *entry.setting + std::to_string(entry.mode);
    got += (ini_value(x.get(), i) ? "=" : "-") + std::string{or_empty(ini_value(x.get(), i))} + ";";
  }
  EXPECT_EQ(got, want);
  tcp_hostname(name, static_cast<unsigned>(host.size())); // no room for all of it
  EXPECT_EQ(name, std::string{"127.0.0.1"}.substr(0, host.size() - 1));
}

} // namespace installer::test
