#pragma once

// The model of a machine: plain paths (words.h) and what stands there, and what the commands of the
// copy script do to it. Settings have their values of an unattended run; a command with a control
// is taken to run when that makes fewer findings.

#include "check/model.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace installer::check {

/// No command: it was there before.
inline constexpr std::size_t NoCommand = SIZE_MAX;

/// `open`: a directory that may hold more than is known; `made`: a command says so itself, it is
/// not only the parent of something; `sure`: that command has no control; `command`: its index.
struct TreeNode {
  bool directory = false;
  bool program = false;
  bool executable = false;
  bool open = false;
  bool made = false;
  bool sure = true;
  std::size_t command = NoCommand;
};

/// A tree of paths. Each path looked at costs one of the steps that `left` allows; when they are
/// used up nothing is found any more, and `exhausted` says so.
class Tree {
public:
  using TreeNodes = std::map<std::string, TreeNode, std::less<>>;
  explicit Tree(std::size_t &left) : left_(&left) {}

  /// Puts the folder's entries into the tree.
  void add(const Payload &payload);
  [[nodiscard]] const TreeNode *find(std::string_view path) const;
  /// Puts a node there; one that exists keeps being executable. Missing parents become directories.
  TreeNode &put(const std::string &path, TreeNode node);
  /// The entries of a directory that match the pattern, as full paths.
  [[nodiscard]] std::vector<std::string> match(const std::string &dir,
                                               const std::string &wild) const;
  /// The path, when it is there, and all below it.
  [[nodiscard]] std::vector<std::string> below(const std::string &path) const;
  void remove(const std::string &path) { nodes_.erase(path); }
  /// True when a directory on the way to the path may hold more than is known.
  [[nodiscard]] bool is_open(std::string_view path) const;
  /// From now on nothing can be said about what is there.
  void lose() { lost_ = true; }
  [[nodiscard]] bool lost() const { return lost_ || *left_ == 0; }
  [[nodiscard]] const TreeNodes &nodes() const { return nodes_; }
  [[nodiscard]] TreeNodes &nodes() { return nodes_; }

private:
  [[nodiscard]] bool spend() const;

  TreeNodes nodes_;
  std::size_t *left_;
  bool lost_ = false;
};

/// A path as the copy module splits it: a directory, and a pattern for its entries.
struct Split {
  std::string dir, wild;
};
[[nodiscard]] Split split(const Product &product, const Use &use);
/// True for the directory itself and all below it.
[[nodiscard]] bool is_in(std::string_view path, std::string_view dir);
/// The path of an entry of a directory.
[[nodiscard]] std::string joined(const std::string &dir, const std::string &name);

/// The directories that are the product's own, as plain paths.
using Own = std::unordered_set<std::string>;

/// One section at work on a tree. `removes`: it is the removal. All are lent.
class Worker {
public:
  Worker(const Product &product, const Own &own, Tree &tree, bool removes)
      : product_(product), own_(own), tree_(tree), removes_(removes) {}

  /// Carries out one command, and says what it did.
  void run(const Step &step, Effect &effect);

private:
  void copy(const Step &step, Effect &effect);
  void copy_tree(const Step &step, const std::string &from, const std::string &to, Effect &effect);
  void copy_one(const Step &step, const std::string &from, const std::string &to, Effect &effect);
  void make(const Step &step);
  void write(const Step &step, Effect &effect, const Use &path, bool program);
  void fill(const Step &step, Effect &effect);
  void rename(const Step &step, Effect &effect);
  void remove(const Step &step, Effect &effect);
  void change(const Step &step, Effect &effect);
  std::vector<std::string> find(const Use &source, Effect &effect) const;
  [[nodiscard]] bool is_own(std::string_view path) const;
  void check_place(std::string_view place, Effect &effect) const;
  [[nodiscard]] TreeNode node(const Step &step, bool directory) const;

  const Product &product_;
  const Own &own_;
  Tree &tree_;
  bool removes_;
};

} // namespace installer::check
