#pragma once

// The questions of an action, asked until the operator is content with the answers.

#include "installer/actions.h"

namespace installer {

/// Asks the questions of the action's section, and stores the answers. `SUCEEDED`: the work may
/// begin; `QUIT`: the operator does not want it; `FAILED`: told on the console or in the log, and
/// counted in a strict run.
[[nodiscard]] ActionResult ask_questions(Run &run, const Action &action);

} // namespace installer
