#pragma once

// The program installer-check: finds the mistakes of a product's text files before they are
// shipped. It reads the product's folder with the loaders of installer, starts and writes nothing,
// and looks at nothing outside of that folder.
//
// How a run goes: `load_product` (load.h) reads the files of a product into a `Product` (model.h),
// works out who sets and who reads each setting (flow.h) and what the copy script makes (effect.h).
// Each row of the table of rules (rules.h) then looks at the product and reports to a `Report`
// (report.h), which drops what comments in the files switch off, and prints the rest in order.

namespace installer::check {

/// The program. 0: no error was found; 1: errors, with -strict also warnings; 2: a folder cannot be
/// read or holds no product, or the command line is wrong.
int main(int argc, char **argv);

} // namespace installer::check
