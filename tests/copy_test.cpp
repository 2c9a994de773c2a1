#include "installer/copy.h"
#include "tests/support.h"

#include <gtest/gtest.h>

namespace installer::test {

struct CopyTest : ::testing::Test {
  CopyTest() { take_errors(); }
  /// Loads; all commands, a line each, and the errors.
  std::string load(const std::string &script) {
    write_file("cpy", script);
    std::string text = copy_load(x.get(), "cpy", "install") == 1 ? "" : "none\n";
    for (std::uint32_t i = 0; i < copy_count(x.get()); ++i) {
      text += std::to_string(static_cast<std::uint32_t>(x->list[i].type));
      for (const auto field : {copy_src, copy_not, copy_dst, copy_control, copy_control_cmp})
        text += std::string{"|"} + (field(x.get(), i) != nullptr ? field(x.get(), i) : "");
      text += "\n";
    }
    return text + take_errors();
  }

  TempDir folder;
  Store store = make_store({"a=/usr", "nested=$(a)"});
  std::unique_ptr<copy, Release<copy_free>> x{copy_init(store.get())};
};

TEST_F(CopyTest, ReadsCommands) {
  EXPECT_EQ(load("MkDir 0\n[other]\nMkDir 1\n[Install\n\n # x\n \tcopydir\ts/ \t-  d c 1 x\r\n"
                 "MkDir $(a)/x c\nIni t $(a)/$(b) c $(a)\nRmFile f $(a) c v\nChmod f -- 755\n"
                 "Error need Run  $(a) - x \nError need\nMkDir\nWFile f\nCopyFile a b\nCopyDir a\n"
                 "RmDir x\nOdd a b c\n[install]\nMkDir 2"),
            "258|s/||d|c|1\n260|/usr/x|||c|\n264|t||/usr/$(b)|c|$(a)\n513|f|$(a)||c|v\n"
            "2049|f|--|755||\n4096|need||Run  /usr - x||\n4096|need||||\n0|a|b|c||\n"
            "Error: Missing copy source path\nError: Missing copy destination path\n"
            "Error: Missing copy destination path\nError: Missing not wildcard\n"
            "Error: Missing copy destination path\nError: Missing not wildcard\n"
            "Error: Unknown copy type 'Odd'\n");
  EXPECT_EQ(load("[install] x"), "none\n");
  EXPECT_EQ(copy_load(x.get(), "none", "install") + copy_load(x.get(), ".", "install"), 0);
  EXPECT_EQ(take_errors(), "Error: Error opening 'none', No such file or directory\n"
                           "Error: Error opening '.', Is a directory\n");
}

TEST_F(CopyTest, CutsExpansions) {
  EXPECT_EQ(replace_vars(x.get(), "<$(nested)>$()$(b$(a)-$("), "<$(a)>$()$(b$(a)-$(");
  const std::string cut(8999, 'l');
  ini_add_name(store.get(), "long", (cut + cut).c_str());
  EXPECT_EQ(replace_vars(x.get(), "$(long)$(long)"), cut + cut.substr(0, 1000));
  EXPECT_EQ(replace_vars(x.get(), ("$(a)" + cut + "x").c_str()), "/usr" + cut);
}

} // namespace installer::test
