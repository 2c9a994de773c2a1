#include "installer/shared.h"

#include "installer/log.h"
#include "installer/tcp.h"

#include <cstring>
#include <vector>

namespace installer {

namespace {

/// The bootstrap settings, with an end record; empty while none are loaded.
std::vector<SettingList> _settings;

void add_record(const char *setting, Text value, SettingMode mode) {
  _settings.push_back({setting, std::move(value), mode});
}

void add_own_settings() {
  constexpr SettingMode machine = Ini_Replace | Ini_Fixed;
  char value[LineSize];
  const auto add_machine = [&value](const char *setting) {
    imsg("%s=%s", setting, value);
    add_record(setting, value, machine);
  };
  tcp_hostname(value, sizeof value);
  add_machine("host");
  systemdir(value, sizeof value);
  add_machine("system_dir");
  currentdir(value, sizeof value);
  add_machine("current_dir");
  imsg("action=install");
  add_record("action", "install", Ini_None);
}

void add_line(char *line) {
  const char *name = next_word(&line);
  if (name == nullptr) return;
  const char *value = line + std::strspn(line, " \t");
  dmsg("Adding '%s'='%s'", name, value);
  add_record(name, *value != '\0' ? Text{value} : Text{}, Ini_Replace);
}

} // namespace

int load_datfile(Ini ini, const char *file) {
  if (ini == nullptr || file == nullptr) return 0;
  Lines lines{file};
  if (!lines) {
    emsg("Error opening '%s' for read, %s", file, std::strerror(errno));
    return 0;
  }
  clear_datfile();
  add_own_settings();
  for (char *line : lines) add_line(line);
  if (lines.failed()) {
    emsg("Error reading '%s', %s", file, std::strerror(errno));
    clear_datfile();
    return 0;
  }
  _settings.emplace_back();
  ini_setup(ini, _settings.data(), nullptr, 1);
  return ini_process(ini);
}

void clear_datfile() { std::vector<SettingList>{}.swap(_settings); }

} // namespace installer
