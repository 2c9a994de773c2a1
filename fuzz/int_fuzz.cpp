// An init script. Items that would write, or read what lies outside, become copies.

#include "fuzz/fuzz.h"
#include "installer/init.h"

void installer::fuzz(const std::string &input, Ini ini) {
  if (is_binary(input)) return;
  const char *known =
      " Exist Copy HTTP_User HTTP_Group HTTP_Root HTTP_Scripts TimeDate WFile RFile ";
  init_s script;
  check(init_load(&script, as_file(input)) == 1);
  IItem item = init_get_num(&script, 0);
  for (const Line &line : lines_of(input)) {
    if (line.continued || line.size() < 6 || (line.cut && line.size() == 6) ||
        !std::strstr(known, (" " + line[1] + " ").c_str()))
      continue;
    check(item != nullptr && item->a == line[2] && item->b == line[3]);
    check(item->control.value_or("-") == line[4] && item->compare.value_or("-") == line[5]);
    if (item->mode != IExist && item->mode != ITimeDate) item->mode = ICopy;
    item = init_get(&script);
  }
  check(item == nullptr);
  init_evaluate(&script, ini);
}
