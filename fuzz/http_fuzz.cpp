// The web server's configuration file. What is found stays for a whole run, so the source is part
// of this harness, which has to forget it.

#include "installer/init_http.cpp"

#include "fuzz/fuzz.h"

void installer::fuzz(const std::string &input, Ini /*ini*/) {
  for (const Directive &directive : directives) directive.found = {};
  const char *const files[] = {"/proc/none", as_file(input), nullptr};
  http_files = files;
  Text values[4]; // group, user, root, scripts
  bool bad = false;
  for (const Texts &line : lines_of(input)) {
    if (line.size() < 3 || bad || (values[0] && values[1] && values[2] && values[3])) continue;
    const auto is = [&line](const char *word) { return s_stricmp(line[1].c_str(), word) == 0; };
    bad = (is("Group") && static_cast<int>(file_getgid(line[2].c_str())) < 0) ||
          (is("User") && static_cast<int>(file_getuid(line[2].c_str())) < 0);
    if (!bad && (is("Group") || is("User"))) values[is("User") ? 1 : 0] = line[2];
    if (is("DocumentRoot")) values[2] = line[2];
    if (is("ScriptAlias") && line.size() > 3 && line[2].find("cgi-bin") != std::string::npos)
      values[3] = line[3];
  }
  for (std::size_t i = 0; i < 4; ++i) {
    char value[LineSize] = "", error[LineSize] = "";
    const auto wanted = [&](std::size_t which) { return i == which ? value : nullptr; };
    const int found = init_find_http_conf(wanted(1), wanted(0), wanted(2), wanted(3), error);
    // The first call also fails at a bad name; later ones know what stood before it.
    check(found == (values[i] && (!bad || i > 0) ? 1 : 0) && (found == 0) == (*error != '\0'));
    if (i > 1 && values[i] && values[i]->front() == '"')
      values[i] = values[i]->substr(1, std::max<std::size_t>(values[i]->size(), 2) - 2);
    check(found == 0 || *values[i] == value);
  }
}
