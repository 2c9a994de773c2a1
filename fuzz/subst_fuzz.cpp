// A text, then settings "name=value", each on a line; "-" before a name: not replaceable.

#include "fuzz/fuzz.h"
#include "installer/copy.h"

namespace installer {

using All = std::vector<SettingList>;

/// The setting that the reference at `at` stands for; the end record when there is none.
static std::size_t referred(const All &all, const std::string &value, std::size_t at) {
  const std::size_t close = value.find(')', at);
  std::size_t row = 0;
  const bool named = close != std::string::npos && close + 1 - at < LineSize;
  const std::string name = named ? value.substr(at + 2, close - at - 2) : "";
  while (all[row].setting && (!named || s_stricmp(all[row].setting->c_str(), name.c_str()))) ++row;
  return row;
}

/// Whether references lead from one setting back to itself or to one that does, within `most`
/// steps.
static bool endless(const All &all, std::size_t row, std::size_t most) {
  const std::string value = all[row].mode == Ini_Replace ? all[row].dflt.value_or("") : "";
  for (std::size_t at = 0; (at = value.find("$(", at)) != std::string::npos; ++at) {
    const std::size_t next = referred(all, value, at);
    if (all[next].setting && (most == 0 || endless(all, next, most - 1))) return true;
  }
  return false;
}

/// Replaces the first reference that can be resolved; false when nothing changes.
static bool rewrite(const All &all, const std::vector<bool> &stay, std::string &value) {
  for (std::size_t at = 0; (at = value.find("$(", at)) != std::string::npos; ++at) {
    const std::size_t row = referred(all, value, at);
    if (!all[row].setting || stay[row]) continue;
    const std::string pattern = value.substr(at, value.find(')', at) + 1 - at);
    const std::string with = all[row].mode == Ini_Replace ? *all[row].dflt : "";
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
  All settings(std::min<std::size_t>(in.size(), 6));
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
  std::vector<bool> stay;
  for (std::size_t i = 0; i < settings.size(); ++i) stay.push_back(endless(settings, i, 6));
  for (std::int32_t i = 0; i < ini->items; ++i) {
    std::string &value = *settings[static_cast<std::size_t>(i)].dflt;
    int count = 0;
    while (count < 1000 && rewrite(settings, stay, value)) ++count;
    if (count == 1000) return; // where a circle of names made of several values stays is not said
    check(value == ini_value(ini, i));
  }
}

} // namespace installer
