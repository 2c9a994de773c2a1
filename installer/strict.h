#pragma once

// What a strict run makes of the commands of its script: a line in the log before each, one for
// each file, and what fails counted and told.

#include "installer/actions.h"
#include "installer/copy.h"

#include <string>
#include <vector>

namespace installer {

/// Follows the run of one script. All that it is given is lent, `file` is the script's path.
class StrictWatch {
public:
  StrictWatch(Run &run, const Action &action, const std::vector<CCmd> &commands, const char *file)
      : run_(run), action_(action), commands_(commands), file_(file) {}

  /// What `copy_process` calls; it lasts as long as this.
  [[nodiscard]] CopyWatch watch();

private:
  void begins(std::uint32_t index);
  void acts(const FileEvent &event);
  [[nodiscard]] bool ends(int result);
  void fail(const Failure &failure);
  [[nodiscard]] const CCmd &command() const { return commands_[index_]; }
  [[nodiscard]] const char *word() const;
  [[nodiscard]] bool may_find_nothing() const;

  Run &run_;
  const Action &action_;
  const std::vector<CCmd> &commands_;
  const char *file_;
  std::uint32_t index_ = 0;
  bool told_ = false;        // the command has a failure with a reason
  std::string nothing_ = {}; // what it looked for in vain
};

} // namespace installer
