#pragma once

// The bootstrap data file: one setting per line, "name value", which together with four settings of
// the installer's own ("host", "system_dir", "current_dir", "action") makes the first contents of
// the settings store. `load_datfile` once at the start, `clear_datfile` at the end.

#include "installer/ini.h"
#include "installer/lines.h"
#include "installer/log.h"

#include <cstddef>
#include <span>
#include <vector>

namespace installer {

/// A setting of the installer's own, which comes before the lines of the file. `mode`: how the
/// store keeps it; `differs`: what it depends on; `read`: puts its value into a buffer of `size`
/// bytes.
enum class Differs { Never, WithMachine, WithFolder };
struct OwnSetting {
  const char *name;
  SettingMode mode;
  Differs differs;
  void (*read)(char *value, std::size_t size);
};
[[nodiscard]] std::span<const OwnSetting> own_settings();

/// The settings that the program itself reads: what is installed, and the action that the menu
/// offers.
inline constexpr const char *ProductSetting = "product";
inline constexpr const char *ActionSetting = "action";

/// Fills the empty store `ini` from `file` and resolves the references between its values. The
/// installer's own four come first, so a line of the file that names one of them is never seen.
/// `faults` takes what is wrong, which an own setting without a value is too. 1; 0 for a null
/// argument, or when the file cannot be read, with `ini` untouched.
[[nodiscard]] int load_datfile(Ini ini, const char *file, const Faults &faults = log_fault);
/// Appends a record for each of the lines to come; needs nothing of the machine.
void read_datfile(Lines &lines, std::vector<SettingList> &settings);
/// Releases what `load_datfile` keeps. May be called more than once.
void clear_datfile();

} // namespace installer
