#include "installer/copy.h"
#include "tests/support.h"

#include <gtest/gtest.h>

namespace installer {

namespace {

struct CopyTest : ::testing::Test {
  CopyTest() {
    const SettingList settings[2] = {
        SettingList{"a", "/usr", Ini_None}
    };
    ini_setup(store.get(), settings, nullptr, 1);
    ini_add_name(store.get(), "nested", "$(a)");
    take_errors();
  }
  /// Loads; all commands, a line each, and the errors.
  std::string load(const std::string &script, const char *section = "install") {
    write_file("cpy", script);
    std::string text = copy_load(x.get(), "cpy", section) == 1 ? "" : "none\n";
    for (std::uint32_t i = 0; i < copy_count(x.get()); ++i) {
      text += std::to_string(static_cast<std::uint32_t>(x->list[i].type));
      for (const auto field : {copy_src, copy_not, copy_dst, copy_control, copy_control_cmp})
        text += std::string{"|"} + (field(x.get(), i) != nullptr ? field(x.get(), i) : "");
      text += "\n";
    }
    return text + take_errors();
  }

  TempDir folder;
  std::unique_ptr<ini, Release<ini_free>> store{ini_init()};
  std::unique_ptr<copy, Release<copy_free>> x{copy_init(store.get())};
};

} // namespace

TEST_F(CopyTest, ReadsCommands) {
  EXPECT_EQ(load("MkDir 0\n[other]\nMkDir 1\n[Install\n\n # x\nCopyFile /s/*.cgi *.bak,*.old "
                 "/w/cgi\r\n \tcopydir\ts/ \t-  d c 1 x\n"
                 "MkDir $(a)/x c\nIni t $(a)/$(b) c $(a)\nRename o n\nRmFile f $(a) c v\nRmDir "
                 "$(a)/tmp - up\nExist p s\n"
                 "Chown f - www:x\nChmod f -- 755\nError need Run  $(a) - x \nError need\nWFile f "
                 "s\nRFile f s\nMkDir\nWFile f\nCopyFile a b\nCopyDir a\nRmDir x\nOdd a b "
                 "c\n[install]\nMkDir 2"),
            "257|/s/*.cgi|*.bak,*.old|/w/cgi||\n258|s/||d|c|1\n260|/usr/x|||c|\n264|t||/usr/"
            "$(b)|c|$(a)\n272|o||n||\n"
            "513|f|$(a)||c|v\n514|/usr/tmp|||up|\n1024|p||s||\n2048|f||www:x||\n2049|f|--|755||\n"
            "4096|need||Run  /usr - x||\n4096|need||||\n8192|f||s||\n16384|f||s||\n0|a|b|c||\n"
            "Error: Missing copy source path\nError: Missing copy destination path\nError: Missing "
            "copy destination path\n"
            "Error: Missing not wildcard\nError: Missing copy destination path\nError: Missing not "
            "wildcard\nError: Unknown copy type 'Odd'\n");
  const std::string half(993, 'x'); // a long line is two
  EXPECT_EQ(load("[tail] # x\nMkDir " + half + "Exist p s", "tail] # x"),
            "260|" + half + "||||\n1024|p||s||\n");
  EXPECT_EQ(load("[install] x"), "none\n");
  EXPECT_EQ(copy_load(x.get(), "none", "install") + copy_load(x.get(), ".", "install"), 0);
  EXPECT_EQ(take_errors(), "Error: Error opening 'none', No such file or directory\nError: Error "
                           "opening '.', Is a directory\n");
}

TEST_F(CopyTest, ExpandsReferences) {
  EXPECT_EQ(replace_vars(x.get(), "$(a)/x/$(b)-$(A)$( a)"), "/usr/x/$(b)-$(A)$( a)");
  EXPECT_EQ(replace_vars(x.get(), "<$(nested)>$()$(b$(a)-$("), "<$(a)>$()$(b$(a)-$(");
  EXPECT_EQ(replace_vars(x.get(), "plain"), Text{});
  const std::string cut(8999, 'l');
  ini_add_name(store.get(), "long", (cut + cut).c_str());
  EXPECT_EQ(replace_vars(x.get(), "$(long)$(long)"), cut + cut.substr(0, 1000));
  EXPECT_EQ(replace_vars(x.get(), ("$(a)" + cut + "x").c_str()), "/usr" + cut);
}

} // namespace installer
