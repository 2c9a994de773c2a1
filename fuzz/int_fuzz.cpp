// An init script. Items that would write, or read what lies outside, become copies.

#include "fuzz/fuzz.h"
#include "installer/init.h"

void installer::fuzz(const std::string &input, Ini ini) {
  if (is_binary(input)) return;
  const std::span<const InitCommand> commands = init_commands();
  init_s script;
  check(init_load(&script, as_file(input)) == 1);
  IItem item = init_get_num(&script, 0);
  for (const Line &line : lines_of(input, InitLines)) {
    if (line.continued || line.size() < 6 || (line.cut && line.size() == 6) ||
        std::none_of(commands.begin(), commands.end(),
                     [&](const InitCommand &command) { return line[1] == command.word; }))
      continue;
    check(item != nullptr && item->a == line[2] && item->b == line[3] && item->line == line.number);
    check(item->control.value_or("-") == line[4] && item->compare.value_or("-") == line[5]);
    if (item->mode != IExist && item->mode != ITimeDate) item->mode = ICopy;
    item = init_get(&script);
  }
  check(item == nullptr);
  init_evaluate(&script, ini);
}
