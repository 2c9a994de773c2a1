#pragma once

// The front end: the run from start to end, the command line, the menu and the four product actions
// with their dialogue on standard input and output. Every product file lies in the working
// directory and is named after the program: *myname*.log, .dat, .int, .q, .cpy, and "blurb.txt".

#include "installer/ini.h"
#include "installer/log.h"

#include <cstdint>

namespace installer {

/// The result of an action. `QUIT`: the operator quit it; the menu comes back.
enum ActionResult : std::uint32_t {
  FAILED = 0,
  SUCEEDED = 1,
  SW_TO_UPGRADE = 2,
  SW_TO_INSTALL = 3,
  QUIT = 4,
};

/// The whole run. 0, or the status of a strict or refused run (run.h); also `process_args` ends the
/// process. Ignores
/// SIGPIPE and SIGXFSZ and opens closed standard descriptors on the null device, for the process.
int main(unsigned argc, char **argv);
/// Applies the options from `argv[1]` on; for a run, `main` does. What is no option is ignored.
/// Ends the process for -version (0) and for -special without a tag (1).
void process_args(Log log, char **argv, unsigned argc);
/// The banner and the menu, with the value of the setting "product", or "NONAME".
void print_header(Ini ini);
void print_menu(Ini ini);

/// The product actions: ask the questions of their section, then run the copy script's section of
/// the same name. `FAILED` stems from the questions alone: an action whose copy script failed,
/// which the console says, returns `SUCEEDED`. `do_special` takes the section of `-special`.
ActionResult install_product(Ini ini);
ActionResult upgrade_product(Ini ini);
ActionResult remove_product(Ini ini);
ActionResult do_special(Ini ini);
/// Shows "blurb.txt" with its references replaced; nothing when it cannot be opened.
void print_blurb(Ini ini);

/// The progress callbacks: a dot per item, flushed at every fifth, and an error line with the
/// system's text for errno. The arguments are not used.
void printdot(const char *src, const char *dst, int mode);
void printerror(const char *src, const char *dst, int mode);

} // namespace installer
