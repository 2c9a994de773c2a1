#include "check/effect.h"

#include "check/flow.h"
#include "check/tree.h"
#include "check/words.h"

#include "installer/lib.h"

#include <algorithm>
#include <cstring>
#include <unordered_set>

namespace installer::check {

namespace {

constexpr std::size_t MostSteps = 1'000'000;

/// The value of a setting, or of the one that a misspelt name was meant for.
Text value_meant(const Product &product, const Use &reference) {
  if (reference.known != nullptr) return reference.known->value;
  const KnownPtr meant = known_at_start(product, product.names.find(reference.text));
  return meant != nullptr ? meant->value : Text{};
}

/// A text that was meant for a reference: the name of a setting alone, or "${name}".
Text wrong_text(const Product &product, const Use &use) {
  const WrongReference wrong = wrong_reference_in(product, use.text, false);
  const bool path = use.role == Role::Path || use.role == Role::Place;
  const std::string_view name = wrong.name.empty() && path ? use.text : wrong.name;
  const KnownPtr known = known_at_start(product, name);
  if (known == nullptr || !known->value) return {};
  std::string text{use.text};
  const std::string_view whole = wrong.name.empty() ? use.text : wrong.whole;
  if (find_entry(product.payload, Here + ("/" + text)) != nullptr) return {};
  return text.replace(text.find(whole), whole.size(), *known->value);
}

/// A use with its references replaced; `known` when all of them have a value.
std::string replaced(const Product &product, const Step &step, const Use &use, bool &known) {
  if (!has_reference(use.text))
    if (const Text meant = wrong_text(product, use)) return *meant;
  std::string text;
  std::string_view rest = use.text;
  known = true;
  for (const Use *reference = &use + 1; reference != step.uses.data() + step.uses.size() &&
                                        reference->role == Role::Reference && reference->closed;
       ++reference) {
    const std::size_t opener = rest.find("$(");
    if (opener == std::string_view::npos) break; // a part of the text was given
    text += rest.substr(0, opener);
    const std::size_t end = opener + 2 + reference->text.size() + 1;
    const Text value = value_meant(product, *reference);
    const bool has_value = value.has_value();
    if (has_value) text += *value;
    else text += rest.substr(opener, end - opener);
    known = known && has_value;
    rest.remove_prefix(end);
  }
  return text + std::string{rest};
}

/// A path as the copy module splits it.
struct Split {
  std::string dir, wild;
};

Split split(const Product &product, const Step &step, const Use &use) {
  bool known = false;
  const std::string text = replaced(product, step, use, known);
  const char *separator = last_separator(text.c_str());
  if (separator != nullptr && separator[1] == '\0') return {plain_path(text, Here), "*"};
  const std::string path = plain_path(text, Here);
  return {std::string{parent_of(path)}, std::string{name_of(path)}};
}

bool is_in(std::string_view path, std::string_view dir) {
  return path.starts_with(dir) && (path.size() == dir.size() || path[dir.size()] == '/');
}

std::string joined(const std::string &dir, const std::string &name) {
  return dir.empty() || dir == "/" ? dir + name : dir + "/" + name;
}

bool is_listed(std::string_view name, const Use *list) {
  if (list == nullptr || list->text == "-") return false;
  return wild_ilist(std::string{name}.c_str(), std::string{list->text}.c_str()) != 0;
}

/// One section at work on a tree.
class Worker {
public:
  Worker(const Product &product, const std::unordered_set<std::string> &own, Tree &tree,
         bool removes)
      : product_(product), own_(own), tree_(tree), removes_(removes) {}

  void run(const Step &step, Effect &effect);

private:
  void copy(const Step &step, Effect &effect, bool trees);
  void copy_tree(const Step &step, const std::string &from, const std::string &to, Effect &effect);
  void copy_one(const Step &step, const std::string &from, const std::string &to, Effect &effect);
  void make(const Step &step);
  void write(const Step &step, Effect &effect, const Use &path, bool program);
  void fill(const Step &step, Effect &effect);
  void rename(const Step &step, Effect &effect);
  void remove(const Step &step, Effect &effect, bool trees);
  void change(const Step &step, Effect &effect, bool modes);
  std::vector<std::string> find(const Step &step, const Use &source, Effect &effect) const;
  [[nodiscard]] bool is_own(std::string_view path) const;
  void check_place(std::string_view place, Effect &effect) const;
  [[nodiscard]] TreeNode node(const Step &step, bool directory) const;

