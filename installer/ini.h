#pragma once

// The settings store: an ordered table of named settings, each with mode flags and an ordered list
// of text values whose first is the value of the setting. `ini_init`, `ini_setup` and `ini_process`
// once, then look-ups and additions, then `ini_free`. The store copies what it is given; a text
// that a look-up returns is the store's and lasts until that value is replaced or the store is
// freed.
//
// Names compare with letter case, except in `ini_process`. Of two settings with one name the first
// wins everywhere.

#include "installer/array.h"
#include "installer/lib.h"
#include "installer/linklist.h"
#include "installer/log.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace installer {

/// Rules of a store as a whole. `Ini_UseEmpty`: an empty value is refused unless the setting has
/// `Ini_Empty`; `Ini_UseFixed`: a setting with `Ini_Fixed` refuses every value; `Ini_UseMulti`: a
/// setting without `Ini_Multi` holds one value; `Ini_UseNew`: an unknown name makes a new setting;
/// `Ini_New...`: the flag that a new setting gets. The others, `Ini_UseLock`, `Ini_UsePass`,
/// `Ini_UsePath` and `Ini_UseReplace`, have no effect.
enum IniMode : std::uint32_t {
  Ini_Blank = 0x0,
  Ini_UseLock = 0x1,
  Ini_UseEmpty = 0x2,
  Ini_UsePass = 0x4,
  Ini_UseFixed = 0x8,
  Ini_UseMulti = 0x10,
  Ini_UsePath = 0x20,
  Ini_UseReplace = 0x40,
  Ini_UseNew = 0x80,
  Ini_NewMulti = 0x100,
  Ini_NewEmpty = 0x200,
  Ini_NewFixed = 0x400,
  Ini_NewPass = 0x800,
  Ini_NewLock = 0x1000,
  Ini_NewModes = 0x1f00,
  Ini_DefaultMode = 0x3fe,
};

/// Flags of one setting. `Ini_Multi`: additions accumulate; `Ini_Replace`: its value may stand in
/// for references during `ini_process`; `Ini_Empty`: accepts empty values; `Ini_Fixed`, of which
/// `Ini_Lock` is another name: refuses additions. The others have no effect.
enum SettingMode : std::uint32_t {
  Ini_None = 0x0,
  Ini_Multi = 0x1,
  Ini_Pass = 0x2,
  Ini_Replace = 0x4,
  Ini_Path = 0x8,
  Ini_Empty = 0x10,
  Ini_Fixed = 0x20,
  Ini_Lock = 0x20,
  Ini_XTRAMask = 0xffc0,
};
constexpr SettingMode operator|(SettingMode a, SettingMode b) {
  return static_cast<SettingMode>(static_cast<std::uint32_t>(a) | static_cast<std::uint32_t>(b));
}

/// One entry of a settings table. A null `setting` ends the table; `dflt` is the default that
/// `ini_setup` reads, always null in the store's own table; `line`: where it stands in the data
/// file, from 1, or 0.
struct setting_list {
  Text setting;
  Text dflt;
  SettingMode mode = Ini_None;
  std::size_t line = 0;
};
using SettingList = setting_list;

/// The values of one setting, owned. Look-ups move the cursor to the first value; additions insert
/// at the cursor.
struct ini_item {
  ini_item() = default;
  ini_item(const ini_item &) = delete;
  ini_item &operator=(const ini_item &) = delete;
  ~ini_item() { list_free_dealloc(&values); }

  Linklist<std::string> values = list_init<std::string>();
};
using Item = ini_item;

/// Hashes and compares names through `charmap`.
struct FoldedName {
  using is_transparent = void;
  std::size_t operator()(std::string_view name) const noexcept;
  bool operator()(std::string_view a, std::string_view b) const noexcept;
};

