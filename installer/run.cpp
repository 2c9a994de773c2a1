#include "installer/run.h"

#include "installer/init.h"
#include "installer/product.h"
#include "installer/signals.h"

#include <algorithm>
#include <cstdio>

namespace installer {

namespace {

/// An init script looks whether a file is there by reading it.
bool is_look(const Fault &fault) {
  const InitCommand *command = find_word(init_commands(), fault.word.c_str(), s_strcmp);
  return command != nullptr && command->mode == IRFile && is_absence(fault.failure.cause);
}

/// True for faults after which a strict run does not begin: a line that is dropped is one, although
/// the program says nothing of it.
bool counts(const Fault &fault) {
  if (fault.kind == FaultKind::Failed) return !is_look(fault);
  return fault.severity == Severity::Error || fault.kind == FaultKind::MissingWord;
}

/// The product's files by their names, others as they were given.
std::string shown_file(const std::string &path) {
  char own[PathSize];
  const char *separator = product_file("", own) ? last_separator(own) : nullptr;
  std::string folder = own;
  folder.resize(separator != nullptr ? static_cast<std::size_t>(separator + 1 - own) : 0);
  const std::string name = path.starts_with(folder) ? path.substr(folder.size()) : path;
  return last_separator(name.c_str()) == nullptr ? name : path;
}

std::string reason_line(const Where &where, const Failure &failure) {
  std::string line = or_empty(text_of(myname));
  if (!where.file.empty()) line += ": " + shown_file(where.file);
  if (where.line != 0) line += ":" + std::to_string(where.line);
  for (const std::string &part : {where.keyword, failure.what, failure.path})
    if (!part.empty()) line += ": " + part;
  if (failure.cause) line += std::string{": "} + cause_text(failure.cause);
  return escape_controls(line);
}

/// What a handler can tell of a run.
struct {
  char place[LineSize];
  char counts[LineSize];
  std::time_t started;
} noted;

std::string counts_text(const Outcome &outcome) {
  return std::to_string(outcome.commands) + " commands, " + std::to_string(outcome.files) +
         " files, " + std::to_string(outcome.bytes) + " bytes, " +
         std::to_string(outcome.failures + outcome.faults) + " failures, ";
}

void note_counts(const Run &run) {
  const std::string counts = counts_text(run.outcome);
  const HeldSignals held;
  scpy(noted.counts, counts.c_str(), sizeof noted.counts);
}

/// Counts what is wrong with a line; what follows from it gives no reason more.
void count_line(Run &run, const Where &where, std::string what, const std::string &section) {
  const bool fresh = where.line == 0 || run.faulty_lines.emplace(where.file, where.line).second;
  if (!section.empty()) what += " in [" + section + "]";
  if (fresh) count_fault(run, where, {what, {}, {}});
}

/// Counts a fault that a loader has found.
void count_loaded(Run &run, const Fault &fault) {
  const bool words =
      fault.kind == FaultKind::MissingWord || fault.kind == FaultKind::UnknownKeyword;
  if (words && run.long_lines.contains({fault.file, fault.line}))
    return count_long_line(run, fault.file, fault.line, fault.section.c_str());
  Where where = {fault.file, fault.line};
  if (fault.kind == FaultKind::MissingWord) where.keyword = fault.word;
  const std::string lacks = "the " + fault.lacks + " is missing";
  count_line(run, where, fault.lacks.empty() ? fault.text : lacks, words ? fault.section : "");
}

const char *status_words(Status status) {
  switch (status) {
  case Status::Complete: return "complete";
  case Status::Incomplete: return "incomplete";
  case Status::NotBegun: return "not begun";
  case Status::EndedByOperator: break;
  }
  return "ended by the operator";
}

} // namespace

void give_reason(const Where &where, const Failure &failure) {
  const std::string line = reason_line(where, failure);
  std::fflush(stdout); // both may be one terminal
  std::fprintf(stderr, "%s\n", line.c_str());
  emsg("%s", line.c_str());
}

void count_fault(Run &run, const Where &where, const Failure &failure) {
  if (!run.strict) return;
  ++run.outcome.faults;
  note_counts(run);
  give_reason(where, failure);
}

void count_failure(Run &run, const Where &where, const Failure &failure) {
  if (!run.strict) return;
  ++run.outcome.failures;
  note_counts(run);
  give_reason(where, failure);
}

void refuse_run(Run &run, const Where &where, const Failure &failure) {
  run.outcome.refused = true;
  give_reason(where, failure);
}

void count_long_line(Run &run, const std::string &file, std::size_t line, const char *section) {
  count_line(run, {file, line}, "The line is too long", section);
}

Faults fault_sink(Run &run) {
  return [&run](const Fault &fault) {
    log_fault(fault);
    if (fault.kind == FaultKind::LongLine) run.long_lines.emplace(fault.file, fault.line);
    if (!counts(fault)) return;
    if (fault.kind == FaultKind::Failed)
      count_fault(run, {fault.file, fault.line, fault.word}, fault.failure);
    else count_loaded(run, fault);
  };
}

Faults telling_sink(Run &run) {
  return [sink = fault_sink(run)](const Fault &fault) {
    sink(fault);
    const bool lost = fault.severity == Severity::Error && fault.kind == FaultKind::Binary;
    if (lost) std::printf("Error: %s\n", fault.text.c_str());
  };
}

bool must_end(const Run &run) {
  return run.outcome.refused || (run.strict && run.outcome.faults > 0);
}

Status exit_status(const Run &run) {
  const Outcome &outcome = run.outcome;
  if (outcome.refused) return Status::NotBegun;
  if (!run.strict) return Status::Complete;
  const bool whole = outcome.completed && outcome.failures == 0;
  if (outcome.began) return whole ? Status::Complete : Status::Incomplete;
  return outcome.ended && outcome.faults == 0 ? Status::EndedByOperator : Status::NotBegun;
}

void check_console(Run &run) {
  if (!run.strict) return;
  errno = 0;
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return;
  count_failure(run, {}, {"cannot write to the console", {}, last_cause()});
}

void note_place(const Run &run, const std::string &place) {
  if (!run.strict) return;
  const HeldSignals held;
  scpy(noted.place, place.c_str(), sizeof noted.place);
  noted.started = run.started;
  note_counts(run);
}

void tell_of_signal(int signal) {
  const auto number = static_cast<std::uint64_t>(signal);
  HandlerText text;
  text.add("Outcome ").add(128 + number).add(", ended by signal ").add(number);
  text.add(" ").add(noted.place).add(": ").add(noted.counts);
  const std::time_t seconds = std::max<std::time_t>(std::time(nullptr) - noted.started, 0);
  text.add(static_cast<std::uint64_t>(seconds)).add(" seconds");
  log_last_line(text.view());
}

void close_log(Run &run) {
  if (!run.strict) return;
  if (run.log->Lost) count_failure(run, {}, {"cannot write to the log", run.log->File, {}});
  const Status status = exit_status(run);
  const HeldSignals held; // the log says once how it ended
  imsg("Outcome %d, %s: %s%d seconds", static_cast<int>(status), status_words(status),
       counts_text(run.outcome).c_str(), static_cast<int>(std::time(nullptr) - run.started));
  log_set(nullptr); // what follows would open it again
  if (run.log->F && !finish(std::move(run.log->F)) && !run.log->Lost)
    count_failure(run, {}, {"cannot write to the log", run.log->File, last_cause()});
}

void memory_ran_out(Run &run) {
  std::printf("Error: Out of memory\n");
  emsg("Out of memory");
  if (run.strict) std::fprintf(stderr, "%s: Out of memory\n", or_empty(text_of(myname)));
  ++(run.outcome.began ? run.outcome.failures : run.outcome.faults);
}

} // namespace installer
