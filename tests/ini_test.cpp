#include "installer/ini.h"

#include "installer/copy.h"
#include "installer/log.h"
#include "tests/support.h"

#include <gtest/gtest.h>

namespace installer {

using Texts = std::vector<std::string>;
using Store = std::unique_ptr<ini, Release<ini_free>>;

/// From "name=value" or "name"; "host" is fixed, "action" not replaceable.
static Store make_store(const Texts &settings) {
  std::vector<SettingList> list;
  for (const std::string &text : settings) {
    const std::string name = text.substr(0, text.find('='));
    list.push_back({name, {}, name == "action" ? Ini_None : Ini_Replace});
    if (name == "host") list.back().mode = Ini_Replace | Ini_Fixed;
    if (name != text) list.back().dflt = text.substr(name.size() + 1);
  }
  list.emplace_back();
  Store x{ini_init()};
  ini_setup(x.get(), list.data(), nullptr, 1);
  return x;
}

static std::string replaced(const Store &x, const std::string &text, std::size_t size = LineSize) {
  const std::unique_ptr<char[]> result{new char[size]};
  ini_replace(x.get(), text.c_str(), result.get(), size);
  return result.get();
}

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
  for (int i = x->items; i < 20; ++i) {
    EXPECT_TRUE(!x->list[static_cast<std::size_t>(i)].setting && x->size == 5 + i / 5 * 5);
    EXPECT_EQ(add(("n" + std::to_string(i)).c_str(), "v"), "1 v");
  }
  EXPECT_EQ(ini_add_name(Store{ini_init()}.get(), "a", "b") + ini_process(nullptr), 0);
  log_set(nullptr);
}

TEST(Store, CursorDecidesWhichValueCounts) {
  const Store x = make_store({});
  std::string all;
  for (const char *value : {"a", "b", "", "c", "d"})
    if (*value == '\0') EXPECT_EQ(replaced(x, "$(m)"), "a");
    else EXPECT_EQ(ini_add_name(x.get(), "m", value), 1);
  for (auto *n = x->data->slot(0)->values->root->next; n != nullptr; n = n->next) all += *n->data;
  EXPECT_EQ(all, "cdab");
}

TEST(Substitution, ThreeKinds) {
  const char *const rows[][4] = {
      {"$(DIR)/$(dir)",      "/opt//opt",      "//opt",        "$(DIR)//opt"     },
      {"a$(dir",             "a$(dir",         "a/opt",        "a$(dir"          },
      {"$(no$(dir))",        "$(no/opt)",      ")",            "$(no$(dir))"     },
      {"<$(action)$(bare)>", "<>",             "<install>",    "<install$(bare)>"},
      {"$(raw)",             "/opt/opt",       "$(dir)$(DIR)", "$(dir)$(DIR)"    },
      {"$ (dir) $() $(",     "$ (dir) $() $(", "$ (dir)  ",    "$ (dir) $() $("  },
  };
  for (const auto &[text, stored, shown, copied] : rows) {
    const Store x = make_store({std::string{"text="} + text, "dir=/opt", "action=install", "bare",
                                "raw=$(dir)$(DIR)", "dir=late"});
    const std::unique_ptr<copy, Release<copy_free>> script{copy_init(x.get())};
    EXPECT_EQ(replaced(x, text), shown);
    EXPECT_EQ(replace_vars(script.get(), text), copied);
    EXPECT_EQ(ini_process(x.get()), 1);
    EXPECT_STREQ(ini_value_name(x.get(), "text"), stored);
  }
}

TEST(Substitution, ReplaceIsCut) {
  const std::string name(999, 'n');
  const Store x = make_store({"dir=/opt/app", name + "=long"});
  EXPECT_EQ(replaced(x, "12345$(dir)", 10) + replaced(x, "$(dir)", 1), "12345/opt");
  EXPECT_EQ(replaced(x, "$(dir)12$(dir)", 10), "/opt/app1"); // the text between does not fit
  EXPECT_EQ(replaced(x, "$(" + name + ")x$(" + name + "nn)x$(" + name), "longxlongn)xlong");
}

TEST(Substitution, ProcessingEnds) {
  const TempDir dir;
  const std::string wide(600, 'w');
  const Store x = make_store({"turn=$(one)", "open=$(host", "one=$(two)", "two=$(one)",
                              "self=$(Self)", "grow=$(grow)+$(b)", "a=$(b)/x", "b=$(host)/y",
                              "host=h", "cut=$(wide)$(wide)$(b)", "wide=" + wide});
  Log log = log_init(LogError);
  log_set(log);
  EXPECT_TRUE(log_open(log, "log") == 1 && ini_process(x.get()) == 1);
  log_set(nullptr);
  log_free(&log);
  const std::string errors = read_log("log"); // of "turn", "one", "two", "self" and "grow"
  EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 5) << errors;
  EXPECT_STREQ(ini_value_name(x.get(), "a"), "h/y/x");
  EXPECT_EQ(ini_value_name(x.get(), "cut"), wide + wide.substr(201));
}

} // namespace installer
