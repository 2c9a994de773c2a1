#include "check/check.h"

#include "check/flow.h"
#include "check/load.h"
#include "check/report.h"
#include "check/rules.h"
#include "check/script.h"
#include "check/switches.h"
#include "check/texts.h"

#include "installer/lib.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <unistd.h>

namespace installer::check {

namespace {

constexpr int NothingWrong = 0;
constexpr int Errors = 1;
constexpr int Trouble = 2;

struct Options {
  bool strict = false;
  bool list = false;
  bool wrong = false;
  std::vector<std::string> folders;
};

struct Option {
  const char *word;
  bool Options::*field;
};
constexpr Option options[] = {
    {"-strict", &Options::strict},
    {"-list",   &Options::list  },
};

Options read_options(int argc, char **argv) {
  Options read;
  bool names_only = false;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    const Option *option = names_only ? nullptr : find_word(options, argv[i], s_strcmp);
    if (option != nullptr) read.*option->field = true;
    else if (!names_only && word == "--") names_only = true;
    else if (!names_only && word.starts_with('-')) {
      std::fprintf(stderr, "installer-check: unknown option '%s'\n", escape_controls(word).c_str());
      read.wrong = true;
    } else read.folders.push_back(word);
  }
  if (read.folders.empty()) read.folders.emplace_back();
  return read;
}

int usage() {
  std::fprintf(stderr, "Usage: installer-check [-strict] [-list] [FOLDER]...\n");
  return Trouble;
}

const char *word_of(Level level) { return level == Level::Error ? "error" : "warning"; }

int list_rules() {
  for (const Rule *rule : all_rules())
    std::printf("%-22s %-8s %s\n", rule->name, word_of(rule->level), rule->sentence);
  return std::fflush(stdout) == 0 ? NothingWrong : Trouble;
}

/// Each step needs what the ones before it have found.
void check_product(const std::string &folder, const std::string &name, Report &report) {
  Product product;
  read_files(folder, name, product);
  trace_settings(product);
  read_texts(product);
  trace_readers(product);
  try_script(product);
  read_switches(product, report);
  run_rules(product, report);
}

/// Checks each product of the folder. False, told: it cannot be read, or holds none.
bool check_folder(const std::string &folder, Report &report) {
  std::vector<std::string> names;
  const std::string shown = folder.empty() ? "." : escape_controls(folder);
  if (const Cause cause = find_products(folder, names)) {
    std::fprintf(stderr, "installer-check: cannot read folder '%s', %s\n", shown.c_str(),
                 cause_text(cause));
    return false;
  }
  if (names.empty()) {
    std::fprintf(stderr, "installer-check: no product (NAME.dat) in '%s'\n", shown.c_str());
    return false;
  }
  for (const std::string &name : names) check_product(folder, name, report);
  return true;
}

std::string counted(std::size_t count, const char *word) {
  return std::to_string(count) + " " + word + (count == 1 ? "" : "s");
}

bool wants_colour() {
  const char *refused = std::getenv("NO_COLOR");
  return (refused == nullptr || *refused == '\0') && ::isatty(STDOUT_FILENO) == 1;
}

} // namespace

int main(int argc, char **argv) {
  const Options given = read_options(argc, argv);
  if (given.wrong) return usage();
  if (given.list) return list_rules();
  Report report;
  bool readable = true;
  for (const std::string &folder : given.folders)
    readable = check_folder(folder, report) && readable;
  report.finish();
  const bool printed = report.print(wants_colour());
  const std::size_t errors = report.count(Level::Error);
  const std::size_t warnings = report.count(Level::Warning);
  std::fprintf(stderr, "%s, %s\n", counted(errors, "error").c_str(),
               counted(warnings, "warning").c_str());
  if (!printed || !readable) return Trouble;
  return errors > 0 || (given.strict && warnings > 0) ? Errors : NothingWrong;
}

} // namespace installer::check
