#include "check/steps.h"

#include "check/words.h"

#include "installer/actions.h"
#include "installer/shared.h"

#include <algorithm>
#include <utility>

namespace installer::check {

namespace {

constexpr std::size_t MostValues = 8;

// ---- What a setting may hold ----

Known anything() { return {.value = {}, .values = {}, .open = true}; }

Known one_of(std::vector<std::string> values) { return {.value = {}, .values = std::move(values)}; }

Known exactly(const std::string &value) { return {.value = value, .values = {value}}; }

Known nothing() { return {.value = {}, .values = {}, .absent = true}; }

KnownPtr share(Known known) { return std::make_shared<const Known>(std::move(known)); }

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

// ---- Words ----

/// What the words of scripts mean. `Format` names a setting that is read.
struct OperandRole {
  Operand operand;
  Role role;
};
constexpr OperandRole operand_roles[] = {
    {Operand::Pattern,     Role::Path      },
    {Operand::Bounded,     Role::Path      },
    {Operand::Path,        Role::Path      },
    {Operand::Directories, Role::Place     },
    {Operand::Exclusions,  Role::Exclusions},
    {Operand::Owner,       Role::Owner     },
    {Operand::Mode,        Role::Mode      },
    {Operand::Value,       Role::Word      },
    {Operand::Decision,    Role::Decision  },
    {Operand::Result,      Role::Result    },
    {Operand::Format,      Role::Source    },
    {Operand::Missing,     Role::Result    },
    {Operand::Message,     Role::Shown     },
};

Role role_of(Operand operand) {
  const auto row = std::find_if(std::begin(operand_roles), std::end(operand_roles),
                                [=](const OperandRole &x) { return x.operand == operand; });
  return row->role;
}

/// Makes the uses of one step from the words of its line. `loaded`: the settings when the section
/// was loaded, and its references were replaced; `now`: when the line is carried out.
class Builder {
public:
  Builder(Step step, const State &loaded, const State &now)
      : step_(std::move(step)), loaded_(loaded), now_(now) {}

