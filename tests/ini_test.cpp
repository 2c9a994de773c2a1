#include "installer/ini.h"

#include "installer/log.h"
#include "tests/support.h"

#include <gtest/gtest.h>

namespace installer::test {

using Texts = std::vector<std::string>;

TEST(Store, AddsReplacesAndRefuses) {
  const Store x = make_store({"host=h", "bare", "one=1", "one=late"});
  const std::unique_ptr<log, Release<log_free>> messages{log_init(LogDebug)};
  log_set(messages.get()); // they name the values
  const auto get = [&x](const char *name) { return ini_value_name(x.get(), name); };
  const auto add = [&](const char *name, const char *value) {
    const std::string result = std::to_string(ini_add_name(x.get(), name, value));
    return result + " " + or_empty(get(name));
  };
  EXPECT_EQ((Texts{add("host", "x"), add("bare", ""), add("bare", "b"), add("one", "")}),
            (Texts{"-1 h", "-1 ", "1 b", "-1 1"}));
  EXPECT_EQ((Texts{add("one", "2"), add("one", "3"), add("one", get("one")), add("ONE", "up")}),
            (Texts{"1 2", "1 3", "1 3", "1 up"}));
  EXPECT_EQ((Texts{add("new", ""), add("new", "n"), add("new", get("new")), add("one", nullptr)}),
            (Texts{"1 ", "1 n", "1 n", "0 3"}));
  EXPECT_EQ(list_items(x->data->slot(2)->values), 1);
  EXPECT_EQ(ini_add_name(Store{ini_init()}.get(), "a", "b"), 0);
  EXPECT_EQ(ini_process(nullptr), 0);
  log_set(nullptr);
}

TEST(Store, CursorDecidesWhichValueCounts) {
  const Store x = make_store({});
  std::string all;
  for (const char *value : {"a", "b", "", "c", "d"})
    if (*value == '\0') EXPECT_STREQ(ini_value_name(x.get(), "m"), "a");
    else EXPECT_EQ(ini_add_name(x.get(), "m", value), 1);
  for (auto *n = x->data->slot(0)->values->root->next; n != nullptr; n = n->next) all += *n->data;
  EXPECT_EQ(all, "cdab");
}

TEST(Substitution, EndsAndIsCut) {
  take_errors();
  const std::string wide(600, 'w'), name(999, 'n');
  const Store x =
      make_store({"turn=$(one)", "open=$(host", "one=$(two)", "two=$(one)", "self=$(Self)",
                  "grow=$(grow)+$(b)", "a=$(b)/x", "b=$(host)/y", "host=h",
                  "cut=$(wide)$(wide)$(b)", "wide=" + wide, name + "=long", "mixed=$(b) $(turn)"});
  EXPECT_EQ(ini_process(x.get()), 1);
  const std::string errors = take_errors(); // of "turn", "one", "two", "self", "grow" and "mixed"
  EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 6) << errors;
  EXPECT_STREQ(ini_value_name(x.get(), "mixed"), "h/y $(turn)");
  EXPECT_STREQ(ini_value_name(x.get(), "a"), "h/y/x");
  EXPECT_EQ(ini_value_name(x.get(), "cut"), wide + wide.substr(201));
  char result[10];
  ini_replace(x.get(), "$(a)$(b)12$(a)", result, sizeof result); // the text between does not fit
  EXPECT_STREQ(result, "h/y/xh/y1");
  ini_replace(x.get(), ("$(" + name + "nn)").c_str(), result, sizeof result); // so is a name
  EXPECT_STREQ(result, "longn)");
}

TEST(Settings, NamesOfOneKindHaveDifferentHashes) {
  EXPECT_NE(FoldedName{}("a~"), FoldedName{}("b_"));
  EXPECT_NE(FoldedName{}("ab"), FoldedName{}("ba"));
  EXPECT_EQ(FoldedName{}("Name"), FoldedName{}("nAME"));
}

TEST(Substitution, EndsInLongRowsAndCircles) {
  std::vector<std::string> settings;
  for (int i = 0; i < 20000; ++i)
    settings.push_back(std::to_string(i) + "=$(" + std::to_string((i + 1) % 20000) + ")");
  for (int i = 0; i < 20000; ++i) { // resolved from the end, and from the beginning
    settings.push_back("r" + std::to_string(i) + "=$(R" + std::to_string(i + 1) + ")");
    settings.push_back("f" + std::to_string(i + 1) + "=$(f" + std::to_string(i) + ")");
  }
  settings.insert(settings.end(), {"r20000=end", "f0=start", "sign=$", "late=$(sign)(late)x"});
  const Store x = make_store(settings);
  int faults = 0;
  EXPECT_EQ(ini_process(x.get(), [&faults](const Fault &) { ++faults; }), 1);
  EXPECT_EQ(faults, 20001); // the circle, and "late"
  for (const char *name : {"r0", "r1", "r19999"})
    EXPECT_STREQ(ini_value_name(x.get(), name), "end") << name;
  EXPECT_STREQ(ini_value_name(x.get(), "f20000"), "start");
  EXPECT_STREQ(ini_value_name(x.get(), "0"), "$(1)");
}

} // namespace installer::test
