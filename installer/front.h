#pragma once

// What the two halves of the front end share: start-up and menu (installer.cpp), and the product
// actions (actions.cpp).

#include "installer/installer.h"
#include "installer/run.h"

namespace installer {

/// The program's base name; null outside a run. Every product file is named after it.
extern Text myname;
/// The tag of -special, or null.
extern Text special_mode;
/// 1: unattended, nothing is asked and standard input is never read.
extern int automate;

/// The product file with the extension `ext` in the working directory. False when its path does not
/// fit; without a working directory the name alone.
[[nodiscard]] bool product_file(const char *ext, char (&path)[PathSize]);

/// The value of the setting "product", or "NONAME".
[[nodiscard]] const char *product_name(Ini ini);

enum class ActionKind { Install, Upgrade, Remove, Special };

/// The action of that kind, as `install_product` and the others do it; `run` tells what became of
/// it.
ActionResult run_action(Run &run, ActionKind kind);

} // namespace installer
