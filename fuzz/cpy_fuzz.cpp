// A copy script, of which the section "install" is loaded.

#include "fuzz/fuzz.h"
#include "installer/copy.h"

void installer::fuzz(const std::string &input, Ini ini) {
  if (is_binary(input)) return;
  for (const char *name : {"dir", "d"}) ini_add_name(ini, name, "/opt\\$(dir)");
  copy script;
  script.ini = ini;
  const int loaded = copy_load(&script, as_file(input), "Install");
  int found = 0;
  std::uint32_t i = 0;
  for (const Line &line : lines_of(input, CopyLines, found)) {
    std::size_t needed = 4, more = 3; // words, and those that a control and a message may have
    for (const CopyCommand &command : copy_commands()) {
      if (s_stricmp(command.word, line[1].c_str()) != 0) continue;
      const bool message = command.slots.back().missing == nullptr;
      needed = 1 + command.slots.size() - (message ? 1 : 0);
      more = message ? 1 : 3;
    }
    if (line.size() <= needed && !line.cut) continue;
    const bool cut = line.cut && line.size() <= needed + more;
    check(script.list[i].cut == (cut || line.continued) && script.list[i].line == line.number);
    if (line.size() <= needed && ++i > 0) continue;
    const std::string source = or_empty(copy_src(&script, i));
    check(source == expanded(ini, line[2], true));
    const std::size_t room = 1 + input.size() % PathSize, begin = source.find_last_of("/\\") + 1;
    char path[PathSize], file[PathSize];
    check(copy_src_path(&script, i, path, room) && copy_src_file(&script, i, file, room));
    check(begin == 0 || source.substr(0, std::min(begin, room - 1)) == path);
    const std::string pattern = begin > 0 && begin == source.size() ? "*" : source.substr(begin);
    check(pattern.substr(0, room - 1) == file);
    const char *end = last_separator(copy_dst(&script, i));
    const std::string last = end != nullptr ? end + 1 : "";
    check((copy_dst_file(&script, i++, file, room) != nullptr) == !last.empty());
    check(last.empty() || last.substr(0, room - 1) == file);
  }
  check(loaded == found && copy_count(&script) == i && copy_src(&script, i) == nullptr);
}
