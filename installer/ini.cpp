#include "installer/ini.h"

#include "installer/log.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

namespace installer {

namespace {

constexpr std::int32_t TableStep = 5;
constexpr int MostRewrites = 1000;
constexpr std::size_t LongestPath = 4096;
constexpr const char *Opener = "$(";
constexpr std::size_t OpenerLength = 2;

std::size_t at(std::int32_t index) { return static_cast<std::size_t>(index); }

/// The value behind a key of an index, or -1.
template <class Index> std::int32_t find_in(const Index &index, const char *name) {
  const auto found = index.find(name);
  return found != index.end() ? found->second : -1;
}

/// The first setting of that name, or -1.
std::int32_t find_setting(Ini x, const char *name) { return find_in(x->index, name); }

/// The value list takes the copy over.
void insert_value(Linklist<std::string> values, std::unique_ptr<std::string> copy) {
  if (list_add(values, copy.get()) != 0) static_cast<void>(copy.release());
}

/// Appends the item of the next setting to the store's data, and its name to the indexes unless an
/// earlier setting has it; false when memory is out.
bool add_item(Ini x, const char *name, const char *value) {
  auto item = std::make_unique<Item>();
  if (value != nullptr) insert_value(item->values, std::make_unique<std::string>(value));
  if (array_add(x->data, item.get()) == 0) return false;
  static_cast<void>(item.release());
  x->index.emplace(name, x->items);
  x->folded_index.emplace(name, x->items);
  return true;
}

SettingMode new_mode(IniMode mode) {
  const struct {
    IniMode rule;
    SettingMode flag;
  } rows[] = {
      {Ini_NewMulti, Ini_Multi},
      {Ini_NewPass,  Ini_Pass },
      {Ini_NewFixed, Ini_Fixed},
      {Ini_NewEmpty, Ini_Empty},
      {Ini_NewLock,  Ini_Lock },
  };
  SettingMode flags = Ini_None;
  for (const auto &row : rows)
    if (has(mode, row.rule)) flags = flags | row.flag;
  return flags;
}

bool enlarge_table(Ini x) {
  try {
    // `size` grows in fixed steps; the memory behind it grows geometrically.
    x->list.resize(at(x->size + TableStep));
  } catch (const std::bad_alloc &) {
    emsg("Memory allocation error");
    return false;
  }
  x->size += TableStep;
  return true;
}

int create_setting(Ini x, const char *name, const char *value) {
  if (!has(x->mode, Ini_NewEmpty) && *value == '\0') return -1;
  if (x->size == x->items + 1 && !enlarge_table(x)) return 0;
  SettingList entry{name, {}, new_mode(x->mode)};
  if (!add_item(x, name, value)) return 0;
  x->list[at(x->items)] = std::move(entry);
  dmsg("Ini setting '%s' created and set to '%s'", name, value);
  ++x->items;
  return 1;
}

int do_add(Ini x, std::int32_t index, const char *value) {
  const SettingList &entry = x->list[at(index)];
  if (has(x->mode, Ini_UseFixed) && has(entry.mode, Ini_Fixed)) {
    dmsg("Ini value for '%s' not addded, value is fixed", text_of(entry.setting));
    return -1;
  }
  if (*value == '\0' && has(x->mode, Ini_UseEmpty) && !has(entry.mode, Ini_Empty)) {
    dmsg("Ini value for '%s' not added, value was empty", text_of(entry.setting));
    return -1;
  }
  Linklist<std::string> values = x->data->slot(index)->values;
  // Copied first: memory may be out, and the value may be the very text that is removed here.
  auto copy = std::make_unique<std::string>(value);
  std::unique_ptr<std::string> removed;
  if (has(x->mode, Ini_UseMulti) && !has(entry.mode, Ini_Multi)) removed.reset(list_del(values));
  insert_value(values, std::move(copy));
  dmsg("Ini value for '%s' set to '%s'", text_of(entry.setting), value);
  return 1;
}

/// A "$(name)" in a text. `name` is cut at 999 characters; `closed`: a ")" stands behind it.
struct Reference {
  char name[LineSize];
  const char *end;
  bool closed;
};

Reference read_reference(const char *opener) {
  const char *name = opener + OpenerLength;
  const std::size_t length = std::min(std::strcspn(name, ")"), LineSize - 1);
  const char *end = name + length;
  Reference reference;
  scpy(reference.name, name, length + 1);
  reference.end = *end == '\0' ? end : end + 1;
  reference.closed = *end == ')';
  return reference;
}

/// What a reference to setting `index` stands for while stored values are rewritten.
const char *replacement(Ini x, std::int32_t index) {
  return has(x->list[at(index)].mode, Ini_Replace) ? ini_value(x, index) : nullptr;
}

// ---- Where references lead ----

/// The setting that the reference at `opener` is replaced by, or -1: unknown or not closed.
std::int32_t referred(Ini x, const Reference &reference) {
  const bool fits = std::strlen(reference.name) + OpenerLength + 1 < LineSize;
  return reference.closed && fits ? find_in(x->folded_index, reference.name) : -1;
}

/// Where the references of the stored values lead, before any is replaced. Found by a walk in depth
/// that keeps its own stack, for there may be as many settings in a row as the file has lines.
class Paths {
public:
  explicit Paths(Ini x) : x_(x), known_(at(x->items), Known::Nothing) {
    for (std::int32_t i = 0; i < x->items; ++i) walk(i);
  }
  /// True when references to the setting stay as they are: it leads into a circle.
  [[nodiscard]] bool endless(std::int32_t index) const {
    return known_[at(index)] == Known::Endless;
  }
  /// All settings, each behind those that it refers to, but for circles.
  [[nodiscard]] const std::vector<std::int32_t> &order() const { return order_; }

private:
  enum class Known { Nothing, Open, Ends, Endless };
  struct Step {
    std::int32_t index;
    const char *upto;
    Known found = Known::Ends;
  };

