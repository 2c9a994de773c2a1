#include "check/tree.h"

#include "check/words.h"

#include "installer/lib.h"

namespace installer::check {

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
  spend();
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

} // namespace installer::check
