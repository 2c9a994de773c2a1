#include "installer/shared.h"

#include "installer/log.h"
#include "installer/tcp.h"

#include <cstring>

namespace installer {

namespace {

/// The bootstrap settings, with an end record; empty while none are loaded.
std::vector<SettingList> _settings;

void read_host(char *value, std::size_t size) { tcp_hostname(value, static_cast<unsigned>(size)); }
void read_system_dir(char *value, std::size_t size) { systemdir(value, size); }
void read_current_dir(char *value, std::size_t size) { currentdir(value, size); }
void read_action(char *value, std::size_t size) { scpy(value, "install", size); }

constexpr SettingMode Fixed = Ini_Replace | Ini_Fixed;
constexpr OwnSetting own[] = {
    {"host",        Fixed,    Differs::WithMachine, read_host       },
    {"system_dir",  Fixed,    Differs::Never,       read_system_dir },
    {"current_dir", Fixed,    Differs::WithFolder,  read_current_dir},
    {ActionSetting, Ini_None, Differs::Never,       read_action     },
};

/// Paths that begin with a setting that is not known lead elsewhere. A remark: only a strict run
/// ends for it.
Fault unknown_setting(const char *file, const char *name, const Cause &cause) {
  const std::string what = "cannot be found out";
  Fault fault{Severity::Remark, FaultKind::Failed, file, 0, name + (" " + what), name};
  fault.failure = {what, {}, cause};
  return fault;
}

void add_own_settings(const char *file, const Faults &faults) {
  char value[LineSize] = "";
  for (const OwnSetting &setting : own) {
    setting.read(value, sizeof value);
    if (*value == '\0') faults(unknown_setting(file, setting.name, last_cause()));
    imsg("%s=%s", setting.name, value);
    _settings.push_back({setting.name, value, setting.mode});
  }
}

} // namespace

std::span<const OwnSetting> own_settings() { return own; }

int load_datfile(Ini ini, const char *file, const Faults &faults) {
  if (ini == nullptr || file == nullptr) return 0;
  Lines lines{file, faults};
  if (!lines) {
    const std::string text = "Error opening '" + std::string{file} + "' for read, ";
    faults({Severity::Error, FaultKind::Unreadable, file, 0, text + lines.reason(), {}});
    return 0;
  }
  clear_datfile();
  add_own_settings(file, faults);
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
