#pragma once

// The four product actions as rows of one procedure: the questions of a section (dialogue.h), then
// the commands of the section of that name in the copy script.

#include "installer/installer.h"
#include "installer/run.h"

#include <span>

namespace installer {

enum class ActionKind { Install, Upgrade, Remove, Special };

/// What tells the actions apart. `banner` and `section`: null for the tag of -special. `opener`:
/// printed before the copy script runs. `done`: what its success line says was done; a script that
/// counts bytes has a line of its own. `stop_on_fail`: 1 when a command that fails ends the script,
/// strict or not. `expand_error`: references in the text of a failing `QError` are replaced.
struct Action {
  ActionKind kind;
  const char *banner;
  const char *section;
  const char *opener;
  const char *done;
  int stop_on_fail;
  bool counts_bytes;
  bool expand_error;
};

/// All actions; those of the menu come first.
[[nodiscard]] std::span<const Action> actions();
/// The action that runs the section `name`, letter case ignored: `Special` for any other.
[[nodiscard]] const Action &action_of_section(const char *name);
/// The section that the action runs; null for the special one without a tag.
[[nodiscard]] const char *section_of(const Action &action);

/// The action of that kind, as `install_product` and the others do it; `run` tells what became of
/// it.
ActionResult run_action(Run &run, ActionKind kind);

} // namespace installer
