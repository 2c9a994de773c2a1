// A text, then settings "name=value", each on a line; "-" before a name: not replaceable.

#include "fuzz/fuzz.h"
#include "installer/copy.h"

namespace installer {

/// Replaces the first reference that can be resolved; false when nothing changes.
static bool rewrite(const std::vector<SettingList> &all, std::string &value) {
  for (std::size_t at = 0; (at = value.find("$(", at)) != std::string::npos; ++at) {
    const std::size_t close = value.find(')', at);
    if (close == std::string::npos || close + 1 - at >= LineSize) continue;
    const std::string pattern = value.substr(at, close + 1 - at);
    const auto *row = all.data();
    while (row->setting && s_stricmp(("$(" + *row->setting + ")").c_str(), pattern.c_str())) ++row;
    if (!row->setting) continue;
    const std::string with = row->mode == Ini_Replace ? *row->dflt : "";
    char next[LineSize];
    sreplace(value.c_str(), pattern.c_str(), with.c_str(), next, sizeof next);
    const bool changed = value != next;
    value = next;
    return changed;
  }
  return false;
}

void fuzz(const std::string &input, Ini ini) {
  const Texts in = split(input, "\n", 1);
  std::vector<SettingList> settings(std::min<std::size_t>(in.size(), 6));
  for (std::size_t i = 1; i < settings.size(); ++i) {
    const Texts pair = split(in[i], "=", 2);
    settings[i - 1] = {pair[0], pair[1], pair[0].starts_with('-') ? Ini_None : Ini_Replace};
  }
  ini_setup(ini, settings.data(), nullptr, 1);
  const std::string full = expanded(ini, in[0], false);
  for (const std::size_t room : {std::size_t{1}, in[0].size() + 1, full.size() / 2 + 1, LineSize}) {
    std::string result(room + 1, '~');
    ini_replace(ini, in[0].c_str(), result.data(), room);
    check(full.substr(0, room - 1) == result.c_str() && result.back() == '~');
  }
  copy script;
  script.ini = ini;
  const std::string replaced = replace_vars(&script, in[0].c_str()).value_or(in[0]);
  check(replaced == expanded(ini, in[0], true).substr(0, 9999));
  check(ini_process(ini) == 1);
  for (std::int32_t i = 0; i < ini->items; ++i) {
    std::string &value = *settings[static_cast<std::size_t>(i)].dflt;
    for (int count = 0; count < 1000 && rewrite(settings, value); ++count) continue;
    check(value == ini_value(ini, i));
  }
}

} // namespace installer
