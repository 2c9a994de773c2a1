#include "installer/installer.h"

#include "installer/actions.h"
#include "installer/init.h"
#include "installer/options.h"
#include "installer/product.h"
#include "installer/shared.h"
#include "installer/signals.h"

#include <csignal>

#include <fcntl.h>
#include <unistd.h>

namespace installer {

namespace {

// ---- The process ----

/// A console that goes away, or a file-size limit, must show as a failed write and not kill a half
/// finished upgrade; and no product file may get a descriptor that belongs to the console.
void prepare_process() {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
    if (::fcntl(fd, F_GETFD) == -1) static_cast<void>(::open("/dev/null", O_RDWR));
}

// ---- The menu ----

/// A menu choice, with its number in the menu. `again`: a result that brings the menu back, besides
/// `QUIT`. `once`: it ends the run whatever its result.
struct Choice {
  int number;
  ActionKind kind;
  ActionResult again;
  bool blurb;
  bool once;
};
constexpr Choice choices[] = {
    {1, ActionKind::Install, SW_TO_UPGRADE, true,  false},
    {2, ActionKind::Upgrade, SW_TO_INSTALL, false, false},
    {3, ActionKind::Remove,  QUIT,          false, false},
    {5, ActionKind::Special, QUIT,          false, true },
};
constexpr int InstallChoice = 1;
constexpr int UpgradeChoice = 2;
constexpr int ExitChoice = 4;
constexpr int SpecialChoice = 5;

/// The menu choice; the exit at the end of input.
int ask_choice(Ini ini, int action) {
  if (special_mode) return SpecialChoice;
  print_menu(ini);
  if (automate != 0) {
    std::printf("\n");
    return action;
  }
  std::printf("\nWhat would you like to do[%d]? ", action);
  char reply[LineSize];
  if (read_reply(reply, sizeof reply) == nullptr) return ExitChoice;
  const char *trimmed = s_strtrm(reply);
  return *trimmed == '\0' ? action : s_atoi(trimmed);
}

/// Runs the choice. True: the run is over.
bool dispatch(Run &run, int number) {
  if (number == ExitChoice) run.outcome.ended = true;
  if (number == ExitChoice) return true;
  for (const Choice &choice : choices) {
    if (choice.number != number) continue;
    const ActionResult result = run_action(run, choice.kind);
    // Unattended, the menu would come back with the same choice for ever.
    if (choice.once || (result == QUIT && automate != 0)) return true;
    if (result == QUIT || result == choice.again) return false;
    // A strict run shows only a blurb that is true.
    const bool told = run.strict ? exit_status(run) == Status::Complete : !run.outcome.refused;
    if (choice.blurb && told) print_blurb(run.ini);
    return true;
  }
  std::printf("That is not a recognised option, please try again\n");
  return false;
}

void run_menu(Run &run) {
  const bool upgrade = s_strcmp(ini_value_name(run.ini, ActionSetting), "upgrade") == 0;
  const int action = upgrade ? UpgradeChoice : InstallChoice;
  print_header(run.ini);
  while (!dispatch(run, ask_choice(run.ini, action))) {
  }
}

// ---- The run ----

/// Loads the init script and lets it derive its settings.
bool run_init_script(Run &run) {
  const InitOwner init_script{init_init()};
  const Faults faults = fault_sink(run);
  char path[PathSize];
  if (product_file(".int", path) && init_load(init_script.get(), path, faults) != 0) {
    init_evaluate(init_script.get(), run.ini, faults);
    return true;
  }
  std::printf("Error: Failed to load init file '%s', %s\n", path, init_error());
  if (!must_end(run)) count_fault(run, {path}, {init_error(), {}, {}});
  return false;
}

void open_log(Run &run) {
  char path[PathSize];
  log_set(run.log);
  if (!product_file(".log", path)) return;
  const bool opened = log_open(run.log, path) != 0;
  log_doflush(run.log, 1);
  if (!opened) count_fault(run, {path}, {"cannot open the log", {}, last_cause()});
}

/// False: another strict run is at work here, or the log cannot tell.
bool lock_log(Run &run) {
  if (!run.strict || !run.log->F) return true;
  ::pid_t holder = 0;
  const Cause cause = log_lock(run.log, holder);
  if (!cause) return true;
  log_set(nullptr); // it is the log of the other run
  const std::string process = holder > 0 ? "process " + std::to_string(holder) : "another process";
  if (cause.number == EWOULDBLOCK)
    count_fault(run, {run.log->File}, {"in use by " + process, {}, {}});
  else count_fault(run, {run.log->File}, {"cannot lock the log", {}, cause});
  return false;
}

void load_answers(Run &run) {
  const char *file = text_of(run.answers_file);
  char questions[PathSize];
  if (file == nullptr) return;
  const Faults faults = fault_sink(run);
  const Text reason = answers_load(run.answers, file, faults);
  if (reason) refuse_run(run, {file}, {"cannot read the answers", *reason, {}});
  else if (product_file(".q", questions)) answers_check(run.answers, file, questions, faults);
}

void run_product(Run &run) {
  char path[PathSize];
  if (!product_file(".dat", path)) {
    std::printf("Error: The path of the data files is too long\n");
    count_fault(run, {}, {"The path of the data files is too long", {}, {}});
    return;
  }
  if (load_datfile(run.ini, path, telling_sink(run)) == 0) return;
  if (run_init_script(run) && !must_end(run)) run_menu(run);
}

/// True: the end waits for the operator.
bool run_program(const CommandLine &line, Run &run) {
  const LogOwner log{log_init(LogDebug)};
  const IniOwner ini{ini_init()};
  run.log = log.get();
  run.ini = ini.get();
  run.strict = line.strict;
  open_log(run);
  if (!lock_log(run)) return false;
  imsg("Log file opened in '%s'", run.log->File);
  note_place(run, "before the work");
  const ToldSignals told{run.strict ? tell_of_signal : nullptr};
  static_cast<void>(within_memory(run, [&] {
    apply_options(run, line);
    load_answers(run);
    if (!must_end(run)) run_product(run);
  }));
  clear_datfile();
  check_console(run);
  close_log(run);
  log_set(nullptr);
  return automate == 0;
}

/// Puts back what the options and the run left behind, for a program that runs another one.
void forget_run() {
  myname.reset();
  special_mode.reset();
  automate = 0;
}

Status run_to_the_end(const CommandLine &line) {
  Run run;
  if (run_program(line, run)) {
    std::printf("\n<Press enter to exit>");
    char reply[LineSize];
    read_reply(reply, sizeof reply);
    check_console(run);
  }
  return exit_status(run);
}

} // namespace

int main(unsigned argc, char **argv) {
  prepare_process();
  char name[PathSize] = "";
  exename(name, argc > 0 ? argv[0] : nullptr, sizeof name);
  myname = name;
  const CommandLine line = read_command_line(argv, argc);
  if (line.help) print_usage(stdout);
  Status status = line.help ? Status::Complete : Status::NotBegun;
  if (!line.help && check_command_line(line)) status = run_to_the_end(line);
  forget_run();
  return static_cast<int>(status);
}

void print_header(Ini ini) {
  constexpr const char *line = "======================================================";
  std::printf("%s\n", line);
  std::printf("             Welcome to the %s installer\n", product_name(ini));
  std::printf(" You will be asked a series of questions, for each a\n"
              " default answer will be provided (thus), to accept the\n"
              " default simply press <enter>, otherwise enter a new\n"
              " answer and press <enter>\n");
  std::printf("%s\n", line);
}

void print_menu(Ini ini) {
  const char *product = product_name(ini);
  std::printf("\n1. Install %s\n2. Upgrade %s\n3. Remove %s\n4. Exit\n", product, product, product);
}

} // namespace installer
