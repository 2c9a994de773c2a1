#include "installer/options.h"

#include "installer/product.h"

#include <algorithm>
#include <cstdlib>

namespace installer {

namespace {

void set_automate(Run & /*run*/, const char * /*value*/) {
  imsg("Automated install/upgrade...");
  automate = 1;
}

void set_special(Run & /*run*/, const char *value) {
  if (value == nullptr) {
    std::printf("Usage: install -special <tag>\n");
    std::exit(1);
  }
  special_mode = value;
  imsg("Special mode [%s]", text_of(special_mode));
}

void set_strict(Run &run, const char * /*value*/) {
  run.strict = true;
  imsg("Strict mode");
}

void set_answers(Run &run, const char *value) {
  run.answers_file = make_text(value);
  imsg("Answers from '%s'", value);
}

void set_record(Run &run, const char *value) {
  run.record = make_text(value);
  imsg("Answers recorded in '%s'", value);
}

void set_debug(Run &run, const char * /*value*/) {
  log_set_level(run.log, LogDebug);
  imsg("Logging set to debug");
}

void show_version(Run & /*run*/, const char * /*value*/) {
  std::printf("Installer version %s\n", "1.0d");
  std::exit(0);
}

/// The usage is shown before anything else.
void show_nothing(Run & /*run*/, const char * /*value*/) {}

// The help of some is longer than the formatter can align.
// clang-format off
using enum When;
constexpr Option options[] = {
    {"-automate", nullptr, Applied, set_automate, "unattended: every question takes its default"},
    {"-special",  "TAG",   Lenient, set_special,  "run the section TAG of the product, without a menu"},
    {"-strict",   nullptr, Strict,  set_strict,   "tell by the exit status and on standard error what failed"},
    {"-answers",  "FILE",  Applied, set_answers,  "take answers from FILE (- for standard input) as defaults"},
    {"-record",   "FILE",  Applied, set_record,   "write the answers of this run to FILE"},
    {"-debug",    nullptr, Applied, set_debug,    "log everything (as by default)"},
    {"-version",  nullptr, Last,    show_version, "show the version"},
    {"--version", nullptr, Last,    show_version, nullptr},
    {"-help",     nullptr, First,   show_nothing, "show this (also --help, -h)"},
    {"--help",    nullptr, First,   show_nothing, nullptr},
    {"-h",        nullptr, First,   show_nothing, nullptr},
};
// clang-format on

bool is_for_help(const char *argument) {
  const Option *option = find_word(options, argument, s_strcmp);
  return option != nullptr && option->when == First;
}

/// True for an option that stands further in front as well.
bool repeats(const CommandLine &line, const Given &given) {
  return std::any_of(line.given.data(), &given,
                     [&](const Given &earlier) { return earlier.option == given.option; });
}

/// What is wrong with an argument, or null. -special has always ended in its own way without its
/// tag, and taken the last of several.
const char *wrong(const CommandLine &line, const Given &given) {
  if (given.option == nullptr) return line.strict ? "unknown argument" : nullptr;
  const bool lenient = !line.strict && given.option->when == Lenient;
  if (given.option->value == nullptr || lenient) return nullptr;
  if (given.value == nullptr) return "option without its value";
  return repeats(line, given) ? "option given twice" : nullptr;
}

} // namespace

CommandLine read_command_line(char **argv, unsigned argc) {
  CommandLine line;
  for (unsigned next = 1; next < argc; ++next) line.help = line.help || is_for_help(argv[next]);
  for (unsigned next = 1; next < argc; ++next) {
    Given given{find_word(options, argv[next], s_strcmp), argv[next], nullptr};
    const bool takes_value = given.option != nullptr && given.option->value != nullptr;
    if (takes_value && next + 1 < argc) given.value = argv[++next];
    line.given.push_back(given);
    if (given.option == nullptr) continue;
    if (given.option->when == Last) break;
    line.strict = line.strict || given.option->when == Strict;
  }
  return line;
}

void print_usage(std::FILE *out) {
  std::fprintf(out, "Usage: %s [OPTION]...\n", or_empty(text_of(myname)));
  for (const Option &option : options) {
    if (option.help == nullptr) continue;
    const std::string words =
        option.word + (option.value != nullptr ? " " + std::string{option.value} : "");
    std::fprintf(out, "  %-14s  %s\n", words.c_str(), option.help);
  }
}

bool check_command_line(const CommandLine &line) {
  for (const Given &given : line.given) {
    const char *what = wrong(line, given);
    if (what == nullptr) continue;
    give_reason({}, {what, given.word, {}});
    print_usage(stderr);
    return false;
  }
  return true;
}

void apply_options(Run &run, const CommandLine &line) {
  for (const Given &given : line.given)
    if (given.option != nullptr) given.option->apply(run, given.value);
}

void process_args(Log log, char **argv, unsigned argc) {
  Run run;
  run.log = log;
  apply_options(run, read_command_line(argv, argc));
}

} // namespace installer
