#include "installer/front.h"

#include "installer/copy.h"
#include "installer/file.h"
#include "installer/quest.h"

#include <cstring>

namespace installer {

namespace {

using QuestOwner = std::unique_ptr<questions, Release<quest_free>>;
using CopyOwner = std::unique_ptr<copy, Release<copy_free>>;

constexpr const char *UntaggedSpecial = "special";

/// What tells the four actions apart. `banner` and `section`: null for the tag of -special.
/// `opener`: printed before the copy script runs. `done`: what its success line says was done; a
/// script that counts bytes has a line of its own. `expand_error`: references in the text of a
/// failing `QError` are replaced.
struct Action {
  const char *banner;
  const char *section;
  const char *opener;
  const char *done;
  bool counts_bytes;
  int stop_on_fail;
  bool expand_error;
};

constexpr Action install_action = {
    .banner = "Install",
    .section = "install",
    .opener = "Copying files[",
    .done = "copied",
    .counts_bytes = true,
    .stop_on_fail = 1,
    .expand_error = false,
};
constexpr Action upgrade_action = {
    .banner = "Upgrade",
    .section = "upgrade",
    .opener = "Copying files[",
    .done = "copied",
    .counts_bytes = true,
    .stop_on_fail = 1,
    .expand_error = true,
};
constexpr Action remove_action = {
    .banner = "Remove",
    .section = "remove",
    .opener = "Removing files[",
    .done = "removed",
    .counts_bytes = false,
    .stop_on_fail = 0,
    .expand_error = false,
};
constexpr Action special_action = {
    .banner = nullptr,
    .section = nullptr,
    .opener = "Executing[",
    .done = "done.",
    .counts_bytes = false,
    .stop_on_fail = 0,
    .expand_error = false,
};

const Action &action_of(ActionKind kind) {
  switch (kind) {
  case ActionKind::Install: return install_action;
  case ActionKind::Upgrade: return upgrade_action;
  case ActionKind::Remove: return remove_action;
  case ActionKind::Special: break;
  }
  return special_action;
}

const char *section_of(const Action &action) {
  return action.section != nullptr ? action.section : text_of(special_mode);
}

const char *banner_of(const Action &action) {
  if (action.banner != nullptr) return action.banner;
  return special_mode ? text_of(special_mode) : UntaggedSpecial;
}

// ---- The questions ----

/// One walk through the questions of a section. `index`: the entry to process next; `jumps`: jumps
/// since the operator's last reply.
struct Pass {
  Run &run;
  Questions quest;
  const Action &action;
  std::uint32_t index = 0;
  std::uint32_t jumps = 0;
};

/// What became of an entry: `Next` goes on behind it, `Stay` with whatever `index` says now.
enum class Step { Next, Stay, Fail, Quit };

bool is_letter(const char *reply, char letter) {
  return reply[0] != '\0' && reply[1] == '\0' &&
         charmap[static_cast<unsigned char>(reply[0])] == static_cast<unsigned char>(letter);
}

const char *setting_value(const Pass &pass) {
  return ini_value_name(pass.run.ini, quest_setting(pass.quest, pass.index));
}

void set_setting(const Pass &pass, const char *value) {
  ini_add_name(pass.run.ini, quest_setting(pass.quest, pass.index), value);
}

Step handle_exist(Pass &pass) {
  const char *text = quest_text(pass.quest, pass.index);
  char temp[LineSize];
  const bool fits = ini_replace_path(pass.run.ini, text, temp, sizeof temp) != 0;
  if (!fits) emsg("Failed to test (%s), %s", text, std::strerror(errno));
  set_setting(pass, fits && file_exist(temp) != 0 ? "true" : "false");
  return Step::Next;
}

Step handle_copy(Pass &pass) {
  const char *value = ini_value_name(pass.run.ini, quest_text(pass.quest, pass.index));
  if (value != nullptr) set_setting(pass, value);
  return Step::Next;
}

Step handle_error(Pass &pass) {
  if (isfalse(setting_value(pass)) == 0) return Step::Next;
  const char *text = quest_text(pass.quest, pass.index);
  char temp[LineSize] = "";
  if (pass.action.expand_error) ini_replace(pass.run.ini, text, temp, sizeof temp);
  std::printf("Error: %s\n", pass.action.expand_error ? temp : text);
  return Step::Fail;
}

Step handle_loop(Pass &pass) {
  if (isfalse(setting_value(pass)) == 0) return Step::Next;
  const std::uint32_t count = quest_count(pass.quest);
  if (++pass.jumps > count) {
    std::printf("Error: The questions repeat without end\n");
    return Step::Fail;
  }
  const int target = s_atoi(quest_text(pass.quest, pass.index));
  pass.index = target >= 0 ? static_cast<std::uint32_t>(target) : count;
  return Step::Stay;
}

struct Special {
  QType type;
  Step (*handle)(Pass &pass);
};
constexpr Special specials[] = {
    {QXExist, handle_exist},
    {QCopy,   handle_copy },
    {QError,  handle_error},
    {QLoop,   handle_loop },
};

bool gate_open(const Pass &pass) {
  // Both are looked up before either is judged: a look-up decides where the next value goes.
  const char *control = ini_value_name(pass.run.ini, quest_control(pass.quest, pass.index));
  const char *compare = ini_value_or_text(pass.run.ini, quest_control_cmp(pass.quest, pass.index));
  if (control == nullptr) return true;
  return compare != nullptr ? std::strcmp(control, compare) == 0 : istrue(control) != 0;
}

Step refuse(Step step) {
  std::printf("Error: %s, please try again\n", quest_error());
  return step;
}

/// "b" at an unattended run could only come to the same default again.
Step step_back(Pass &pass) {
  if (automate != 0) {
    std::printf("Error: Cannot go back from question '%s' unattended\n",
                quest_setting(pass.quest, pass.index));
    return Step::Fail;
  }
  if (pass.index > 0) --pass.index;
  return Step::Stay;
}

/// `Next`: an answer is in `reply`.
Step get_reply(Pass &pass, char (&reply)[LineSize]) {
  if (automate != 0) {
    quest_default(pass.quest, pass.index, reply, sizeof reply);
    return Step::Next;
  }
  errno = 0;
  const bool answered = quest_ask(pass.quest, pass.index, reply, sizeof reply) != 0;
  if (!answered && input_ended()) return Step::Quit;
  pass.jumps = 0;
  return answered ? Step::Next : refuse(Step::Stay);
}

Step ask_question(Pass &pass) {
  if (!gate_open(pass)) return Step::Next;
  char reply[LineSize];
  const Step got = get_reply(pass, reply);
  if (got != Step::Next) return got;
  if (is_letter(reply, 'q')) return Step::Quit;
  if (is_letter(reply, 'b')) return step_back(pass);
  errno = 0;
  if (quest_answer(pass.quest, pass.index, reply) != 0) return Step::Next;
  return refuse(automate != 0 ? Step::Fail : Step::Stay);
}

Step process_entry(Pass &pass) {
  const QType type = quest_type(pass.quest, pass.index);
  for (const Special &special : specials)
    if (special.type == type) return special.handle(pass);
  return ask_question(pass);
}

ActionResult run_pass(Pass pass) {
  while (pass.index < quest_count(pass.quest)) {
    switch (process_entry(pass)) {
    case Step::Next: ++pass.index; break;
    case Step::Stay: break;
    case Step::Fail: return FAILED;
    case Step::Quit: return QUIT;
    }
  }
  return SUCEEDED;
}

/// What the operator wants after the last question: `Next` to begin the work, `Stay` to answer
/// again. Input that cannot be read quits, for it is no consent.
Step review() {
  if (automate != 0) return Step::Next;
  std::printf("Do you want to change your answers [n]? ");
  char reply[LineSize];
  read_reply(reply, sizeof reply);
  if (input_failed()) return Step::Quit;
  return istrue(s_strtrm(reply)) != 0 ? Step::Stay : Step::Next;
}

ActionResult ask_until_content(Run &run, const Action &action, Questions quest) {
  while (true) {
    const ActionResult result = run_pass(Pass{run, quest, action});
    if (result != SUCEEDED) return result;
    const Step step = review();
    if (step != Step::Stay) return step == Step::Next ? SUCEEDED : QUIT;
  }
}

ActionResult ask_questions(Run &run, const Action &action) {
  const QuestOwner quest{quest_init(run.ini)};
  char path[PathSize];
  if (!product_file(".q", path) ||
      quest_load(quest.get(), path, section_of(action), tell_fault) == 0) {
    emsg("Error loading questions");
    return FAILED;
  }
  return ask_until_content(run, action, quest.get());
}

// ---- The copy script ----

void print_result(const Action &action, const Outcome &outcome) {
  const std::string files = std::to_string(outcome.files);
  const std::string bytes = std::to_string(outcome.bytes);
  if (!outcome.completed) std::printf("]\nFailed, %s", copy_error());
  else if (action.counts_bytes)
    std::printf("]\nSuccess %s bytes in %s files %s\n", bytes.c_str(), files.c_str(), action.done);
  else std::printf("]\n Success %s files %s\n", files.c_str(), action.done);
}

void run_script(Run &run, const Action &action) {
  const CopyOwner copy{copy_init(run.ini)};
  Outcome &outcome = run.outcome;
  char path[PathSize];
  copy_setup(copy.get(), printdot, printerror);
  if (!product_file(".cpy", path) ||
      copy_load(copy.get(), path, section_of(action), tell_fault) == 0)
    return;
  std::printf("%s", action.opener);
  outcome.began = true;
  outcome.completed =
      copy_process(copy.get(), &outcome.files, action.counts_bytes ? &outcome.bytes : nullptr,
                   action.stop_on_fail) != 0;
  print_result(action, outcome);
}

ActionResult run_alone(Ini ini, ActionKind kind) {
  Run run;
  run.ini = ini;
  return run_action(run, kind);
}

} // namespace

ActionResult run_action(Run &run, ActionKind kind) {
  const Action &action = action_of(kind);
  run.outcome = {};
  std::printf("[%s]\n", banner_of(action));
  ActionResult result = FAILED;
  if (!within_memory([&] { result = ask_questions(run, action); })) return FAILED;
  // A copy script that cannot be loaded is no failure of the action.
  if (result == SUCEEDED) static_cast<void>(within_memory([&] { run_script(run, action); }));
  return result;
}

ActionResult install_product(Ini ini) { return run_alone(ini, ActionKind::Install); }

ActionResult upgrade_product(Ini ini) { return run_alone(ini, ActionKind::Upgrade); }

ActionResult remove_product(Ini ini) { return run_alone(ini, ActionKind::Remove); }

ActionResult do_special(Ini ini) { return run_alone(ini, ActionKind::Special); }

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