  void push(std::int32_t index) {
    known_[at(index)] = Known::Open;
    steps_.push_back({index, or_empty(replacement(x_, index))});
  }
  /// A setting that is met while it is open is part of a circle, and so is all between.
  void add(Known found) {
    if (found != Known::Ends) steps_.back().found = Known::Endless;
  }
  void pop() {
    const Step step = steps_.back();
    known_[at(step.index)] = step.found;
    order_.push_back(step.index);
    steps_.pop_back();
    if (!steps_.empty()) add(step.found);
  }
  void visit(std::int32_t index) {
    if (known_[at(index)] == Known::Nothing) push(index);
    else add(known_[at(index)]);
  }
  void walk(std::int32_t first) {
    if (known_[at(first)] == Known::Nothing) push(first);
    while (!steps_.empty()) {
      const char *opener = std::strstr(steps_.back().upto, Opener);
      if (opener == nullptr) {
        pop();
        continue;
      }
      steps_.back().upto = opener + 1;
      const std::int32_t index = referred(x_, read_reference(opener));
      if (index >= 0) visit(index);
    }
  }

  Ini x_;
  std::vector<Known> known_;
  std::vector<std::int32_t> order_;
  std::vector<Step> steps_;
};

enum class Rewrite { Done, Changed, Stuck };

/// Replaces the first reference in `value` that can be resolved, everywhere it stands.
Rewrite rewrite_once(Ini x, const Paths &paths, std::string &value) {
  Rewrite outcome = Rewrite::Done;
  const char *upto = value.c_str();
  while ((upto = std::strstr(upto, Opener)) != nullptr) {
    const Reference reference = read_reference(upto++);
    const std::int32_t index = referred(x, reference);
    if (index < 0) continue;
    if (paths.endless(index)) {
      outcome = Rewrite::Stuck;
      continue;
    }
    const std::string pattern = Opener + std::string{reference.name} + ")";
    const char *with = replacement(x, index);
    char rewritten[LineSize];
    sreplace(value.c_str(), pattern.c_str(), with, rewritten, sizeof rewritten);
    dmsg("Replaced '%s' in '%s' with '%s' = '%s'", pattern.c_str(), value.c_str(), with, rewritten);
    if (value == rewritten) return Rewrite::Stuck;
    value = rewritten;
    return Rewrite::Changed;
  }
  return outcome;
}

/// Resolves every stored value, in the order of the table. One that takes too many steps waits for
/// all others, which are then resolved before those that refer to them: so a row of settings takes
/// as many steps as it is long, however it stands in the table.
class Resolver {
public:
  Resolver(Ini x, const Faults &faults)
      : x_(x), faults_(faults), paths_(x), begun_(at(x->items), false) {}

  void resolve(std::int32_t index) {
    if (begun_[at(index)]) return;
    begun_[at(index)] = true;
    for (auto *value = x_->data->slot(index)->values->root->next; value != nullptr;
         value = value->next)
      resolve(index, *value->data);
  }

private:
  void resolve_all() {
    if (std::exchange(ordered_, true)) return;
    for (const std::int32_t index : paths_.order()) resolve(index);
  }

  Rewrite rewrite(std::string &value) {
    Rewrite outcome = Rewrite::Changed;
    for (int count = 0; outcome == Rewrite::Changed && count < MostRewrites; ++count)
      outcome = rewrite_once(x_, paths_, value);
    return outcome;
  }

  void resolve(std::int32_t index, std::string &value) {
    Rewrite outcome = rewrite(value);
    if (outcome == Rewrite::Changed) {
      resolve_all();
      outcome = rewrite(value);
    }
    if (outcome == Rewrite::Done) return;
    const SettingList &entry = x_->list[at(index)];
    faults_({Severity::Error,
             FaultKind::Circle,
             {},
             entry.line,
             "Setting '" + *entry.setting + "' is not resolved any further, its value stays '" +
                 value + "'",
             *entry.setting});
  }

