// A bootstrap data file.

#include "fuzz/fuzz.h"
#include "installer/shared.h"

void installer::fuzz(const std::string &input, Ini ini) {
  if (is_binary(input)) return;
  check(load_datfile(ini, as_file(input)) == 1);
  std::int32_t i = 4;
  for (const Texts &line : lines_of(input)) {
    const std::size_t begin = line[0].find_first_not_of(" \t", line[1].size());
    const std::string value = line.size() > 2 ? line[0].substr(begin) : "";
    const char *stored = ini_value(ini, i);
    check(line[1] == text_of(ini->list[static_cast<std::size_t>(i++)].setting));
    if (value.find("$(") == std::string::npos) check(or_empty(stored) == value);
  }
  check(i == ini->items && s_strcmp(ini_value_name(ini, "action"), "install") == 0);
  check(ini_add_name(ini, "system_dir", "other") == -1);
}
