#include "installer/front.h"

#include "installer/init.h"
#include "installer/shared.h"

#include <csignal>
#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

namespace installer {

Text myname;
Text special_mode;
int automate = 0;

namespace {

using IniOwner = std::unique_ptr<ini, Release<ini_free>>;
using InitOwner = std::unique_ptr<init_s, Release<init_free>>;

// ---- The process ----

/// A console that goes away, or a file-size limit, must show as a failed write and not kill a half
/// finished upgrade; and no product file may get a descriptor that belongs to the console.
void prepare_process() {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
    if (::fcntl(fd, F_GETFD) == -1) static_cast<void>(::open("/dev/null", O_RDWR));
}

// ---- Options ----

/// What is left of the command line.
struct Arguments {
  char **argv;
  unsigned argc;
  unsigned next;
};

void set_debug(Log log, Arguments & /*arguments*/) {
  log_set_level(log, LogDebug);
  imsg("Logging set to debug");
}

void show_version(Log /*log*/, Arguments & /*arguments*/) {
  std::printf("Installer version %s\n", "1.0d");
  std::exit(0);
}

void set_automate(Log /*log*/, Arguments & /*arguments*/) {
  imsg("Automated install/upgrade...");
  automate = 1;
}

void set_special(Log /*log*/, Arguments &arguments) {
  if (arguments.next >= arguments.argc) {
    std::printf("Usage: install -special <tag>\n");
    std::exit(1);
  }
  special_mode = arguments.argv[arguments.next++];
  imsg("Special mode [%s]", text_of(special_mode));
}

struct Option {
  const char *word;
  void (*apply)(Log log, Arguments &arguments);
};
constexpr Option options[] = {
    {"-debug",    set_debug   },
    {"-version",  show_version},
    {"-automate", set_automate},
    {"-special",  set_special },
};

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

const char *product_name(Ini ini) {
  const char *product = ini_value_name(ini, "product");
  return product != nullptr ? product : "NONAME";
}

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
  if (number == ExitChoice) return true;
  for (const Choice &choice : choices) {
    if (choice.number != number) continue;
    const ActionResult result = run_action(run, choice.kind);
    // Unattended, the menu would come back with the same choice for ever.
    if (choice.once || (result == QUIT && automate != 0)) return true;
    if (result == QUIT || result == choice.again) return false;
    if (choice.blurb) print_blurb(run.ini);
    return true;
  }
  std::printf("That is not a recognised option, please try again\n");
  return false;
}

void run_menu(Run &run) {
  const bool upgrade = s_strcmp(ini_value_name(run.ini, "action"), "upgrade") == 0;
  const int action = upgrade ? UpgradeChoice : InstallChoice;
  print_header(run.ini);
  while (!dispatch(run, ask_choice(run.ini, action))) {
  }
}

// ---- The run ----

/// Loads the init script and lets it derive its settings.
bool run_init_script(Ini ini) {
  const InitOwner init_script{init_init()};
  char path[PathSize];
  if (product_file(".int", path) && init_load(init_script.get(), path) != 0) {
    init_evaluate(init_script.get(), ini);
    return true;
  }
  std::printf("Error: Failed to load init file '%s', %s\n", path, init_error());
  return false;
}

void open_log(Log log) {
  char path[PathSize];
  log_set(log);
  if (!product_file(".log", path)) return;
  log_open(log, path);
  log_doflush(log, 1);
  imsg("Log file opened in '%s'", path);
}

void run_product(Run &run) {
  char path[PathSize];
  if (!product_file(".dat", path)) {
    std::printf("Error: The path of the data files is too long\n");
    return;
  }
  if (load_datfile(run.ini, path, tell_fault) != 0 && run_init_script(run.ini)) run_menu(run);
}

void run_program(unsigned argc, char **argv) {
  const LogOwner log{log_init(LogDebug)};
  const IniOwner ini{ini_init()};
  Run run{.log = log.get(), .ini = ini.get()};
  open_log(run.log);
  static_cast<void>(within_memory([&] {
    process_args(run.log, argv, argc);
    run_product(run);
  }));
  clear_datfile();
}

/// Puts back what the options and the run left behind, for a program that runs another one.
void forget_run() {
  log_set(nullptr);
  myname.reset();
  special_mode.reset();
  automate = 0;
}

} // namespace

bool product_file(const char *ext, char (&path)[PathSize]) {
  char directory[PathSize];
  const bool found = currentdir(directory, sizeof directory) != nullptr;
  *path = '\0';
  if (!found && (errno == ERANGE || errno == ENAMETOOLONG)) return false;
  const std::string name = or_empty(text_of(myname)) + std::string{ext};
  return join_path(path, sizeof path, directory, name.c_str()) != 0;
}

int main(unsigned argc, char **argv) {
  prepare_process();
  char name[PathSize] = "";
  exename(name, argc > 0 ? argv[0] : nullptr, sizeof name);
  myname = name;
  run_program(argc, argv);
  const bool attended = automate == 0;
  forget_run();
  if (attended) {
    std::printf("\n<Press enter to exit>");
    char reply[LineSize];
    read_reply(reply, sizeof reply);
  }
  return 0;
}

void process_args(Log log, char **argv, unsigned argc) {
  Arguments arguments{argv, argc, 1};
  while (arguments.next < argc) {
    const Option *option = find_word(options, argv[arguments.next++], s_strcmp);
    if (option != nullptr) option->apply(log, arguments);
  }
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
