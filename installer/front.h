#pragma once

// What the two halves of the front end share: start-up and menu (installer.cpp), and the product
// actions (actions.cpp).

#include "installer/lib.h"

namespace installer {

/// The program's base name; null outside a run. Every product file is named after it.
extern Text myname;
/// The tag of -special, or null.
extern Text special_mode;
/// 1: unattended, nothing is asked and standard input is never read.
extern int automate;

/// The product file with the extension `ext` in the working directory. 0 when its path does not
/// fit; without a working directory the name alone.
[[nodiscard]] int product_file(const char *ext, char (&path)[PathSize]);

} // namespace installer
