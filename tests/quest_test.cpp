#include "installer/quest.h"
#include "tests/support.h"

#include <gtest/gtest.h>

#include <array>

namespace installer::test {

struct QuestTest : ::testing::Test {
  QuestTest() { take_errors(); }
  int load(const std::string &text) {
    write_file("q", text);
    x.reset(quest_init(store.get()));
    return quest_load(x.get(), "q", "install");
  }
  TempDir folder;
  Store store = make_store({"host=box", "dir=/opt"});
  std::unique_ptr<questions, Release<quest_free>> x{quest_init(store.get())};
};

TEST_F(QuestTest, ReadsQuestions) {
  const char *const lines =
      "Text a - - h t\n[other]\nText b - - h t\n[Install\n # x\n\nText port - - h1 Which  port?\r\n"
      "\tyn \tok\v ctl - h\v 50\\% \\\\a\\nb\\tc \\\nExist\nText s\nYN s c\nError s\nExist p\nLoop "
      "s\n"
      "Text s - - h\nexist $(dir)/x have more\nError s - It's  wrong\nLoop again 3 4\n"
      "Else s c v h t\nCopy s - - h t\n[install]\nText c - - h t";
  EXPECT_EQ(load(lines), 1);
  std::string all;
  for (const auto &[text, setting, control, compare, help, type, line] : x->list) {
    all += std::to_string(line) + ":" + std::to_string(type);
    for (const Text &field : {setting, control, compare, help, text})
      all += "|" + field.value_or("~");
    all += "\n";
  }
  EXPECT_EQ(all, "7:1|port|~|~|h1|Which  port?\n8:2|ok\v|ctl|~|h|50% \\a\nb\tc \n"
                 "16:512|have|~|~|~|$(dir)/x\n17:2048|s|~|~|-|It's  wrong\n"
                 "18:4096|again|~|~|~|3\n19:0|s|c|v|h|t\n20:1024|s|~|~|h|t\n");
  std::string errors;
  for (const std::string what : {"setting label", "control", "control comparison", "Help ID text",
                                 "Help ID text", "Help ID text", "question text"})
    errors += "Error: Missing " + what + "\n";
  EXPECT_EQ(take_errors(), errors + "Error: Unknown question type 'Else'\n");
}

TEST_F(QuestTest, LoadsOneSection) {
  EXPECT_EQ(load("[install]\nLoop s 1\n[other] x\nLoop s 2"), 1);
  EXPECT_EQ(quest_load(x.get(), "none", "INSTALL") + quest_load(x.get(), "q", "Other] x"), 2);
  EXPECT_STREQ(quest_text(x.get(), 0), "2");
  EXPECT_EQ(quest_load(x.get(), "q", "gone") + quest_load(x.get(), ".", "install"), 0);
  EXPECT_STREQ(quest_error(), "Error opening '.', Is a directory");
  EXPECT_EQ(take_errors().find("Error: Section 'gone' not found\n") + quest_count(x.get()), 0U);
}

TEST_F(QuestTest, Asks) {
  const std::string x72(72, 'x');
  const std::string line = std::string(40, 'b') + " " + std::string(38, 'c');
  const std::vector<std::array<std::string, 4>> rows = {
      {"no - - h a\\n$(dir)$(no)",         "  abc \t \r\n", "  abc",     "a\n/opt []? "                                 },
      {"dir - - h a",                      "last",          "last",      "a [/opt]? "                                   },
      {"dir - - h a",                      "0123456789\n",  "012345678", "a [/opt]? "                                   },
      {"dir - - h a",                      "",              "",          "a [/opt]? "                                   },
      {"dir - - h " + x72,                 "\n",            "/opt",      x72 + " [/opt]? "                              }, // 80 characters
      {"dir - - h " + x72 + "y",           "\n",            "/opt",      x72 + "y\n[/opt]? "                            },
      {"dir - - h " + x72 + x72,           "\n",            "/opt",      x72 + "xxxxxxx\n" + x72.substr(7) + " [/opt]? "},
      {"dir - - h " + line + " \t " + x72, "\n",            "/opt",      line + "\n" + x72 + "\n[/opt]? "               },
  };
  for (const auto &[text, input, reply, shown] : rows) {
    EXPECT_EQ(load("[install]\nText " + text), 1);
    write_file("input", input);
    ASSERT_NE(std::freopen("input", "r", stdin), nullptr);
    char buffer[10] = "earlier";
    ::testing::internal::CaptureStdout();
    const int asked = quest_ask(x.get(), 0, buffer, sizeof buffer);
    EXPECT_EQ(::testing::internal::GetCapturedStdout() + buffer, shown + reply);
    EXPECT_TRUE(asked == (input.empty() ? 0 : 1) && input_ended() == input.empty());
  }
}

TEST_F(QuestTest, ChecksAnswers) {
  write_file("full/.hidden", "");
  for (const std::string row :
       {"Text  any /= any /", "Else a/=a/", "Dir /opt/app/=/opt/app", "Dir /=", "DirExist q=q",
        "FileExist full/=full/", "DirEmpty none/=none", "YN 2=true", "YN 0=false",
        "FileName /tmp/a.tar.gz=a.tar",
        "DirExist no/=Directory 'no' must exist, No such file or directory",
        "FileExist no/=File 'no/' must exist, No such file or directory",
        "DirEmpty full/=Directory 'full' must be empty", "YN =You must answer either Yes or No"}) {
    const std::size_t blank = row.find(' ');
    const std::string type = row.substr(0, blank), setting = std::to_string(row.size()) + type;
    ASSERT_EQ(load("[install]\n" + type + " " + setting + " - - h t\nText host - - h t"), 1);
    std::string answer = row.substr(blank + 1, row.find('=') - blank - 1);
    errno = 0;
    const bool accepted = quest_answer(x.get(), 0, answer.data()) == 1;
    const char *stored = ini_value_name(store.get(), setting.c_str());
    EXPECT_EQ(accepted ? or_empty(stored) : quest_error(), row.substr(row.find('=') + 1)) << row;
    EXPECT_EQ(stored != nullptr, accepted);
    EXPECT_EQ(quest_answer(x.get(), 1, answer.data()), 1); // accepted, though the store refuses it
    EXPECT_STREQ(ini_value_name(store.get(), "host"), "box");
  }
}

} // namespace installer::test
