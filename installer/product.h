#pragma once

// What the whole process goes by: the name and the mode that it was started with, and the names
// that follow from them.

#include "installer/ini.h"
#include "installer/lib.h"

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

} // namespace installer
