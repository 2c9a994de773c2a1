#include "check/script.h"

#include "check/machine.h"
#include "check/values.h"
#include "check/words.h"

#include "installer/shared.h"

#include <algorithm>
#include <iterator>
#include <unordered_set>

namespace installer::check {

namespace {

constexpr std::size_t MostSteps = 1'000'000;

/// A directory that a line names is the product's own, and so are those above it in the line.
void note_own(const Product &product, const Use &use, Own &own) {
  for (std::string_view text = use.text; text.size() > 1 && has_reference(text);
       text = parent_of(text))
    own.insert(path_of(product, use, text));
  if (!has_reference(use.text)) own.insert(path_of(product, use));
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
      if (step.deed == Deed::Makes)
        if (const Use *path = use_of(step, Role::Path)) note_own(product, *path, own);
  if (install != nullptr) drop_existing(*install, own);
  if (removal != nullptr)
    for (const Step &step : removal->steps) {
      const Use *path = use_of(step, Role::Path);
      if (step.deed != Deed::Removes || !step.trees || path == nullptr) continue;
      const Split at = split(product, *path);
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
    if (is_path(use.role) && path_of(product, use) == path) return std::string{use.text};
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

/// True for what leaves something new.
bool makes(Deed deed) {
  switch (deed) {
  case Deed::Copies:
  case Deed::Makes:
  case Deed::Fills:
  case Deed::Writes:
  case Deed::Moves: return true;
  case Deed::Removes:
  case Deed::Changes:
  case Deed::Tests:
  case Deed::Reads:
  case Deed::Stops: break;
  }
  return false;
}

void note_marker(Product &product, const Step &test, const CopySection &install, const Tree &tree) {
  Marker marker{&test, nullptr, nullptr};
  const Use *path = use_of(test, Role::Path);
  const TreeNode *node = path != nullptr ? tree.find(path_of(product, *path)) : nullptr;
  if (node != nullptr && node->command < install.steps.size())
    marker.made = &install.steps[node->command];
  for (const Step &step : install.steps)
    if (makes(step.deed)) marker.last = &step;
  product.markers.push_back(marker);
}

/// The tests whose result turns the action into an upgrade.
void note_markers(Product &product, const CopySection &install, const Tree &tree) {
  std::unordered_set<std::string_view> controls;
  for (const Step &step : product.init_steps) {
    const Use *result = use_of(step, Role::Result);
    const Use *word = use_of(step, Role::Word);
    const Use *control = use_of(step, Role::Control);
    if (result != nullptr && word != nullptr && control != nullptr &&
        result->text == ActionSetting && word->text == "upgrade")
      controls.insert(control->text);
  }
  for (const Step &step : product.init_steps) {
    const Use *result = use_of(step, Role::Result);
    if (step.deed == Deed::Tests && result != nullptr && controls.contains(result->text))
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

void try_script(Product &product) {
  std::size_t left = MostSteps;
  Tree tree{left};
  tree.add(product.payload);
  for (const Step &step : product.init_steps)
    if (step.deed == Deed::Writes) tree.put(path_of(product, step.uses.front()), {});
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
