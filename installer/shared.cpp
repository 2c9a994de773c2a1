#include "installer/shared.h"

#include "installer/log.h"
#include "installer/tcp.h"

#include <cstring>

namespace installer {

namespace {

/// The bootstrap settings, with an end record; empty while none are loaded.
std::vector<SettingList> _settings;

void add_record(const char *setting, const char *value, SettingMode mode) {
  _settings.push_back({setting, value, mode});
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

} // namespace

int load_datfile(Ini ini, const char *file, const Faults &faults) {
  if (ini == nullptr || file == nullptr) return 0;
  Lines lines{file, faults};
  if (!lines) {
    const std::string text = "Error opening '" + std::string{file} + "' for read, ";
    faults({Severity::Error, FaultKind::Unreadable, file, 0, text + lines.reason(), {}});
    return 0;
  }
  clear_datfile();
  add_own_settings();
  read_datfile(lines, _settings);
  if (lines.failed()) {
    faults(lines.unreadable("Error reading"));
    clear_datfile();
    return 0;
  }
  _settings.emplace_back();
  ini_setup(ini, _settings.data(), nullptr, 1);
  return ini_process(ini, [&](Fault fault) {
    fault.file = file;
    faults(fault);
  });
}

void read_datfile(Lines &lines, std::vector<SettingList> &settings) {
  for (char *line : lines) {
    const char *name = next_word(&line);
    const char *value = line + std::strspn(line, " \t");
    dmsg("Adding '%s'='%s'", or_empty(name), value);
    settings.push_back(
        {or_empty(name), *value != '\0' ? Text{value} : Text{}, Ini_Replace, lines.number()});
  }
}

void clear_datfile() { std::vector<SettingList>{}.swap(_settings); }

} // namespace installer