  const Product &product_;
  const std::unordered_set<std::string> &own_;
  Tree &tree_;
  bool removes_;
};

bool is_gated(const Step &step) { return use_of(step, Role::Control) != nullptr; }

TreeNode Worker::node(const Step &step, bool directory) const {
  return {.directory = directory, .made = true, .sure = !is_gated(step), .command = step.index};
}

bool Worker::is_own(std::string_view path) const {
  for (std::string_view at = path; at.size() > 1; at = parent_of(at))
    if (own_.contains(std::string{at})) return true;
  return false;
}

/// What a source finds, and whether that is all.
std::vector<std::string> Worker::find(const Step &step, const Use &source, Effect &effect) const {
  const Split at = split(product_, step, source);
  std::vector<std::string> found = tree_.match(at.dir, at.wild);
  const std::string path = joined(at.dir, at.wild);
  effect.in_folder = is_in(path, Here);
  effect.own = is_own(path);
  effect.unsure = !(effect.in_folder || effect.own) || tree_.is_open(path) || tree_.lost();
  return found;
}

/// Remembers a directory that must be there by now.
void Worker::check_place(std::string_view place, Effect &effect) const {
  if (place.size() <= 1 || tree_.find(place) != nullptr || tree_.lost()) return;
  const bool sure = is_in(place, Here) || is_own(place);
  effect.place = sure && !tree_.is_open(place);
  effect.place_later = own_.contains(std::string{place});
}

void Worker::copy_one(const Step &step, const std::string &from, const std::string &to,
                      Effect &effect) {
  const PayloadEntry *entry = find_entry(product_.payload, from);
  if (entry != nullptr && entry->kind != EntryKind::File && entry->kind != EntryKind::Dir &&
      effect.unfit.empty())
    effect.unfit = from;
  const TreeNode *source = tree_.find(from);
  TreeNode copied = node(step, source != nullptr && source->directory);
  copied.program = source != nullptr && source->program;
  tree_.put(to, copied);
}

void Worker::copy_tree(const Step &step, const std::string &from, const std::string &to,
                       Effect &effect) {
  const Use *exclusions = use_of(step, Role::Exclusions);
  std::string left_out;
  for (const std::string &path : tree_.below(from)) {
    if (!left_out.empty() && is_in(path, left_out)) continue;
    if (path != from && exclusions != nullptr && is_listed(name_of(path), exclusions)) {
      left_out = path;
      continue;
    }
    copy_one(step, path, to + path.substr(from.size()), effect);
  }
}

void Worker::copy(const Step &step, Effect &effect, bool trees) {
  const Use *source = use_of(step, Role::Path);
  const Use *place = use_of(step, Role::Place);
  if (source == nullptr || place == nullptr) return;
  const std::string to = path_of(product_, step, *place);
  if (!has_wildcard(std::string{name_of(to)}.c_str())) check_place(to, effect);
  for (const std::string &path : find(step, *source, effect)) {
    if (is_listed(name_of(path), use_of(step, Role::Exclusions))) continue;
    const bool directory = tree_.find(path)->directory;
    effect.directories = effect.directories || directory;
    if (directory && !trees) continue;
    ++effect.matches;
    const std::string target = to + "/" + std::string{name_of(path)};
    if (is_in(to, path)) continue; // into itself
    effect.nested = effect.nested || (directory && name_of(path) == name_of(to) &&
                                      !has_wildcard(std::string{source->text}.c_str()));
    if (directory) copy_tree(step, path, target, effect);
    else copy_one(step, path, target, effect);
  }
  if (!effect.unsure && effect.matches > 0) return;
  const TreeNode *there = tree_.find(to);
  tree_.put(to, there != nullptr ? *there : TreeNode{.directory = true}).open = true;
}

/// The directory, and those above it that the line itself names.
void Worker::make(const Step &step) {
  const Use *path = use_of(step, Role::Path);
  if (path == nullptr) return;
  tree_.put(path_of(product_, step, *path), node(step, true));
  // The line names its parents as well, but not those that are in the value of a setting.
  Step part = step;
  for (std::string_view text = parent_of(path->text); text.size() > 1 && has_reference(text);
       text = parent_of(text)) {
    part.uses[static_cast<std::size_t>(path - step.uses.data())].text = text;
    const std::string parent = path_of(product_, part, part.uses.front());
    const TreeNode *there = tree_.find(parent);
    if ((there == nullptr || !there->made) && own_.contains(parent))
      tree_.put(parent, node(step, true));
  }
}

void Worker::write(const Step &step, Effect &effect, const Use &path, bool program) {
  const std::string place = path_of(product_, step, path);
  check_place(parent_of(place), effect);
  if (const TreeNode *there = tree_.find(place)) effect.onto_directory = there->directory;
  TreeNode written = node(step, false);
  written.program = program;
  tree_.put(place, written);
}

void Worker::fill(const Step &step, Effect &effect) {
  const Use *source = use_of(step, Role::Path);
  const Use *target = nullptr;
  for (const Use &use : step.uses)
    if (use.role == Role::Path && &use != source) target = &use;
  if (target == nullptr) return;
  const std::vector<std::string> found = find(step, *source, effect);
  effect.matches = found.size();
  for (const std::string &path : found) {
    const PayloadEntry *entry = find_entry(product_.payload, path);
    if (entry != nullptr && entry->kind != EntryKind::File) effect.unfit = path;
  }
  write(step, effect, *target, !found.empty() && tree_.find(found.front())->program);
}

void Worker::rename(const Step &step, Effect &effect) {
  const Use *source = use_of(step, Role::Path);
  const Use *target = nullptr;
  for (const Use &use : step.uses)
    if (use.role == Role::Path && &use != source) target = &use;
  if (target == nullptr) return;
  effect.matches = find(step, *source, effect).size();
  const std::string from = path_of(product_, step, *source);
  const std::string to = path_of(product_, step, *target);
  check_place(parent_of(to), effect);
  if (is_in(to, from)) return;
  for (const std::string &path : tree_.below(from)) {
    TreeNode moved = *tree_.find(path);
    moved.command = step.index;
    if (!is_gated(step)) tree_.remove(path);
    tree_.put(to + path.substr(from.size()), moved);
  }
  if (effect.matches == 0) tree_.put(to, node(step, false)).open = true;
}

void Worker::remove(const Step &step, Effect &effect, bool trees) {
  const Use *source = use_of(step, Role::Path);
  if (source == nullptr) return;
  const bool stays = is_gated(step) && !removes_;
  for (const std::string &path : find(step, *source, effect)) {
    const bool directory = tree_.find(path)->directory;
    if (is_listed(name_of(path), use_of(step, Role::Exclusions)) || (directory && !trees)) continue;
    ++effect.matches;
    if (stays) continue;
    for (const std::string &gone : tree_.below(path))
      if (!is_listed(name_of(gone), use_of(step, Role::Exclusions)) || removes_) tree_.remove(gone);
  }
}

void Worker::change(const Step &step, Effect &effect, bool modes) {
  const Use *source = use_of(step, Role::Path);
  const Use *mode = use_of(step, Role::Mode);
  if (source == nullptr) return;
  const Text digits = modes && mode != nullptr ? value_of(product_, step, *mode) : Text{};
  const bool plain = digits && digits->find_first_not_of("01234567") == std::string::npos;
  const bool runs = !plain || (std::strtoul(digits->c_str(), nullptr, 8) & 0111) != 0;
  for (const std::string &path : find(step, *source, effect)) {
    if (is_listed(path, use_of(step, Role::Exclusions))) continue;
    ++effect.matches;
    for (const std::string &entry : tree_.below(path)) {
      TreeNode &changed = tree_.nodes().find(entry)->second;
      effect.directories = effect.directories || changed.directory;
      if (modes && runs) changed.executable = true;
    }
  }
}

/// A word of the line is in the wrong place, or it holds a reference that is not closed.
bool is_misread(const Step &step) {
  return std::any_of(step.uses.begin(), step.uses.end(), [](const Use &use) {
    const bool name = use.role == Role::Control || use.role == Role::Compare;
    return (name && has_reference(use.text)) || (use.role == Role::Reference && !use.closed) ||
           (use.role == Role::Place && use.text.find_first_of("/\\$") == std::string_view::npos);
  });
}

void Worker::run(const Step &step, Effect &effect) {
  if (is_misread(step)) tree_.lose();
  switch (static_cast<CType>(step.type)) {
  case CType::CpyFile: return copy(step, effect, false);
  case CType::CpyDir: return copy(step, effect, true);
  case CType::MkDir: return make(step);
  case CType::CpyIni: return fill(step, effect);
  case CType::Rename: return rename(step, effect);
  case CType::RmFile: return remove(step, effect, false);
  case CType::RmDir: return remove(step, effect, true);
  case CType::Chmod: return change(step, effect, true);
  case CType::Chown: return change(step, effect, false);
  case CType::WFile:
    if (const Use *path = use_of(step, Role::Path)) write(step, effect, *path, false);
    return;
  case CType::RFile:
    if (const Use *path = use_of(step, Role::Path))
      effect.matches = find(step, *path, effect).size();
    return;
  default: return;
  }
}

// ---- The product ----

using Own = std::unordered_set<std::string>;

/// A directory that a line names is the product's own, and so are those above it in the line.
void note_own(const Product &product, const Step &step, const Use &use, Own &own) {
  Step part{step.file, step.line, step.type, step.index, {}};
  std::string_view text = use.text;
  for (; text.size() > 1 && has_reference(text); text = parent_of(text)) {
    part.uses.assign(&use, step.uses.data() + step.uses.size());
    part.uses.front().text = text;
    own.insert(path_of(product, part, part.uses.front()));
  }
  if (!has_reference(use.text)) own.insert(path_of(product, step, use));
}

/// The sections of which lines were dropped.
using Broken = std::unordered_set<const CopySection *>;

Broken find_broken(const Product &product) {
  std::unordered_set<const CopySection *> broken;
  for (const Fault &fault : product.faults) {
    if (fault.file != product.copy_file || !drops_line(fault)) continue;
    const auto behind = std::upper_bound(
        product.scripts.begin(), product.scripts.end(), fault.line,
        [](std::size_t line, const CopySection &section) { return line < section.line; });
    if (behind != product.scripts.begin()) broken.insert(&*std::prev(behind));
  }
  return broken;
}

CopySection *section_of(Product &product, const char *name) {
  for (CopySection &section : product.scripts)
    if (s_stricmp(section.name.c_str(), name) == 0) return &section;
  return nullptr;
}

/// What an answer must already be is the operator's.
void drop_existing(const CopySection &install, Own &own) {
  if (install.questions == nullptr) return;
  for (const Step &step : install.questions->steps) {
    const Use *result = use_of(step, Role::Result);
    const bool there = step.type == QDirExist && result != nullptr && result->known != nullptr;
    if (there && result->known->value) own.erase(plain_path(*result->known->value, Here));
  }
}

Own find_own(Product &product) {
  Own own;
  const CopySection *install = section_of(product, "install");
  const CopySection *removal = section_of(product, "remove");
  if (install != nullptr)
    for (const Step &step : install->steps)
      if (static_cast<CType>(step.type) == CType::MkDir)
        if (const Use *path = use_of(step, Role::Path)) note_own(product, step, *path, own);
  if (install != nullptr) drop_existing(*install, own);
  if (removal != nullptr)
    for (const Step &step : removal->steps) {
      const Use *path = use_of(step, Role::Path);
      if (static_cast<CType>(step.type) != CType::RmDir || path == nullptr) continue;
      const Split at = split(product, step, *path);
      if (at.wild == "*") own.insert(at.dir);
      else if (!has_wildcard(at.wild.c_str())) own.insert(joined(at.dir, at.wild));
    }
  own.erase("/");
  own.erase(Here);
  return own;
}

void run_section(const Product &product, CopySection &section, const Own &own, Tree &tree,
                 bool removes) {
  Worker worker{product, own, tree, removes};
  for (std::size_t i = 0; i < section.steps.size(); ++i)
    worker.run(section.steps[i], section.effects[i]);
}

/// Files that this section made, that begin like programs and are not executable.
void note_programs(CopySection &section, const Tree &tree) {
  if (tree.lost()) return;
  for (const auto &[path, node] : tree.nodes()) {
    if (!node.made || !node.program || node.executable || node.directory) continue;
    if (node.command >= section.effects.size()) continue;
    std::string &program = section.effects[node.command].program;
    if (program.empty()) program = name_of(path);
  }
}

/// How the line that made a path writes it, or else the path.
std::string written_path(const Product &product, const Step &step, const std::string &path) {
  for (const Use &use : step.uses)
    if ((use.role == Role::Path || use.role == Role::Place) && path_of(product, step, use) == path)
      return std::string{use.text};
  return path;
}

/// What [remove] leaves: the topmost of it.
void note_left(const Product &product, CopySection &install, const Tree &tree) {
  std::string top;
  for (const auto &[path, node] : tree.nodes()) {
    if (!node.made || !node.sure || node.command >= install.effects.size()) continue;
    if (!top.empty() && is_in(path, top)) continue;
    top = path;
    install.effects[node.command].left = written_path(product, install.steps[node.command], path);
  }
}

/// The commands of what was made become a thing of the past.
void settle(Tree &tree) {
  for (auto &[path, node] : tree.nodes()) {
    node.made = false;
    node.command = NoCommand;
  }
}

bool makes(const Step &step) {
  const auto type = static_cast<CType>(step.type);
  return has(type, CType::Cpy) || type == CType::WFile;
}

void note_marker(Product &product, const Step &test, const CopySection &install, const Tree &tree) {
  Marker marker{&test, nullptr, nullptr};
  const Use *path = use_of(test, Role::Path);
  const TreeNode *node = path != nullptr ? tree.find(path_of(product, test, *path)) : nullptr;
  if (node != nullptr && node->command < install.steps.size())
    marker.made = &install.steps[node->command];
  for (const Step &step : install.steps)
    if (makes(step)) marker.last = &step;
  product.markers.push_back(marker);
}

/// The tests whose result turns the action into an upgrade.
void note_markers(Product &product, const CopySection &install, const Tree &tree) {
  std::unordered_set<std::string_view> controls;
  for (const Step &step : product.init_steps) {
    const Use *result = use_of(step, Role::Result);
    const Use *word = use_of(step, Role::Word);
    const Use *control = use_of(step, Role::Control);
    if (result != nullptr && word != nullptr && control != nullptr && result->text == "action" &&
        word->text == "upgrade")
      controls.insert(control->text);
  }
  for (const Step &step : product.init_steps) {
    const Use *result = use_of(step, Role::Result);
    if (step.type == IExist && result != nullptr && controls.contains(result->text))
      note_marker(product, step, install, tree);
  }
}

void trace_install(Product &product, CopySection &install, const Own &own, Tree &tree,
                   const Broken &broken) {
  run_section(product, install, own, tree, false);
  note_programs(install, tree);
  note_markers(product, install, tree);
  CopySection *removal = section_of(product, "remove");
  if (removal == nullptr) return;
  Tree rest = tree;
  if (broken.contains(removal)) rest.lose();
  run_section(product, *removal, own, rest, true);
  if (!rest.lost()) note_left(product, install, rest);
}

} // namespace

std::string path_of(const Product &product, const Step &step, const Use &use) {
  bool known = false;
  return plain_path(replaced(product, step, use, known), Here);
}

Text value_of(const Product &product, const Step &step, const Use &use) {
  bool known = false;
  std::string text = replaced(product, step, use, known);
  return known ? Text{std::move(text)} : Text{};
}

void trace_effects(Product &product) {
  std::size_t left = MostSteps;
  Tree tree{left};
  tree.add(product.payload);
  for (const Step &step : product.init_steps)
    if (step.type == IWFile) tree.put(path_of(product, step, step.uses.front()), {});
  const Own own = find_own(product);
  for (CopySection &section : product.scripts) section.effects.resize(section.steps.size());
  const Broken broken = find_broken(product);
  CopySection *install = section_of(product, "install");
  if (install != nullptr && broken.contains(install)) tree.lose();
  if (install != nullptr) trace_install(product, *install, own, tree, broken);
  settle(tree);
  for (CopySection &section : product.scripts) {
    if (&section == install || s_stricmp(section.name.c_str(), "remove") == 0) continue;
    left -= std::min(left, tree.nodes().size());
    if (left == 0) return;
    Tree changed = tree;
    if (broken.contains(&section)) changed.lose();
    run_section(product, section, own, changed, false);
    note_programs(section, changed);
  }
}

} // namespace installer::check
