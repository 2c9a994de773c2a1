#pragma once

// What one run of the program knows, handed from function to function: no part of it is a variable
// of the process, so that several runs may follow one another. A strict run also counts here what
// failed, where it is known, and gives a reason for each on standard error.

#include "installer/answers.h"
#include "installer/fault.h"
#include "installer/ini.h"
#include "installer/log.h"

#include <cstdint>
#include <ctime>
#include <new>
#include <set>
#include <string>
#include <utility>

namespace installer {

/// The exit statuses of a strict run: the action was carried out completely; its copy script began
/// and something failed; nothing of the script ran because of a fault, or because the operator
/// ended the run before that.
enum class Status : int { Complete = 0, Incomplete = 1, NotBegun = 2, EndedByOperator = 3 };

/// What became of a run. `began`: the commands of a copy script were started; `completed`: none of
/// them stopped it. `failures`: what failed in and after it; `faults`: why it did not begin;
/// `refused`: the run could not begin whether it is strict or not; `ended`: the operator ended it.
/// `files` and `bytes` as the script counts them; `commands`: of it that ran.
struct Outcome {
  bool began = false;
  bool completed = false;
  bool refused = false;
  bool ended = false;
  std::uint32_t failures = 0;
  std::uint32_t faults = 0;
  std::uint32_t commands = 0;
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
};

/// Lines of files.
using FileLines = std::set<std::pair<std::string, std::size_t>>;

/// `log` and `ini` are lent by the caller, for the length of the run. `strict`: the run tells the
/// truth by its status. `answers`: what takes the place of defaults; `given`: the answers of this
/// run; `record`: the file that takes them, none for null. `long_lines`, `faulty_lines`: of the
/// product's files, those that come in pieces, and those of which a fault was counted. `started`:
/// when the run began.
struct Run {
  Log log = nullptr;
  Ini ini = nullptr;
  Outcome outcome = {};
  bool strict = false;
  Answers answers = {};
  Text answers_file;
  Answers given = {};
  Text record;
  FileLines long_lines = {};
  FileLines faulty_lines = {};
  std::time_t started = std::time(nullptr);
};

/// Where a reason comes from. `file`: shown as a name when it is the product's; `line`: 0 for the
/// file as a whole; `keyword`: of the command, or the setting of the question; empty for none.
struct Where {
  std::string file;
  std::size_t line = 0;
  std::string keyword = {};
};

/// Writes "NAME: FILE:LINE: KEYWORD: what: path: reason" without what is empty, on standard error
/// and as an error into the log.
void give_reason(const Where &where, const Failure &failure);
/// Counts a fault for which the copy script must not begin, with its reason; in a run that is not
/// strict, nothing.
void count_fault(Run &run, const Where &where, const Failure &failure);
/// Counts something that failed while the script ran, or after it, likewise.
void count_failure(Run &run, const Where &where, const Failure &failure);
/// Ends a run that cannot begin, strict or not, with its reason.
void refuse_run(Run &run, const Where &where, const Failure &failure);

/// Counts the fault of a line that is too long to be read whole.
void count_long_line(Run &run, const std::string &file, std::size_t line, const char *section);
/// The sink for the faults of a product's files: the log, and what counts in a strict run, once for
/// each line.
[[nodiscard]] Faults fault_sink(Run &run);
/// The same for a file of which nobody else tells the console that it cannot be read: a zero byte,
/// which no look at the file shows, is told there.
[[nodiscard]] Faults telling_sink(Run &run);

/// True when the run is to end before it does anything more.
[[nodiscard]] bool must_end(const Run &run);
/// The exit status: `Complete`, or `NotBegun` for a refused run, when the run is not strict.
[[nodiscard]] Status exit_status(const Run &run);
/// Counts it as a failure when the console lost something.
void check_console(Run &run);
/// Where the run is, in a few words: what the log of a strict run says when a signal ends it.
void note_place(const Run &run, const std::string &place);
/// Says so, with the counts as they were last noted, in a signal handler.
void tell_of_signal(int signal);
/// Ends the log of a strict run with a line about the outcome and closes it; counts it as a failure
/// when it lost something.
void close_log(Run &run);
/// Tells that memory ran out, and counts it as a failure or fault.
void memory_ran_out(Run &run);

/// Does `work`; when memory runs out in it, tells so on the console and in the log. False: it did.
template <class Work> [[nodiscard]] bool within_memory(Run &run, Work work) {
  try {
    work();
    return true;
  } catch (const std::bad_alloc &) {
    memory_ran_out(run);
    return false;
  }
}

} // namespace installer
