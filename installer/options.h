#pragma once

// The command line: read as a whole before anything is opened, applied once there is a log.

#include "installer/run.h"

#include <vector>

namespace installer {

/// When an option acts. `Applied`: in its turn, once there is a log; `Strict`: from the start on as
/// well, for it decides what else is wrong; `Lenient`: as `Applied`, and without `-strict` what is
/// wrong with its value is its own business; `Last`: in its turn, and nothing behind it is read;
/// `First`: instead of the run, wherever it stands.
enum class When { Applied, Strict, Lenient, Last, First };

/// An option as a row of the table of all. `value`: what its value is called in the usage, null for
/// one without; `help`: its line there, null for another spelling of the row above. `apply` may end
/// the process; `value` is null when it is missing.
struct Option {
  const char *word;
  const char *value;
  When when;
  void (*apply)(Run &run, const char *value);
  const char *help;
};

/// One argument, with its value. `option`: null for an argument that is none.
struct Given {
  const Option *option;
  const char *word;
  const char *value;
};

/// What stands on the command line, in its order, up to `-version`. `help`: the usage is asked for,
/// wherever. `strict`: `-strict` is given.
struct CommandLine {
  std::vector<Given> given;
  bool help = false;
  bool strict = false;
};

[[nodiscard]] CommandLine read_command_line(char **argv, unsigned argc);
/// A line for each option.
void print_usage(std::FILE *out);
/// True when the run may go on to open its log; else standard error says what is wrong. Without
/// `-strict` an argument that is no option does no harm.
[[nodiscard]] bool check_command_line(const CommandLine &line);
/// Applies the options in their order.
void apply_options(Run &run, const CommandLine &line);

} // namespace installer