  Builder &word(Role role, const char *text, Operand operand = Operand::Value) {
    if (text == nullptr) return *this;
    const std::string_view word = is_name(role) ? bare_name(text) : text;
    step_.uses.push_back({role, word, is_name(role) ? now_.look(word) : nullptr,
                          is_name(role) && word.data() != text, operand});
    return *this;
  }
  /// A text whose references are replaced.
  Builder &text(Role role, const char *text, Operand operand = Operand::Value) {
    if (text == nullptr) return *this;
    Use use{.role = role, .text = text, .operand = operand};
    for (const Reference &reference : references(text))
      use.references.push_back({reference.name, loaded_.look(reference.name), reference.closed});
    step_.uses.push_back(std::move(use));
    return *this;
  }
  Builder &operand(Operand operand, const char *text) {
    const Role role = role_of(operand);
    return is_replaced(role) ? this->text(role, text, operand) : word(role, text, operand);
  }
  Builder &gate(const char *control, const char *compare) {
    return word(Role::Control, control).word(Role::Compare, compare);
  }
  Step take() { return std::move(step_); }

private:
  Step step_;
  const State &loaded_;
  const State &now_;
};

// ---- The init script ----

Known value_of_word(const State &state, const std::string &word) {
  const KnownPtr known = state.look(word);
  if (known == nullptr) return exactly(word);
  Known copied = *known;
  if (known->absent) join_values(copied, exactly(word));
  copied.absent = false;
  return copied;
}

/// What a setting holds that a command of this kind has set. `maybe`: or what it held before.
Known result_of(const State &state, const InitCommand &command, const init_item &item,
                bool &maybe) {
  switch (command.deed) {
  case Deed::Tests: return one_of({"true", "false"});
  case Deed::Copies: return value_of_word(state, item.b);
  case Deed::Reads: maybe = true; break;
  case Deed::Fills:
  case Deed::Writes:
  case Deed::Makes:
  case Deed::Moves:
  case Deed::Removes:
  case Deed::Changes:
  case Deed::Stops: break;
  }
  return anything();
}

void run_item(State &state, const InitCommand &command, const init_item &item) {
  bool maybe = item.compare.has_value();
  for (const auto &[operand, word] : {
           std::pair{command.a, &item.a},
           {command.b, &item.b}
  }) {
    if (operand == Operand::Missing) receive(state, bare_name(*word), one_of({"true"}), true);
    if (operand != Operand::Result) continue;
    Known result = result_of(state, command, item, maybe);
    receive(state, bare_name(*word), std::move(result), maybe);
  }
}

Step item_step(const Product &product, const InitCommand &command, const init_item &item,
               const State &state) {
  const auto index = static_cast<std::uint32_t>(product.init_steps.size());
  return Builder{
      {&product.init_file, item.line, item.mode, index, command.deed},
      state, state
  }
      .operand(command.a, item.a.c_str())
      .operand(command.b, item.b.c_str())
      .gate(text_of(item.control), text_of(item.compare))
      .take();
}

void trace_init(Product &product, State &state) {
  for (IItem item = init_get_num(product.init.get(), 0); item != nullptr;
       item = init_get(product.init.get())) {
    const InitCommand &command = *init_command(item->mode);
    product.init_steps.push_back(item_step(product, command, *item, state));
    run_item(state, command, *item);
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
  Builder builder{
      {&product.quest_file, entry.line, entry.type, static_cast<std::uint32_t>(index)},
      state,
      state
  };
  const char *setting = text_of(entry.setting);
  const char *text = text_of(entry.text);
  if (entry.type == QXExist) builder.text(Role::Path, text).word(Role::Result, setting);
  else if (entry.type == QLoop) builder.word(Role::Decision, setting);
  else if (entry.type == QCopy) builder.word(Role::Result, setting).word(Role::Source, text);
  else if (entry.type == QError && expands)
    builder.word(Role::Decision, setting).text(Role::Shown, text);
  else if (entry.type == QError) builder.word(Role::Decision, setting).word(Role::Literal, text);
  else builder.word(Role::Result, setting).text(Role::Shown, text);
  return builder.gate(text_of(entry.control), text_of(entry.control_cmp)).take();
}

void trace_questions(const Product &product, QuestSection &section, State &state) {
  const bool expands = action_of_section(section.name.c_str()).expand_error;
  for (const Quest &entry : section.owner->list) {
    section.steps.push_back(entry_step(product, entry, section.steps.size(), expands, state));
    if (const Use *result = use_of(section.steps.back(), Role::Result))
      section.sets.insert(result->text);
    run_entry(product, state, entry);
  }
}

// ---- Copy commands ----

Step command_step(const Product &product, const CCmd &command, std::size_t index,
                  const State &loaded, const State &now) {
  const CopyCommand &row = copy_command(command.type);
  Builder builder{
      {&product.copy_file, command.line, static_cast<std::uint32_t>(command.type),
       static_cast<std::uint32_t>(index), row.deed, row.trees},
      loaded,
      now
  };
  for (const CopySlot &slot : row.slots) {
    const char *text = text_of(command.*slot.field);
    const bool written = slot.operand == Operand::Value && has_reference(or_empty(text));
    if (written) builder.text(Role::Written, text);
    else builder.operand(slot.operand, text);
  }
  return builder.gate(text_of(command.control), text_of(command.control_cmp)).take();
}

void run_command(State &state, const Step &step) {
  const Use *result = use_of(step, Role::Result);
  if (result == nullptr) return;
  const bool tests = step.deed == Deed::Tests;
  receive(state, result->text, tests ? one_of({"true", "false"}) : anything(),
          !tests || use_of(step, Role::Control) != nullptr);
}

void trace_commands(const Product &product, CopySection &section, State state) {
  const State loaded = state;
  for (const CCmd &command : section.owner->list) {
    section.steps.push_back(command_step(product, command, section.steps.size(), loaded, state));
    if (const Use *result = use_of(section.steps.back(), Role::Result))
      section.sets.insert(result->text);
    run_command(state, section.steps.back());
  }
}

// ---- The product ----

Known start_of(const DataLine &line) {
  if (line.circular) return anything();
  return line.resolved ? exactly(*line.resolved) : nothing();
}

Known start_of(const OwnSetting &own) {
  char value[LineSize];
  if (own.differs == Differs::WithFolder) return {.value = Here, .values = {}, .open = true};
  if (own.differs == Differs::WithMachine) return anything();
  own.read(value, sizeof value);
  return exactly(value);
}

void note_start(Product &product) {
  for (const OwnSetting &own : own_settings()) product.start[own.name] = share(start_of(own));
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

std::string_view bare_name(std::string_view word) {
  const bool wrapped =
      word.size() > 3 && word.starts_with("$(") && word.find(')') == word.size() - 1;
  return wrapped ? word.substr(2, word.size() - 3) : word;
}

void make_steps(Product &product) {
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
}

} // namespace installer::check