/// `list`: the table, in order of creation, with its end entry; empty until `ini_setup`. `items`:
/// number of settings. `size`: capacity of the table in entries, the end entry included; it grows
/// by 5. `data`: one item per setting at the same index, owned. `index`: where the first setting
/// of each name stands in the table; `folded_index`: the same for names without regard to case.
struct ini {
  ini() = default;
  ini(const ini &) = delete;
  ini &operator=(const ini &) = delete;
  ~ini() { array_free_dealloc(&data); }

  std::vector<SettingList> list;
  IniMode mode = Ini_DefaultMode;
  std::int32_t items = 0;
  std::int32_t size = 0;
  Array<Item> data = array_init<Item>();
  std::unordered_map<std::string, std::int32_t> index;
  std::unordered_map<std::string, std::int32_t, FoldedName, FoldedName> folded_index;
};
using Ini = ini *;

/// A new store without a table, for `ini_free`.
[[nodiscard]] Ini ini_init();
/// Releases the store and sets the variable to null. Nothing for a null address or store.
void ini_free(Ini *x);
/// An owned store.
using IniOwner = std::unique_ptr<ini, Release<ini_free>>;
/// Builds the table from `list`, an array that ends with a null `setting`; once, right after
/// `ini_init`. With `use_dflts` each default that is not null becomes the first value. `assoc` is
/// reserved and null. Nothing when `x` or `list` is null.
void ini_setup(Ini x, const SettingList *list, const void *assoc, int use_dflts);

/// The value of the setting `label`, or null. The setting's cursor moves to its first value.
[[nodiscard]] const char *ini_value_name(Ini x, const char *label);
/// The same by index.
[[nodiscard]] const char *ini_value(Ini x, std::int32_t index);
/// The value of the setting `text`, or `text` itself when no such setting has a value. Null for
/// null.
[[nodiscard]] const char *ini_value_or_text(Ini x, const char *text);

/// Whether letter case counts when a control is compared.
enum class Case { Counts, Ignored };
/// The one rule for what runs: a control without a value (null) decides nothing; without a
/// comparison (null) it must be a true word; else it must be equal to that.
[[nodiscard]] bool gate_allows(const char *value, const char *compare, Case letters);
/// The same for the setting `control` and the value of `compare`, or `compare` itself; either may
/// be null. Both are looked up, whatever the first gives: a look-up decides where the next value
/// goes.
[[nodiscard]] bool gate_open(Ini x, const char *control, const char *compare, Case letters);

/// Adds `value` to the setting `name`, which is created when there is none. A setting without
/// `Ini_Multi` is left with this value alone; one with it keeps all, and the new value is *the*
/// value only when the setting was looked up since the last addition. 1 stored; -1 refused (fixed,
/// or empty where that is not allowed); 0 when an argument or the table is null.
int ini_add_name(Ini x, const char *name, const char *value);

/// Writes `string` into `result` with each "$(name)" replaced by the setting's value, in one pass:
/// what is inserted is not looked at again, an unknown name gives nothing, a missing ")" ends the
/// name at the end of the text. When the text before a reference no longer fits, the rest is copied
/// as it is, as far as it fits. Nothing at all when `x` or `string` is null.
void ini_replace(Ini x, const char *string, char *result, std::size_t bfsz);
/// ini_replace for a path. 0 with errno ENAMETOOLONG and the empty text when the result does not
/// fit, so that a cut path is never used. 1 and the empty text when `x` or `string` is null.
[[nodiscard]] int ini_replace_path(Ini x, const char *string, char *result, std::size_t bfsz);
/// Rewrites the stored values: each reference to a setting (compared without case) is replaced by
/// its value if it has `Ini_Replace`, else by nothing, and the value is examined again from its
/// start. Unknown and unclosed references stay. Values are cut at 999 characters. References that
/// lead into a circle stay as well, with a fault for each value that holds one; so does what still
/// changes after 1000 rewrites although all that it refers to has been resolved: names made of
/// several values can lead in circles too. 1; 0 when `x` or its table is null.
int ini_process(Ini x, const Faults &faults = log_fault);

} // namespace installer
