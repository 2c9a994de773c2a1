#include "check/flow.h"

#include "check/words.h"

#include <algorithm>
#include <array>

namespace installer::check {

namespace {

constexpr std::size_t MostValues = 8;
constexpr std::array<std::string_view, 4> own_settings = {"host", "system_dir", "current_dir",
                                                          "action"};

// ---- What a setting may hold ----

Known anything() { return {.value = {}, .values = {}, .open = true}; }

Known one_of(std::vector<std::string> values) { return {.value = {}, .values = std::move(values)}; }

Known exactly(const std::string &value) { return {.value = value, .values = {value}}; }

Known nothing() { return {.value = {}, .values = {}, .absent = true}; }

KnownPtr share(Known known) { return std::make_shared<const Known>(std::move(known)); }

bool is_setting(const Product &product, std::string_view name) {
  const auto setting = product.settings.find(name);
  return setting != product.settings.end() && setting->second.is_set();
}

/// The name of a setting behind `opener` and before `closer`, somewhere in the text.
WrongReference framed(const Product &product, std::string_view text, std::string_view opener,
                      std::string_view closer) {
  for (std::size_t at = 0; (at = text.find(opener, at)) != std::string_view::npos; ++at) {
    const std::string_view rest = text.substr(at + opener.size());
    const std::size_t end = closer.empty()
                                ? std::min(rest.find_first_of("/\\.,;:$ \t-"), rest.size())
                                : rest.find(closer);
    if (end == std::string_view::npos || end == 0) continue;
    const bool real = at > 0 && text[at - 1] == '$' && opener == "(";
    if (!real && is_setting(product, rest.substr(0, end)))
      return {rest.substr(0, end), text.substr(at, opener.size() + end + closer.size())};
  }
  return {};
}

struct Frame {
  const char *opener;
  const char *closer;
  bool in_prose; // it cannot be meant otherwise in a text for people
};
constexpr Frame frames[] = {
    {"${", "}", true },
    {"$[", "]", true },
    {"%(", ")", true },
    {"$",  "",  true },
    {"@",  "@", true },
    {"%",  "%", false},
    {"(",  ")", false},
    {"{",  "}", false},
};

/// The settings at a moment: those of a section lie over those that the init script left.
class State {
public:
  using Map = std::unordered_map<std::string_view, KnownPtr>;
  explicit State(const Map &below) : below_(below) {}

  [[nodiscard]] KnownPtr look(std::string_view name) const {
    if (const auto own = own_.find(name); own != own_.end()) return own->second;
    const auto under = below_.find(name);
    return under != below_.end() ? under->second : nullptr;
  }
  void put(std::string_view name, Known known) { own_[name] = share(std::move(known)); }
  Map take() { return std::move(own_); }

private:
  const Map &below_;
  Map own_;
};

void join_values(Known &known, const Known &other) {
  known.open = known.open || other.open;
  known.absent = known.absent || other.absent;
  known.can_be_empty = known.can_be_empty || other.can_be_empty;
  for (const std::string &value : other.values)
    if (std::find(known.values.begin(), known.values.end(), value) == known.values.end())
      known.values.push_back(value);
  if (known.values.size() > MostValues) known.open = true;
  if (known.open) known.values.clear();
}

/// The setting receives `next`; with `maybe` it may also stay as it is.
void receive(State &state, std::string_view name, Known next, bool maybe) {
  if (maybe) {
    const KnownPtr before = state.look(name);
    const Known kept = before ? *before : nothing();
    next.value = kept.value;
    join_values(next, kept);
  }
  state.put(name, std::move(next));
}

// ---- Steps ----

/// The name in a word that is nothing but a reference; else the word.
std::string_view bare_name(std::string_view word) {
  const bool wrapped =
      word.size() > 3 && word.starts_with("$(") && word.find(')') == word.size() - 1;
  return wrapped ? word.substr(2, word.size() - 3) : word;
}

/// Makes the uses of one step from the words of its line.
class Builder {
public:
  Builder(const std::string &file, std::size_t line, std::uint32_t type, std::size_t index,
          const State &state)
      : step_{&file, line, type, static_cast<std::uint32_t>(index), {}}, state_(state) {}

