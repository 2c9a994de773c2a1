#include "installer/dialogue.h"

#include "installer/file.h"
#include "installer/product.h"
#include "installer/quest.h"

#include <cstring>

#include <unistd.h>

namespace installer {

namespace {

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

} // namespace

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

} // namespace installer
