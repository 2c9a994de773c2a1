#include "check/machine.h"

#include "check/values.h"
#include "check/words.h"

#include "installer/lib.h"

#include <algorithm>

namespace installer::check {

namespace {

bool is_listed(std::string_view name, const Use *list) {
  if (list == nullptr || list->text == "-") return false;
  return wild_ilist(std::string{name}.c_str(), std::string{list->text}.c_str()) != 0;
}

bool is_gated(const Step &step) { return use_of(step, Role::Control) != nullptr; }

/// The second path of a command.
const Use *target_of(const Step &step, const Use *source) {
  for (const Use &use : step.uses)
    if (use.role == Role::Path && &use != source) return &use;
  return nullptr;
}

/// A word of the line is in the wrong place, or it holds a reference that is not closed.
bool is_misread(const Step &step) {
  return std::any_of(step.uses.begin(), step.uses.end(), [](const Use &use) {
    const bool gate = use.role == Role::Control || use.role == Role::Compare;
    const bool open = std::any_of(use.references.begin(), use.references.end(),
                                  [](const Named &reference) { return !reference.closed; });
    return (gate && has_reference(use.text)) || open ||
           (use.role == Role::Place && use.text.find_first_of("/\\$") == std::string_view::npos);
  });
}

} // namespace

bool Tree::spend() const {
  if (*left_ > 0) --*left_;
  return *left_ > 0;
}

void Tree::add(const Payload &payload) {
  nodes_[Here] = {.directory = true, .open = !payload.complete};
  for (const auto &[path, entry] : payload.entries)
    if (spend())
      nodes_[path] = {.directory = entry.kind == EntryKind::Dir, .program = entry.program};
}

const TreeNode *Tree::find(std::string_view path) const {
  const auto found = nodes_.find(path);
  return found != nodes_.end() ? &found->second : nullptr;
}

TreeNode &Tree::put(const std::string &path, TreeNode node) {
  static_cast<void>(spend());
  std::string_view parent = parent_of(path);
  for (; parent.size() > 1 && find(parent) == nullptr && spend(); parent = parent_of(parent))
    nodes_[std::string{parent}] = {.directory = true, .command = node.command};
  const auto [place, fresh] = nodes_.try_emplace(path, node);
  if (!fresh) {
    node.executable = node.executable || place->second.executable;
    node.open = node.open || place->second.open;
    place->second = node;
  }
  return place->second;
}

std::vector<std::string> Tree::match(const std::string &dir, const std::string &wild) const {
  std::vector<std::string> found;
  const std::string prefix = dir.empty() || dir == "/" ? dir : dir + "/";
  if (!has_wildcard(wild.c_str())) {
    if (find(prefix + wild) != nullptr) found.push_back(prefix + wild);
    return found;
  }
  auto at = nodes_.lower_bound(prefix);
  while (at != nodes_.end() && at->first.starts_with(prefix) && spend()) {
    const std::size_t end = at->first.find('/', prefix.size());
    if (end != std::string::npos) { // below a child that has been here; "0" comes behind "/"
      at = nodes_.lower_bound(at->first.substr(0, end) + "0");
      continue;
    }
    if (wild_match(at->first.c_str() + prefix.size(), wild.c_str()) != 0)
      found.push_back(at->first);
    ++at;
  }
  return found;
}

std::vector<std::string> Tree::below(const std::string &path) const {
  std::vector<std::string> found;
  if (find(path) != nullptr) found.push_back(path);
  const std::string prefix = path + "/";
  for (auto at = nodes_.lower_bound(prefix);
       at != nodes_.end() && at->first.starts_with(prefix) && spend(); ++at)
    found.push_back(at->first);
  return found;
}

bool Tree::is_open(std::string_view path) const {
  for (std::string_view at = path; at.size() > 1; at = parent_of(at))
    if (const TreeNode *node = find(at); node != nullptr && node->open) return true;
  return false;
}

// ---- Commands ----

Split split(const Product &product, const Use &use) {
  const std::string text = text_with_values(product, use);
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

TreeNode Worker::node(const Step &step, bool directory) const {
  return {.directory = directory, .made = true, .sure = !is_gated(step), .command = step.index};
}

bool Worker::is_own(std::string_view path) const {
  for (std::string_view at = path; at.size() > 1; at = parent_of(at))
    if (own_.contains(std::string{at})) return true;
  return false;
}

/// What a source finds, and whether that is all.
std::vector<std::string> Worker::find(const Use &source, Effect &effect) const {
  const Split at = split(product_, source);
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
  effect.place_missing = sure && !tree_.is_open(place);
  effect.made_later = own_.contains(std::string{place});
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

void Worker::copy(const Step &step, Effect &effect) {
  const Use *source = use_of(step, Role::Path);
  const Use *place = use_of(step, Role::Place);
  if (source == nullptr || place == nullptr) return;
  const std::string to = path_of(product_, *place);
  if (!has_wildcard(std::string{name_of(to)}.c_str())) check_place(to, effect);
  for (const std::string &path : find(*source, effect)) {
    if (is_listed(name_of(path), use_of(step, Role::Exclusions))) continue;
    const bool directory = tree_.find(path)->directory;
    effect.directories = effect.directories || directory;
    if (directory && !step.trees) continue;
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
  tree_.put(path_of(product_, *path), node(step, true));
  // The line names its parents as well, but not those that are in the value of a setting.
  for (std::string_view text = parent_of(path->text); text.size() > 1 && has_reference(text);
       text = parent_of(text)) {
    const std::string parent = path_of(product_, *path, text);
    const TreeNode *there = tree_.find(parent);
    if ((there == nullptr || !there->made) && own_.contains(parent))
      tree_.put(parent, node(step, true));
  }
}

void Worker::write(const Step &step, Effect &effect, const Use &path, bool program) {
  const std::string place = path_of(product_, path);
  check_place(parent_of(place), effect);
  if (const TreeNode *there = tree_.find(place)) effect.onto_directory = there->directory;
  TreeNode written = node(step, false);
  written.program = program;
  tree_.put(place, written);
}

void Worker::fill(const Step &step, Effect &effect) {
  const Use *source = use_of(step, Role::Path);
  const Use *target = target_of(step, source);
  if (target == nullptr) return;
  const std::vector<std::string> found = find(*source, effect);
  effect.matches = found.size();
  for (const std::string &path : found) {
    const PayloadEntry *entry = find_entry(product_.payload, path);
    if (entry != nullptr && entry->kind != EntryKind::File) effect.unfit = path;
  }
  write(step, effect, *target, !found.empty() && tree_.find(found.front())->program);
}

void Worker::rename(const Step &step, Effect &effect) {
  const Use *source = use_of(step, Role::Path);
  const Use *target = target_of(step, source);
  if (target == nullptr) return;
  effect.matches = find(*source, effect).size();
  const std::string from = path_of(product_, *source);
  const std::string to = path_of(product_, *target);
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

void Worker::remove(const Step &step, Effect &effect) {
  const Use *source = use_of(step, Role::Path);
  if (source == nullptr) return;
  const bool stays = is_gated(step) && !removes_;
  for (const std::string &path : find(*source, effect)) {
    const bool directory = tree_.find(path)->directory;
    if (is_listed(name_of(path), use_of(step, Role::Exclusions)) || (directory && !step.trees))
      continue;
    ++effect.matches;
    if (stays) continue;
    for (const std::string &gone : tree_.below(path))
      if (!is_listed(name_of(gone), use_of(step, Role::Exclusions)) || removes_) tree_.remove(gone);
  }
}

void Worker::change(const Step &step, Effect &effect) {
  const Use *source = use_of(step, Role::Path);
  const Use *mode = use_of(step, Role::Mode);
  if (source == nullptr) return;
  const Text digits = mode != nullptr ? value_of(product_, *mode) : Text{};
  const bool plain = digits && digits->find_first_not_of("01234567") == std::string::npos;
  const bool runs = !plain || (std::strtoul(digits->c_str(), nullptr, 8) & 0111) != 0;
  for (const std::string &path : find(*source, effect)) {
    if (is_listed(path, use_of(step, Role::Exclusions))) continue;
    ++effect.matches;
    for (const std::string &entry : tree_.below(path)) {
      TreeNode &changed = tree_.nodes().find(entry)->second;
      effect.directories = effect.directories || changed.directory;
      if (mode != nullptr && runs) changed.executable = true;
    }
  }
}

void Worker::run(const Step &step, Effect &effect) {
  if (is_misread(step)) tree_.lose();
  const Use *path = use_of(step, Role::Path);
  switch (step.deed) {
  case Deed::Copies: return copy(step, effect);
  case Deed::Makes: return make(step);
  case Deed::Fills: return fill(step, effect);
  case Deed::Writes: return path != nullptr ? write(step, effect, *path, false) : void();
  case Deed::Moves: return rename(step, effect);
  case Deed::Removes: return remove(step, effect);
  case Deed::Changes: return change(step, effect);
  case Deed::Reads:
    if (path != nullptr) effect.matches = find(*path, effect).size();
    return;
  case Deed::Tests:
  case Deed::Stops: return;
  }
}

} // namespace installer::check
