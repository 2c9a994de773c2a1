// A text, a pattern, a list of texts and a list of patterns, each on a line.

#include "fuzz/fuzz.h"

#include <fnmatch.h>

static bool matches(const std::string &text, std::string wild, int flags) {
  for (std::size_t at = 0; (at = wild.find('[', at)) != std::string::npos; at += 3)
    wild.replace(at, 1, "[[]"); // Only the system has character classes.
  return ::fnmatch(wild.c_str(), text.c_str(), flags) == 0;
}

void installer::fuzz(const std::string &input, Ini /*ini*/) {
  const Texts in = split(input, "\n", 4);
  for (const int exact : {0, 1}) {
    const int flags = FNM_NOESCAPE | (exact != 0 ? 0 : FNM_CASEFOLD);
    check(wmatch(in[0].c_str(), in[1].c_str(), exact) == matches(in[0], in[1], flags));
    bool any = false;
    for (const std::string &text : split(in[2], " \t,"))
      for (const std::string &wild : split(in[3], " \t,")) any = any || matches(text, wild, flags);
    check((exact != 0 ? wild_list : wild_ilist)(in[2].c_str(), in[3].c_str()) == any);
  }
}
