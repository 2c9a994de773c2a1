#pragma once

// A product as the rules see it: what the loaders of its files delivered, and what follows from
// that. `check_product` (check.cpp) fills it, nothing changes it afterwards, and views and
// addresses into it last as long as it does.

#include "check/payload.h"
#include "check/words.h"

#include "installer/copy.h"
#include "installer/fault.h"
#include "installer/init.h"
#include "installer/quest.h"

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace installer::check {

// ---- Settings ----

/// What is known of a setting at one moment. `value`: what it holds in an unattended run on a
/// machine with nothing special, none when it has none or it depends on the machine; `values`: all
/// that it may hold, unless it is `open` (anything); `absent`: it may have no value; `fallible`: it
/// may hold the empty text; `result`: the copy script sets it while it runs.
struct Known {
  Text value;
  std::vector<std::string> values;
  bool open = false;
  bool absent = false;
  bool can_be_empty = false;
  bool result = false;
};
using KnownPtr = std::shared_ptr<const Known>;

struct DataLine;

/// Who sets and who reads a setting in all of the files. `data`, `init`, `asked`, `copied`: where
/// it is set (`asked`: the first section that does; `own`: by the program). `reads`: how often
/// something looks at it, other than the default of its own question. `excused`: a name that is
/// read and not set, or set and not read, for which another one is blamed.
struct Traffic {
  const DataLine *data = nullptr;
  bool own = false;
  bool init = false;
  bool copied = false;
  const char *asked = nullptr;
  std::size_t reads = 0;
  bool excused = false;

  [[nodiscard]] bool is_set() const {
    return data != nullptr || own || init || copied || asked != nullptr;
  }
};

/// A line of the data file, as it is meant. `written`: the name as it stands there, when that is
/// another, and `assigned`: a sign stands between name and value.  `resolved`: the value once its
/// references are replaced. A later line of a name that is known is `repeated`, and never seen.
struct DataLine {
  std::string name;
  Text value, resolved;
  std::size_t line = 0;
  bool repeated = false;
  bool assigned = false;
  bool circular = false;
};

// ---- Lines that do something ----

/// What a word of a line means. `Path`, `Place` (a directory to copy into), `Shown`, `Owner`,
/// `Mode`, `Written`: a text whose references are replaced; `Literal`: one whose references are
/// not; `Result`: a setting that is set; `Source`, `Decision`: one that must have been; `Word`: a
/// setting, or the word itself; `Control`, `Compare`; `Exclusions`: patterns.
enum class Role {
  Path,
  Place,
  Shown,
  Owner,
  Mode,
  Written,
  Literal,
  Result,
  Source,
  Decision,
  Word,
  Control,
  Compare,
  Exclusions,
};

/// True for a text in which references are replaced.
[[nodiscard]] constexpr bool is_replaced(Role role) { return role <= Role::Written; }
/// True for the name of a setting, or what is looked up as one.
[[nodiscard]] constexpr bool is_name(Role role) {
  return role >= Role::Result && role <= Role::Compare;
}
/// True for the path of a file or directory.
[[nodiscard]] constexpr bool is_path(Role role) {
  return role == Role::Path || role == Role::Place;
}

/// A setting that a text refers to, or a word names. `known`: what is known of it then; null:
/// nothing has set it. `closed`: the reference has its ")".
struct Named {
  std::string_view text;
  KnownPtr known;
  bool closed = true;
};

/// A word of a line. `operand`: of a script's command, what its keyword's row says; `known`: for
/// names as in `Named`; `wrapped`: a name is written as a reference; `references`: those of a text
/// whose references are replaced, from left to right.
struct Use {
  Role role;
  std::string_view text;
  KnownPtr known = {};
  bool wrapped = false;
  Operand operand = Operand::Value;
  std::vector<Named> references = {};
};

/// A line of the init script, of a section of questions or of copy commands. `type`: the
/// enumerator of its keyword; `deed`: of a script's command; `trees`: that also takes directories
/// with all that they hold; `index`: its number in its list, from 0.
struct Step {
  const std::string *file = nullptr;
  std::size_t line = 0;
  std::uint32_t type = 0;
  std::uint32_t index = 0;
  Deed deed = Deed::Reads;
  bool trees = false;
  std::vector<Use> uses = {};
};

/// The use of a role in a step, or null.
[[nodiscard]] inline const Use *use_of(const Step &step, Role role) {
  for (const Use &use : step.uses)
    if (use.role == role) return &use;
  return nullptr;
}

/// Calls `look` with each reference of a step, from left to right.
template <class Look> void each_reference(const Step &step, Look look) {
  for (const Use &use : step.uses)
    for (const Named &reference : use.references) look(reference);
}

// ---- What the copy script makes ----

/// What a copy command does in an unattended run on a machine without the product (or, but for
/// [install], with what [install] made).
struct Effect {
  std::size_t matches = 0;     // entries that its source finds
  bool unsure = true;          // it may find others, for it works on what only the machine has
  bool own = false;            // its source lies where only this product puts something
  bool in_folder = false;      // its source lies in the product's folder
  bool directories = false;    // some of what it finds, or below that, is a directory
  bool place_missing = false;  // where it puts something is not there, though the product's own
  bool made_later = false;     // and a later command makes that directory
  bool onto_directory = false; // a file is to be written where a directory stands
  bool nested = false;         // a directory is copied into one of its name
  std::string program;         // a file that it makes, a program that nothing makes executable
  std::string unfit;           // an entry of the folder that it cannot copy
  std::string left;            // something that it makes and [remove] leaves
};

// ---- Sections and files ----

using Names = std::unordered_set<std::string_view>;

/// `name`: as the section is run; `written`: as it stands in the file; `sets`: the settings that
/// its lines set; `questions`: the section of that name in the question file, or null.
struct QuestSection {
  std::string name, written;
  std::size_t line = 0;
  std::unique_ptr<questions, Release<quest_free>> owner;
  std::vector<Step> steps;
  Names sets;
};
struct CopySection {
  std::string name, written;
  std::size_t line = 0;
  std::unique_ptr<copy, Release<copy_free>> owner;
  std::vector<Step> steps;
  Names sets;
  const QuestSection *questions = nullptr;
  std::vector<Effect> effects; // one for each step
};

/// The test of the init script by which a product that is there is taken for installed, and the
/// command of [install] that makes what it looks at (none: null), and the last that makes anything.
struct Marker {
  const Step *test = nullptr;
  const Step *made = nullptr;
  const Step *last = nullptr;
};

/// A text whose references are replaced line by line: a template or the blurb. `lines`: those with
/// a reference; `program`: it begins with "#!"; `sections`: the copy sections that write it.
struct TextLine {
  std::size_t line;
  std::string text;
};
struct Template {
  std::string file;
  std::vector<TextLine> lines;
  bool program = false;
  bool blurb = false;
  std::vector<const CopySection *> sections;
};

/// A section header. `twice`: an earlier one has the same name, so nothing below it is read.
struct Header {
  const std::string *file;
  std::size_t line;
  std::string written;
  std::string meant; // the name that the rules take it for
  bool twice = false;
};

struct Product {
  std::string folder, name;
  std::string data_file, init_file, quest_file, copy_file, blurb_file;
  Payload payload;
  std::vector<DataLine> data;
  std::unique_ptr<init_s, Release<init_free>> init;
  std::vector<Step> init_steps;
  std::vector<QuestSection> questions;
  std::vector<CopySection> scripts;
  std::vector<Template> templates;
  std::vector<Marker> markers;
  std::vector<std::pair<const DataLine *, const Step *>> empty_settings; // and who refers to them
  std::vector<Header> headers;
  std::vector<Fault> faults;
  std::vector<Fault> bad_switches;
  std::unordered_map<std::string_view, Traffic> settings;
  std::unordered_map<std::string_view, KnownPtr> start; // after the init script
  Nearest names;                                        // of settings that are set
  Nearest read_names;                                   // of settings that are read
  bool whole = true;                                    // all files could be read
  bool dropped = false;                                 // lines are missing
};

/// Calls `look` with each step of the init script, the questions and the copy script.
template <class Look> void each_step(const Product &product, Look look) {
  for (const Step &step : product.init_steps) look(step);
  for (const QuestSection &section : product.questions)
    for (const Step &step : section.steps) look(step);
  for (const CopySection &section : product.scripts)
    for (const Step &step : section.steps) look(step);
}

/// True for a fault of a line that is dropped, or not what it seems.
[[nodiscard]] bool drops_line(const Fault &fault);

} // namespace installer::check
