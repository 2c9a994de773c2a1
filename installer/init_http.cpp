#include "installer/init.h"

#include "installer/file.h"
#include "installer/log.h"

#include <algorithm>
#include <cstring>

namespace installer {

namespace {

constexpr const char *usual_http_files[] = {
    "/etc/apache/httpd.conf",
    "/etc/httpd/conf/httpd.conf",
    "/etc/httpd/httpd.conf",
    "/usr/local/apache/conf/httpd.conf",
    "/usr/local/httpd/conf/httpd.conf",
    "/usr/local/apache/etc/httpd.conf",
    "/usr/internet/httpd/public/conf/httpd.conf",
    "/opt/apache/conf/httpd.conf",
    nullptr,
};

/// A value once it has been found.
struct Found {
  char value[LineSize] = "";
  int done = 0;
};
Found http_user, http_group, http_root, http_scripts;

enum class Taken { Yes, No, Bad };

/// `known`: the system has the name; its number may be any.
Taken take_name(const char *what, const char *name, bool known, Found &found,
                const char *found_what, char *errmsg) {
  if (!known) {
    if (errmsg != nullptr) lprintf(errmsg, LineSize, "%s '%s' has bad uid '-1'", what, name);
    return Taken::Bad;
  }
  dmsg("Found %s [%s]", found_what, name);
  scpy(found.value, name, sizeof found.value);
  return Taken::Yes;
}

Taken take_user(const char *name, char * /*line*/, char *errmsg) {
  return take_name("User", name, file_getuid(name) != static_cast<::uid_t>(-1), http_user, "user",
                   errmsg);
}

Taken take_group(const char *name, char * /*line*/, char *errmsg) {
  return take_name("Group", name, file_getgid(name) != static_cast<::gid_t>(-1), http_group,
                   "group", errmsg);
}

/// A quoted directory loses its first and last character.
Taken take_directory(const char *word, Found &found) {
  const std::size_t length = std::strlen(word);
  if (*word != '"') scpy(found.value, word, sizeof found.value);
  else scpy(found.value, length > 1 ? word + 1 : "", std::max<std::size_t>(length, 2) - 1);
  return Taken::Yes;
}

Taken take_root(const char *word, char * /*line*/, char * /*errmsg*/) {
  return take_directory(word, http_root);
}

Taken take_scripts(const char *alias, char *line, char * /*errmsg*/) {
  const char *word = std::strstr(alias, "cgi-bin") ? next_word(&line) : nullptr;
  return word != nullptr ? take_directory(word, http_scripts) : Taken::No;
}

/// A directive of the file: `take` gets its first word and the rest of the line. The rows stand in
/// the order in which missing values are listed.
struct Directive {
  const char *word;
  Found &found;
  Taken (*take)(const char *word, char *line, char *errmsg);
};
const Directive directives[] = {
    {"Group",        http_group,   take_group  },
    {"User",         http_user,    take_user   },
    {"DocumentRoot", http_root,    take_root   },
    {"ScriptAlias",  http_scripts, take_scripts},
};

bool all_found() {
  for (const Directive &directive : directives)
    if (directive.found.done == 0) return false;
  return true;
}

Taken take_line(char *line, char *errmsg) {
  const Directive *directive = find_word(directives, next_word(&line), s_stricmp);
  const char *word = directive ? next_word(&line) : nullptr;
  if (word == nullptr) return Taken::No;
  const Taken taken = directive->take(word, line, errmsg);
  if (taken == Taken::Yes) directive->found.done = 1;
  return taken;
}

/// False: the file names a user or group that this machine lacks.
bool read_file(Lines &lines, char *errmsg) {
  for (char *line : lines) {
    if (take_line(line, errmsg) == Taken::Bad) return false;
    if (all_found()) break;
  }
  return true;
}

/// Opens the first candidate that opens and reads it.
bool read_first_file(char *errmsg) {
  for (const char *const *file = http_files; *file != nullptr; ++file) {
    dmsg("Is Httpd conf?[%s]", *file);
    Lines lines{*file, {}, {.zero_ends_line = true}};
    if (!lines) continue;
    dmsg("Httpd conf is [%s]", *file);
    return read_file(lines, errmsg);
  }
  scpy(errmsg, "Cannot find httpd.conf file", LineSize);
  return false;
}

struct Wanted {
  char *buffer;
  const Found &found;
};

bool have_all(const Wanted (&wanted)[4]) {
  for (const Wanted &value : wanted)
    if (value.buffer != nullptr && value.found.done == 0) return false;
  return true;
}

void list_missing(char *errmsg) {
  scpy(errmsg, "Could not find", LineSize);
  for (const Directive &directive : directives) {
    if (directive.found.done != 0) continue;
    scat(errmsg, ", ", LineSize);
    scat(errmsg, directive.word, LineSize);
  }
}

} // namespace

const char *const *http_files = usual_http_files;

int init_find_http_conf(char *user, char *group, char *root, char *scripts, char *errmsg) {
  const Wanted wanted[] = {
      {user,    http_user   },
      {group,   http_group  },
      {root,    http_root   },
      {scripts, http_scripts}
  };
  if (!have_all(wanted)) {
    if (!read_first_file(errmsg)) return 0;
    if (!have_all(wanted)) {
      list_missing(errmsg);
      return 0;
    }
  }
  for (const Wanted &value : wanted) scpy(value.buffer, value.found.value, LineSize);
  return 1;
}

} // namespace installer
