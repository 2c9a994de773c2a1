#pragma once

// What a comparison looks like on paper: the lines for the console, and the manifest for
// sha256sum(1).

#include "preview/compare.h"

#include <string>

namespace installer::preview {

/// `name` as it is printed: "\\", "\n" and "\t" for a backslash, line end and tab, "\ooo" (octal)
/// for other control characters and for bytes that are not UTF-8.
[[nodiscard]] std::string report_name(const std::string &name);
/// The line of a change, without line end.
[[nodiscard]] std::string report_change(const Change &change);
/// The line of a file system, without line end.
[[nodiscard]] std::string report_total(const Total &total);
/// The lines of all changes.
[[nodiscard]] std::string report_changes(const Comparison &comparison);
/// An empty line and the totals, or that nothing would have changed.
[[nodiscard]] std::string report_totals(const Comparison &comparison);

/// Puts the manifest of what was written into `text`: a line for each file, with its contents after
/// the runs and its absolute path, as `sha256sum -c` reads it. The sums are made by sha256sum.
[[nodiscard]] Refused report_manifest(const View &view, const Comparison &comparison,
                                      std::string &text);

} // namespace installer::preview