  Builder &use(Role role, const char *text) {
    if (text == nullptr) return *this;
    const bool name = role >= Role::Result && role != Role::Exclusions;
    const std::string_view word = name ? bare_name(text) : text;
    step_.uses.push_back(
        {role, word, name ? state_.look(word) : nullptr, true, name && word.data() != text});
    return *this;
  }
  /// A text whose references are replaced.
  Builder &text(Role role, const char *text) {
    if (text == nullptr) return *this;
    step_.uses.push_back({role, text, nullptr});
    for (const Reference &reference : references(text))
      step_.uses.push_back(
          {Role::Reference, reference.name, state_.look(reference.name), reference.closed});
    return *this;
  }
  Step take() { return std::move(step_); }

private:
  Step step_;
  const State &state_;
};

// ---- The init script ----

struct InitRole {
  InitOperand operand;
  Role role;
};
constexpr InitRole init_roles[] = {
    {InitOperand::Path,    Role::Path  },
    {InitOperand::Result,  Role::Result},
    {InitOperand::Missing, Role::Result},
    {InitOperand::Format,  Role::Source},
    {InitOperand::Value,   Role::Word  },
};

void use_operand(Builder &builder, InitOperand operand, const std::string &text) {
  for (const InitRole &row : init_roles) {
    if (row.operand != operand) continue;
    if (row.role == Role::Path) builder.text(row.role, text.c_str());
    else builder.use(row.role, text.c_str());
  }
}

Known value_of_word(const State &state, const std::string &word) {
  const KnownPtr known = state.look(word);
  if (known == nullptr) return exactly(word);
  Known copied = *known;
  if (known->absent) join_values(copied, exactly(word));
  copied.absent = false;
  return copied;
}

void run_item(State &state, const init_item &item) {
  const bool gated = item.compare.has_value();
  switch (item.mode) {
  case IExist: receive(state, bare_name(item.b), one_of({"true", "false"}), gated); break;
  case ICopy: receive(state, bare_name(item.a), value_of_word(state, item.b), gated); break;
  case ITimeDate: receive(state, bare_name(item.b), anything(), gated); break;
  case IRFile: receive(state, bare_name(item.b), anything(), true); break;
  case IWFile: break;
  default:
    receive(state, bare_name(item.a), anything(), true);
    receive(state, bare_name(item.b), one_of({"true"}), true);
  }
}

Step item_step(const Product &product, const init_item &item, std::size_t index,
               const State &state) {
  Builder builder{product.init_file, item.line, item.mode, index, state};
  for (const InitCommand &command : init_commands()) {
    if (command.mode != item.mode) continue;
    use_operand(builder, command.a, item.a);
    use_operand(builder, command.b, item.b);
  }
  return builder.use(Role::Control, text_of(item.control))
      .use(Role::Compare, text_of(item.compare))
      .take();
}

void trace_init(Product &product, State &state) {
  std::size_t index = 0;
  for (IItem item = init_get_num(product.init.get(), 0); item != nullptr;
       item = init_get(product.init.get())) {
    product.init_steps.push_back(item_step(product, *item, index++, state));
    run_item(state, *item);
  }
}

// ---- Questions ----

Text yes_or_no(const char *value) {
  if (istrue(value) != 0) return "true";
  return isfalse(value) != 0 ? Text{"false"} : Text{};
}

Known answer_to(const Product &product, const State &state, const Quest &entry) {
  const KnownPtr before = state.look(text_of(entry.setting));
  Known answer = has(entry.type, QYN) ? one_of({"true", "false"}) : anything();
  if (before != nullptr) answer.value = before->value;
  if (has(entry.type, QYN)) answer.value = yes_or_no(text_of(answer.value));
  const auto setting = product.settings.find(text_of(entry.setting));
  const bool in_data = setting != product.settings.end() && setting->second.data != nullptr;
  answer.can_be_empty = !in_data && !has(entry.type, QYN) && !has(entry.type, QExist);
  return answer;
}

void run_entry(const Product &product, State &state, const Quest &entry) {
  const std::string_view setting = bare_name(text_of(entry.setting));
  if (entry.type == QXExist) return receive(state, setting, one_of({"true", "false"}), false);
  if (entry.type == QError || entry.type == QLoop) return;
  if (entry.type != QCopy)
    return receive(state, setting, answer_to(product, state, entry), entry.control.has_value());
  const KnownPtr source = state.look(bare_name(text_of(entry.text)));
  if (source == nullptr) return;
  Known copied = *source;
  copied.absent = false;
  receive(state, setting, std::move(copied), source->absent);
}

Step entry_step(const Product &product, const Quest &entry, std::size_t index, bool expands,
                const State &state) {
  Builder builder{product.quest_file, entry.line, entry.type, index, state};
  const char *setting = text_of(entry.setting);
  const char *text = text_of(entry.text);
  if (entry.type == QXExist) builder.text(Role::Path, text).use(Role::Result, setting);
  else if (entry.type == QLoop) builder.use(Role::Decision, setting);
  else if (entry.type == QCopy) builder.use(Role::Result, setting).use(Role::Source, text);
  else if (entry.type == QError && expands)
    builder.use(Role::Decision, setting).text(Role::Shown, text);
  else if (entry.type == QError) builder.use(Role::Decision, setting).use(Role::Literal, text);
  else builder.use(Role::Result, setting).text(Role::Shown, text);
  return builder.use(Role::Control, text_of(entry.control))
      .use(Role::Compare, text_of(entry.control_cmp))
      .take();
}

void trace_questions(const Product &product, QuestSection &section, State &state) {
  const bool expands = s_stricmp(section.name.c_str(), "upgrade") == 0;
  for (const Quest &entry : section.owner->list) {
    section.steps.push_back(entry_step(product, entry, section.steps.size(), expands, state));
    if (const Use *result = use_of(section.steps.back(), Role::Result))
      section.sets.insert(result->text);
    run_entry(product, state, entry);
  }
}

// ---- Copy commands ----

struct OperandRole {
  Operand operand;
  Role role;
  bool replaced;
};
constexpr OperandRole operand_roles[] = {
    {Operand::Pattern,     Role::Path,       true },
    {Operand::Bounded,     Role::Path,       true },
    {Operand::Path,        Role::Path,       true },
    {Operand::Directories, Role::Place,      true },
    {Operand::Owner,       Role::Owner,      true },
    {Operand::Mode,        Role::Mode,       true },
    {Operand::Exclusions,  Role::Exclusions, false},
    {Operand::Decision,    Role::Decision,   false},
    {Operand::Result,      Role::Result,     false},
};

/// The references are those of the moment when the section is loaded, all else is looked up when
/// the command runs.
Step command_step(const Product &product, const CCmd &command, std::size_t index,
                  const State &loaded, const State &state) {
  Builder before{product.copy_file, command.line, static_cast<std::uint32_t>(command.type), index,
                 loaded};
  Builder then{product.copy_file, command.line, 0, index, state};
  for (const CopySlot &slot : copy_command(command.type).slots) {
    const char *text = text_of(command.*slot.field);
    if (slot.operand == Operand::Value && has_reference(or_empty(text)))
      before.text(Role::Written, text);
    else if (slot.operand == Operand::Value) then.use(Role::Word, text);
    for (const OperandRole &row : operand_roles) {
      if (row.operand != slot.operand) continue;
      if (row.replaced) before.text(row.role, text);
      else then.use(row.role, text);
    }
  }
  if (command.type == CType::Error) before.text(Role::Shown, text_of(command.dest));
  then.use(Role::Control, text_of(command.control))
      .use(Role::Compare, text_of(command.control_cmp));
  Step step = before.take();
  for (Use &use : then.take().uses) step.uses.push_back(std::move(use));
  return step;
}

void run_command(State &state, const CCmd &command) {
  const bool gated = command.control.has_value();
  if (command.type == CType::Exist)
    receive(state, bare_name(text_of(command.dest)), one_of({"true", "false"}), gated);
  if (command.type == CType::RFile)
    receive(state, bare_name(text_of(command.dest)), anything(), true);
}

void trace_commands(const Product &product, CopySection &section, State state) {
  const State loaded = state;
  for (const CCmd &command : section.owner->list) {
    section.steps.push_back(command_step(product, command, section.steps.size(), loaded, state));
    if (const Use *result = use_of(section.steps.back(), Role::Result))
      section.sets.insert(result->text);
    run_command(state, command);
  }
}

// ---- Who sets, who reads ----

Traffic &traffic(Product &product, std::string_view name) { return product.settings[name]; }

void note_data(Product &product) {
  for (const std::string_view name : own_settings) traffic(product, name).own = true;
  for (DataLine &line : product.data) {
    Traffic &setting = traffic(product, line.name);
    line.repeated = setting.data != nullptr;
    if (!line.repeated) setting.data = &line;
  }
}

void note_setters(Product &product) {
  for (const Step &step : product.init_steps)
    for (const Use &use : step.uses)
      if (use.role == Role::Result) traffic(product, use.text).init = true;
  for (const QuestSection &section : product.questions)
    for (const std::string_view name : section.sets)
      if (traffic(product, name).asked == nullptr)
        traffic(product, name).asked = section.name.c_str();
  for (const CopySection &section : product.scripts)
    for (const std::string_view name : section.sets) traffic(product, name).copied = true;
}

void note_reader(Product &product, Role role, std::string_view name) {
  const bool names = role == Role::Reference || role == Role::Source || role == Role::Decision ||
                     role == Role::Control;
  const bool may_name = role == Role::Word || role == Role::Compare;
  if (names) ++traffic(product, name).reads;
  const auto found = may_name ? product.settings.find(name) : product.settings.end();
  if (found != product.settings.end()) ++found->second.reads;
}

/// What is not a reference, but was meant for one.
void note_wrong(Product &product, std::string_view text, bool prose) {
  note_reader(product, Role::Word, wrong_reference_in(product, text, prose).name);
  for (const Reference &reference : references(text))
    if (!reference.closed)
      note_reader(product, Role::Word,
                  reference.name.substr(0, reference.name.find_first_of("/ \t")));
}

void note_readers_of(Product &product, const std::vector<Step> &steps) {
  for (const Step &step : steps)
    for (const Use &use : step.uses) {
      note_reader(product, use.role, use.text);
      if (use.role < Role::Literal) note_wrong(product, use.text, use.role == Role::Shown);
    }
}

/// References between values of the data file ignore letter case.
void note_data_readers(Product &product) {
  std::unordered_map<std::string_view, Traffic *, FoldedName, FoldedName> folded;
  for (const DataLine &line : product.data) folded.emplace(line.name, &traffic(product, line.name));
  for (const DataLine &line : product.data)
    note_wrong(product, or_empty(text_of(line.value)), true);
  for (const DataLine &line : product.data)
    for (const Reference &reference : references(or_empty(text_of(line.value)))) {
      const auto found = folded.find(reference.name);
      ++(found != folded.end() ? *found->second : traffic(product, reference.name)).reads;
    }
}

void note_readers(Product &product) {
  for (const char *name : {"product", "action"}) // by the program
    if (const auto found = product.settings.find(name); found != product.settings.end())
      ++found->second.reads;
  note_data_readers(product);
  note_readers_of(product, product.init_steps);
  for (const QuestSection &section : product.questions) note_readers_of(product, section.steps);
  for (const CopySection &section : product.scripts) note_readers_of(product, section.steps);
  for (const Template &text : product.templates)
    for (const TextLine &line : text.lines)
      for (const Reference &reference : references(line.text))
        note_reader(product, Role::Reference, reference.name);
}

/// Of a name that is read and not set, and a name like it that is set and not read, the one that
/// stands in fewer places is wrong, and the other one is no second fault.
void blame(Product &product) {
  for (auto &[name, setting] : product.settings) {
    if (setting.data != nullptr || setting.own || setting.init || setting.copied) continue;
    const auto meant = product.settings.find(product.names.find(name));
    if (meant == product.settings.end() || meant->second.reads > 0) continue;
    if (setting.asked != nullptr && (meant->second.asked != nullptr || setting.reads == 0))
      continue;
    (setting.reads > 1 || setting.asked != nullptr ? setting : meant->second).excused = true;
  }
}

/// A setting of the data file without a value, that something refers to before it has one.
void blame_empty(Product &product) {
  const auto look = [&](const Step &step) {
    for (const Use &use : step.uses) {
      const auto setting = product.settings.find(use.text);
      if (use.role != Role::Reference || setting == product.settings.end()) continue;
      const bool none = use.known == nullptr || (use.known->values.empty() && !use.known->open);
      if (!none || setting->second.data == nullptr || setting->second.init) continue;
      if (!setting->second.excused)
        product.empty_settings.emplace_back(setting->second.data, &step);
      setting->second.excused = true;
    }
  };
  std::for_each(product.init_steps.begin(), product.init_steps.end(), look);
  for (const QuestSection &section : product.questions)
    std::for_each(section.steps.begin(), section.steps.end(), look);
  for (const CopySection &section : product.scripts)
    std::for_each(section.steps.begin(), section.steps.end(), look);
}

Known start_of(const DataLine &line) {
  if (line.circular) return anything();
  return line.resolved ? exactly(*line.resolved) : nothing();
}

void note_start(Product &product) {
  product.start["host"] = share(anything());
  product.start["system_dir"] = share(exactly("/etc"));
  product.start["current_dir"] = share({.value = Here, .values = {}, .open = true});
  product.start["action"] = share(exactly("install"));
  for (const DataLine &line : product.data)
    if (!line.repeated) product.start.try_emplace(line.name, share(start_of(line)));
}

/// What the questions of each section leave behind; of two sections of a name the first is read.
struct Asked {
  const QuestSection *section;
  State state;
};
using States = std::unordered_map<std::string_view, Asked, FoldedName, FoldedName>;

States trace_all_questions(Product &product) {
  States states;
  for (QuestSection &section : product.questions) {
    State state{product.start};
    trace_questions(product, section, state);
    states.try_emplace(section.name, Asked{&section, std::move(state)});
  }
  return states;
}

} // namespace

void trace_settings(Product &product) {
  note_data(product);
  note_start(product);
  State state{product.start};
  trace_init(product, state);
  for (auto &[name, known] : state.take()) product.start[name] = std::move(known);
  const States states = trace_all_questions(product);
  for (CopySection &section : product.scripts) {
    const auto asked = states.find(section.name);
    if (asked != states.end()) section.questions = asked->second.section;
    trace_commands(product, section,
                   asked != states.end() ? asked->second.state : State{product.start});
  }
  note_setters(product);
}

void trace_readers(Product &product) {
  note_readers(product);
  for (const auto &[name, setting] : product.settings) {
    if (setting.is_set()) product.names.add(name);
    if (setting.reads > 0) product.read_names.add(name);
  }
  blame(product);
  blame_empty(product);
}

KnownPtr known_at_start(const Product &product, std::string_view name) {
  const auto found = product.start.find(name);
  return found != product.start.end() ? found->second : nullptr;
}

WrongReference wrong_reference_in(const Product &product, std::string_view text, bool prose) {
  for (const Frame &frame : frames) {
    if (prose && !frame.in_prose) continue;
    const WrongReference found = framed(product, text, frame.opener, frame.closer);
    if (!found.name.empty()) return found;
  }
  return {};
}

std::string not_set(const Product &product, std::string_view name) {
  const auto found = product.settings.find(name);
  if (found == product.settings.end() || !found->second.is_set())
    return "nothing sets " + quoted(name) + product.names.hint(name);
  const Traffic &setting = found->second;
  if (setting.data != nullptr) return quoted(name) + " has no value, and nothing here sets it";
  if (setting.asked != nullptr && !setting.init)
    return quoted(name) + " is set in [" + setting.asked + "] only";
  return quoted(name) + " is only set later";
}

} // namespace installer::check