  Ini x_;
  const Faults &faults_;
  Paths paths_;
  std::vector<bool> begun_;
  bool ordered_ = false;
};

} // namespace

std::size_t FoldedName::operator()(std::string_view name) const noexcept {
  // FNV-1a: sums of products, which are simpler, are alike for many names of one kind.
  std::uint64_t hash = 0xcbf29ce484222325;
  for (const char c : name) hash = (hash ^ charmap[static_cast<unsigned char>(c)]) * 0x100000001b3;
  return hash;
}

bool FoldedName::operator()(std::string_view a, std::string_view b) const noexcept {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char c, char d) {
    return charmap[static_cast<unsigned char>(c)] == charmap[static_cast<unsigned char>(d)];
  });
}

Ini ini_init() { return new ini; }

void ini_free(Ini *x) { drop(x); }

void ini_setup(Ini x, const SettingList *list, const void * /*assoc*/, int use_dflts) {
  if (x == nullptr || list == nullptr) return;
  std::int32_t count = 0;
  while (list[count].setting) ++count;
  x->list.assign(at(count + 1), SettingList{});
  for (std::int32_t i = 0; i < count; ++i) {
    x->list[at(i)].setting = list[i].setting;
    x->list[at(i)].mode = list[i].mode;
    x->list[at(i)].line = list[i].line;
    const char *value = use_dflts != 0 ? text_of(list[i].dflt) : nullptr;
    // A store that lacks some of its settings must not be worked with.
    if (!add_item(x, list[i].setting->c_str(), value)) throw std::bad_alloc{};
    dmsg("Ini setting '%s' setup", text_of(list[i].setting));
    ++x->items;
  }
  x->size = count + 1;
}

const char *ini_value_name(Ini x, const char *label) {
  if (x == nullptr || label == nullptr) return nullptr;
  return ini_value(x, find_setting(x, label));
}

const char *ini_value(Ini x, std::int32_t index) {
  if (x == nullptr || index < 0 || index >= x->items) return nullptr;
  Linklist<std::string> values = x->data->slot(index)->values;
  list_start(values);
  const std::string *value = list_get(values);
  return value != nullptr ? value->c_str() : nullptr;
}

const char *ini_value_or_text(Ini x, const char *text) {
  const char *value = ini_value_name(x, text);
  return value != nullptr ? value : text;
}

bool gate_allows(const char *value, const char *compare, Case letters) {
  if (value == nullptr) return true;
  if (compare == nullptr) return istrue(value) != 0;
  return (letters == Case::Counts ? s_strcmp(value, compare) : s_stricmp(value, compare)) == 0;
}

bool gate_open(Ini x, const char *control, const char *compare, Case letters) {
  const char *value = ini_value_name(x, control);
  const char *wanted = ini_value_or_text(x, compare);
  return gate_allows(value, wanted, letters);
}

int ini_add_name(Ini x, const char *name, const char *value) {
  if (x == nullptr || x->list.empty() || name == nullptr || value == nullptr) return 0;
  const std::int32_t index = find_setting(x, name);
  if (index >= 0) return do_add(x, index, value);
  return has(x->mode, Ini_UseNew) ? create_setting(x, name, value) : 0;
}

void ini_replace(Ini x, const char *string, char *result, std::size_t bfsz) {
  if (x == nullptr || string == nullptr || result == nullptr || bfsz == 0) return;
  const char *upto = string;
  std::size_t index = 0;
  while (const char *opener = std::strstr(upto, Opener)) {
    const auto literal = static_cast<std::size_t>(opener - upto);
    if (literal >= bfsz - index) break;
    std::memcpy(result + index, upto, literal);
    index += literal;
    const Reference reference = read_reference(opener);
    index += scpy(result + index, ini_value_name(x, reference.name), bfsz - index);
    upto = reference.end;
  }
  scpy(result + index, upto, bfsz - index);
}

int ini_replace_path(Ini x, const char *string, char *result, std::size_t bfsz) {
  char path[LongestPath];
  *path = '\0';
  ini_replace(x, string, path, sizeof path);
  const bool fits = std::strlen(path) < std::min(bfsz, sizeof path - 1);
  scpy(result, fits ? path : "", bfsz);
  if (!fits) errno = ENAMETOOLONG;
  return fits ? 1 : 0;
}

int ini_process(Ini x, const Faults &faults) {
  if (x == nullptr || x->list.empty()) return 0;
  dmsg("Processing replacable settings...");
  Resolver resolver{x, faults};
  for (std::int32_t i = 0; i < x->items; ++i) resolver.resolve(i);
  dmsg("Finished processing replacable settings");
  return 1;
}

} // namespace installer
