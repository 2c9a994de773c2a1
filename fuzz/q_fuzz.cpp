// A question file, then the answers to its section "install", each behind a form feed.

#include "fuzz/fuzz.h"
#include "installer/quest.h"

void installer::fuzz(const std::string &input, Ini ini) {
  if (is_binary(input)) return;
  const Texts in = split(input, "\f", 2);
  questions set;
  set.ini = ini;
  const int loaded = quest_load(&set, as_file(in[0]), "Install");
  int found = 0;
  std::uint32_t i = 0;
  for (const Line &line : lines_of(in[0], {}, found)) {
    const auto is = [&line](const char *word) { return s_stricmp(line[1].c_str(), word) == 0; };
    const QuestKeyword *row = &quest_keyword(static_cast<QType>(0));
    for (const QuestKeyword &keyword : quest_keywords())
      if (is(keyword.word)) row = &keyword;
    if (line.size() <= 1 + row->slots.size()) continue;
    const std::size_t second = row->slots.front().field == &quest::setting ? 2 : 3;
    std::string setting = line[second], answer = in[1 + i % (in.size() - 1)];
    check(quest_setting(&set, i) == setting && set.list[i].line == line.number);
    char fallback[PathSize]; // Also moves the cursor, so that the answer becomes the value.
    quest_default(&set, i, fallback, sizeof fallback);
    const QType type = quest_type(&set, i);
    std::string expected = answer;
    if (type == QYN) expected = istrue(answer.c_str()) != 0 ? "true" : "false";
    if (type == QFileName) expected.erase(0, expected.find_last_of("/\\") + 1);
    if (type == QFileName && expected.rfind('.') > 0)
      expected.resize(std::min(expected.rfind('.'), expected.size()));
    if (has(type, QDir) && !answer.empty() && answer.find_last_of("/\\") == answer.size() - 1)
      expected.pop_back();
    const int accepted = quest_answer(&set, i++, answer.data());
    const char *value = ini_value_name(ini, setting.c_str());
    check(accepted != 0 || (*quest_error() != '\0' && row->accept != quest_keyword(QText).accept));
    check(accepted == 0 || s_strcmp(value, expected.c_str()) == 0);
  }
  check(loaded == found && quest_count(&set) == i && quest_text(&set, i) == nullptr);
}
