#include "installer/front.h"

#include "installer/copy.h"
#include "installer/file.h"
#include "installer/quest.h"

#include <cstring>

#include <unistd.h>

namespace installer {

namespace {

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

/// One walk through the questions of a section of `file`. `index`: the entry to process next;
/// `jumps`: jumps since the operator's last reply; `answered`: the setting of the question that was
/// answered last, since the first of them.
struct Pass {
  Run &run;
  Questions quest;
  const char *file;
  const Action &action;
  std::uint32_t index = 0;
  std::uint32_t jumps = 0;
  std::string answered = {};
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

/// Ends the pass for a fault of the entry. `who`: its keyword, or the setting of a question.
Step fail(const Pass &pass, const char *who, const std::string &what) {
  count_fault(pass.run, {pass.file, pass.quest->list[pass.index].line, who}, {what, {}, {}});
  return Step::Fail;
}

/// Shows an error that ends a strict run. Its reason follows, and says the same on a terminal that
/// shows both.
void show_error(const Pass &pass, const std::string &text) {
  const KeepErrno keep;
  const bool twice =
      pass.run.strict && ::isatty(STDOUT_FILENO) == 1 && ::isatty(STDERR_FILENO) == 1;
  if (!twice) std::printf("Error: %s\n", text.c_str());
}

Step fail_question(const Pass &pass, const std::string &what) {
  return fail(pass, quest_setting(pass.quest, pass.index), what);
}

Step handle_exist(Pass &pass) {
  const char *text = quest_text(pass.quest, pass.index);
  char temp[LineSize];
  Cause cause;
  const bool fits = ini_replace_path(pass.run.ini, text, temp, sizeof temp) != 0;
  if (!fits) cause = last_cause();
  const bool exists = fits && file_exist(temp, &cause) != 0;
  if (cause.number == ENAMETOOLONG) emsg_cause(cause, "Failed to test (%s)", text);
  set_setting(pass, exists ? "true" : "false");
  if (!cause || is_absence(cause) || !pass.run.strict) return Step::Next;
  count_fault(pass.run, {pass.file, pass.quest->list[pass.index].line, "Exist"},
              {"cannot test", fits ? temp : text, cause});
  return Step::Fail;
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
  const char *message = pass.action.expand_error ? temp : text;
  show_error(pass, message);
  return fail(pass, "Error", message);
}

Step handle_loop(Pass &pass) {
  if (isfalse(setting_value(pass)) == 0) return Step::Next;
  const std::uint32_t count = quest_count(pass.quest);
  if (++pass.jumps == 1) pass.answered.clear();
  if (pass.jumps > count) {
    const std::string what = "The questions repeat without end";
    show_error(pass, what);
    const bool asks = !pass.answered.empty();
    return fail(pass, "Loop",
                asks ? what + ", the answer to '" + pass.answered + "' was refused last" : what);
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

bool is_asked(const Pass &pass) {
  return gate_open(pass.run.ini, quest_control(pass.quest, pass.index),
                   quest_control_cmp(pass.quest, pass.index), Case::Counts);
}

/// Says what is wrong with the answer; unattended there is no other.
Step refuse(const Pass &pass) {
  const std::string text = std::string{quest_error()} + ", please try again";
  if (automate == 0) std::printf("Error: %s\n", text.c_str());
  else show_error(pass, text);
  return automate != 0 ? fail_question(pass, quest_reason()) : Step::Stay;
}

/// "b" at an unattended run could only come to the same default again.
Step step_back(Pass &pass) {
  if (automate != 0) {
    const std::string setting = quest_setting(pass.quest, pass.index);
    show_error(pass, "Cannot go back from question '" + setting + "' unattended");
    return fail_question(pass, "The default is 'b', which goes back");
  }
  if (pass.index > 0) --pass.index;
  return Step::Stay;
}

Step quit(const Pass &pass) {
  if (automate != 0) static_cast<void>(fail_question(pass, "The default is 'q', which quits"));
  return Step::Quit;
}

/// `Next`: the default is in `reply`, also when it is empty, but for a strict run.
Step get_default(const Pass &pass, char (&reply)[LineSize]) {
  quest_default(pass.quest, pass.index, reply, sizeof reply);
  if (*reply != '\0' || !pass.run.strict) return Step::Next;
  return fail_question(pass, "There is neither an answer nor a default");
}

/// `Next`: an answer is in `reply`.
Step get_reply(Pass &pass, char (&reply)[LineSize]) {
  if (automate != 0) return get_default(pass, reply);
  errno = 0;
  const bool answered = quest_ask(pass.quest, pass.index, reply, sizeof reply) != 0;
  if (!answered && input_ended()) return Step::Quit;
  pass.jumps = 0;
  return answered ? Step::Next : refuse(pass);
}

/// Checks the answer and stores it. It is what the question offers when it is asked again.
Step take_answer(Pass &pass, char (&reply)[LineSize]) {
  const std::string given = reply;
  const char *setting = quest_setting(pass.quest, pass.index);
  errno = 0;
  if (quest_answer(pass.quest, pass.index, reply) == 0) return refuse(pass);
  pass.answered = setting;
  set_answer(pass.run.given, {setting, given});
  if (Answer *answer = find_answer(pass.run.answers, setting)) answer->value = given;
  return Step::Next;
}

Step ask_question(Pass &pass) {
  if (!is_asked(pass)) return Step::Next;
  char reply[LineSize];
  const Step got = get_reply(pass, reply);
  if (got != Step::Next) return got;
  if (is_letter(reply, 'q')) return quit(pass);
  if (is_letter(reply, 'b')) return step_back(pass);
  return take_answer(pass, reply);
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
/// again. Input that cannot be read quits, for it is no consent; nor is its end in a strict run.
Step review(const Run &run) {
  if (automate != 0) return Step::Next;
  std::printf("Do you want to change your answers [n]? ");
  char reply[LineSize];
  read_reply(reply, sizeof reply);
  if (input_failed() || (run.strict && input_ended())) return Step::Quit;
  return istrue(s_strtrm(reply)) != 0 ? Step::Stay : Step::Next;
}

ActionResult ask_until_content(const Pass &pass) {
  while (true) {
    const ActionResult result = run_pass(pass);
    if (result != SUCEEDED) return result;
    const Step step = review(pass.run);
    if (step != Step::Stay) return step == Step::Next ? SUCEEDED : QUIT;
  }
}

/// A strict run asks no question of which the text may not be whole.
void count_cut_questions(Run &run, const char *file, Questions quest) {
  for (const Quest &entry : quest->list)
    if (run.long_lines.contains({file, entry.line}))
      count_long_line(run, file, entry.line, text_of(quest->section));
}

bool load_questions(Run &run, const char *file, Questions quest, const char *section) {
  if (quest_load(quest, file, section, telling_sink(run)) == 0) return false;
  count_cut_questions(run, file, quest);
  return true;
}

ActionResult ask_questions(Run &run, const Action &action) {
  const QuestOwner quest{quest_init(run.ini)};
  char path[PathSize];
  quest->answer_for = [&run](const char *setting) {
    const Answer *answer = find_answer(run.answers, setting);
    return answer != nullptr ? answer->value.c_str() : nullptr;
  };
  if (!product_file(".q", path) || !load_questions(run, path, quest.get(), section_of(action))) {
    emsg("Error loading questions");
    if (section_of(action) == nullptr)
      count_fault(run, {path}, {"There is no section without -special", {}, {}});
    return FAILED;
  }
  if (must_end(run)) return FAILED;
  return ask_until_content({run, quest.get(), path, action});
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

// ---- The copy script ----

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

/// What a strict run makes of one command: a line in the log before it, one for each file, and the
/// failures counted. `told`: it has a failure with a reason; `nothing`: what it looked for in vain.
struct Watched {
  Run &run;
  const Action &action;
  const std::vector<CCmd> &commands;
  const char *file;
  std::uint32_t index = 0;
  bool told = false;
  std::string nothing = {};

  [[nodiscard]] const CCmd &command() const { return commands[index]; }
  /// A removal that finds nothing has been done before, unless the script is one that builds.
  [[nodiscard]] bool may_find_nothing() const {
    return has(command().type, CType::Rm) && action.stop_on_fail == 0;
  }
  [[nodiscard]] const char *word() const { return or_empty(copy_command(command().type).word); }
  void fail(const Failure &failure) {
    told = true;
    count_failure(run, {file, command().line, word()}, failure);
  }
};

void command_begins(Watched &x, std::uint32_t index) {
  x.index = index;
  x.told = false;
  x.nothing.clear();
  const char *separator = last_separator(x.file);
  const std::string place = std::string{separator != nullptr ? separator + 1 : x.file} + ":" +
                            std::to_string(x.command().line) + " " + x.word();
  note_place(x.run, "in " + place);
  imsg("%s", place.c_str());
}

void command_acts(Watched &x, const FileEvent &event) {
  const std::string path = or_empty(event.path);
  switch (event.result) {
  case FileResult::Done: imsg("%s %s", event.what, escape_controls(path).c_str()); break;
  case FileResult::Nothing: x.nothing = path; break;
  case FileResult::Failed:
    if (!x.may_find_nothing() || !is_absence(event.cause)) x.fail({event.what, path, event.cause});
    break;
  case FileResult::Kept: break;
  }
}

/// True when anything of the command failed: whatever is behind it would be done on a lie, such as
/// the file that says that all is there.
bool command_ends(Watched &x, int result) {
  if (result != -1) ++x.run.outcome.commands;
  if (result == 0 && !x.told && !x.may_find_nothing())
    x.fail({x.nothing.empty() ? "nothing was done" : "nothing matches", x.nothing, {}});
  return x.told;
}

void run_script(Run &run, const Action &action) {
  const CopyOwner copy{copy_init(run.ini)};
  Outcome &outcome = run.outcome;
  char path[PathSize];
  copy_setup(copy.get(), printdot, printerror);
  if (!product_file(".cpy", path) || !load_script(run, path, copy.get(), section_of(action)))
    return;
  Watched watched{run, action, copy->list, path};
  const CopyWatch watch = {
      .begins = [&](std::uint32_t index) { command_begins(watched, index); },
      .event = [&](const FileEvent &event) { command_acts(watched, event); },
      .ends = [&](std::uint32_t, int result) { return command_ends(watched, result); },
  };
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
