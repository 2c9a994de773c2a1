#include "installer/actions.h"

#include "installer/copy.h"
#include "installer/dialogue.h"
#include "installer/product.h"
#include "installer/strict.h"

#include <algorithm>
#include <cstring>

#include <unistd.h>

namespace installer {

namespace {

constexpr const char *UntaggedSpecial = "special";

using enum ActionKind;
constexpr Action table[] = {
    {Install, "Install", "install", "Copying files[",  "copied",  1, true,  false},
    {Upgrade, "Upgrade", "upgrade", "Copying files[",  "copied",  1, true,  true },
    {Remove,  "Remove",  "remove",  "Removing files[", "removed", 0, false, false},
    {Special, nullptr,   nullptr,   "Executing[",      "done.",   0, false, false},
};

const Action &action_of(ActionKind kind) {
  const auto *row = std::find_if(std::begin(table), std::end(table),
                                 [=](const Action &action) { return action.kind == kind; });
  return *row;
}

const char *banner_of(const Action &action) {
  if (action.banner != nullptr) return action.banner;
  return special_mode ? text_of(special_mode) : UntaggedSpecial;
}

/// True: the answers stand where the run was asked to record them, if it was.
bool record_answers(Run &run, const Action &action) {
  const char *file = text_of(run.record);
  if (file == nullptr) return true;
  const std::string title = std::string{product_name(run.ini)} + ", " + section_of(action);
  const Cause cause = answers_write(run.given, file, title);
  if (cause) refuse_run(run, {}, {"cannot record the answers", file, cause});
  return !cause;
}

void print_result(const Action &action, const Outcome &outcome) {
  const std::string files = std::to_string(outcome.files);
  const std::string bytes = std::to_string(outcome.bytes);
  if (!outcome.completed) std::printf("]\nFailed, %s", copy_error());
  else if (action.counts_bytes)
    std::printf("]\nSuccess %s bytes in %s files %s\n", bytes.c_str(), files.c_str(), action.done);
  else std::printf("]\n Success %s files %s\n", files.c_str(), action.done);
}

/// What of the script a strict run must not begin with.
void count_cut_commands(Run &run, const char *file, pCopy copy, const char *section) {
  for (const CCmd &command : copy->list)
    if (command.cut) count_long_line(run, file, command.line, section);
}

bool load_script(Run &run, const char *file, pCopy copy, const char *section) {
  const bool loaded = copy_load(copy, file, section, telling_sink(run)) != 0;
  if (loaded) count_cut_commands(run, file, copy, section);
  else if (!must_end(run))
    count_fault(run, {file}, {"Section '" + std::string{section} + "' not found", {}, {}});
  return loaded && !must_end(run);
}

void run_script(Run &run, const Action &action) {
  const CopyOwner copy{copy_init(run.ini)};
  Outcome &outcome = run.outcome;
  char path[PathSize];
  copy_setup(copy.get(), printdot, printerror);
  if (!product_file(".cpy", path) || !load_script(run, path, copy.get(), section_of(action)))
    return;
  StrictWatch watched{run, action, copy->list, path};
  const CopyWatch watch = watched.watch();
  if (run.strict) copy->watch = &watch;
  std::printf("%s", action.opener);
  outcome.began = true;
  outcome.completed =
      copy_process(copy.get(), &outcome.files, action.counts_bytes ? &outcome.bytes : nullptr,
                   action.stop_on_fail) != 0;
  note_place(run, "after the work");
  print_result(action, outcome);
}

ActionResult run_alone(Ini ini, ActionKind kind) {
  Run run;
  run.ini = ini;
  return run_action(run, kind);
}

} // namespace

std::span<const Action> actions() { return table; }

const Action &action_of_section(const char *name) {
  for (const Action &action : table)
    if (action.section != nullptr && s_stricmp(action.section, name) == 0) return action;
  return action_of(Special);
}

const char *section_of(const Action &action) {
  return action.section != nullptr ? action.section : text_of(special_mode);
}

ActionResult run_action(Run &run, ActionKind kind) {
  const Action &action = action_of(kind);
  std::printf("[%s]\n", banner_of(action));
  ActionResult result = FAILED;
  if (!within_memory(run, [&] { result = ask_questions(run, action); })) return FAILED;
  if (result == QUIT) run.outcome.ended = true;
  if (result != SUCEEDED) return result;
  // A copy script that cannot be loaded is no failure of the action.
  static_cast<void>(within_memory(run, [&] {
    if (record_answers(run, action)) run_script(run, action);
  }));
  return result;
}

ActionResult install_product(Ini ini) { return run_alone(ini, Install); }

ActionResult upgrade_product(Ini ini) { return run_alone(ini, Upgrade); }

ActionResult remove_product(Ini ini) { return run_alone(ini, Remove); }

ActionResult do_special(Ini ini) { return run_alone(ini, Special); }

void print_blurb(Ini ini) {
  const Stream blurb{s_fopen("blurb.txt", "r")};
  if (!blurb) return;
  std::printf("\n");
  char line[LineSize];
  char result[LineSize] = "";
  while (std::fgets(line, sizeof line, blurb.get()) != nullptr) {
    ini_replace(ini, s_strtrm(line), result, sizeof result);
    std::printf("%s\n", result);
  }
}

void printdot(const char * /*src*/, const char * /*dst*/, int /*mode*/) {
  static std::uint32_t upto = 0;
  const KeepErrno keep;
  std::putchar('.');
  if (++upto % 5 == 0) std::fflush(stdout);
}

void printerror(const char * /*src*/, const char * /*dst*/, int /*mode*/) {
  std::printf("\nError: %s\n", std::strerror(errno));
}

} // namespace installer
