#include "installer/shared.h"

#include "installer/tcp.h"
#include "tests/support.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace installer {

TEST(DataFile, BecomesSettings) {
  const TempDir dir;
  char name[LineSize];
  const std::string longer(1500, 'x'), host = tcp_hostname(name, sizeof name);
  std::string file = "\n  # note\r\nproduct  My \t Product \r\n\ttabbed\t \ta\tb\nonly\nhost mine\n"
                     "url $(HOST):$(current_dir)/$(product)$(action)$(nosuch)\n";
  std::string want = "host36=" + host + ";system_dir36=/etc;current_dir36=" + dir.path();
  want += ";action0=install;product4=My \t Product;tabbed4=a\tb;only4-;host4=mine;url4=" + host;
  want += ":" + dir.path() + "/My \t Product$(nosuch);";
  write_file("pkg.dat", file + "long " + longer);
  want += "long4=" + longer.substr(0, 994) + ";" + longer.substr(994) + "4-;";
  std::filesystem::create_directory("directory");
  ASSERT_EQ(::mkfifo("pipe", 0600), 0);
  Ini x = ini_init();
  for (const char *wrong : {"missing", "directory", "pipe", static_cast<const char *>(nullptr)})
    EXPECT_EQ(load_datfile(x, wrong), 0) << or_empty(wrong);
  EXPECT_EQ(load_datfile(nullptr, "pkg.dat") + load_datfile(x, "pkg.dat"), 1);
  clear_datfile();
  std::string got;
  for (std::int32_t i = 0; i < x->items; ++i) {
    const SettingList &entry = x->list[static_cast<std::size_t>(i)];
    got += *entry.setting + std::to_string(entry.mode);
    got += (ini_value(x, i) ? "=" : "-") + std::string{or_empty(ini_value(x, i))} + ";";
  }
  EXPECT_EQ(got, want);
  tcp_hostname(name, static_cast<unsigned>(host.size())); // no room for all of it
  EXPECT_EQ(name, std::string{"127.0.0.1"}.substr(0, host.size() - 1));
  ini_free(&x);
}

} // namespace installer
