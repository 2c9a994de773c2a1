#pragma once

// The comments that switch rules off:
//
//     # check: off RULE...         in the next line that is no comment and not blank
//     # check: off RULE... file    in the whole file
//
// In the copy script the second form counts for the templates and the blurb as well, which have no
// comments.

#include "check/model.h"
#include "check/report.h"

namespace installer::check {

/// Reads the comments of the four files and tells the report. One that is not understood goes
/// to `bad_switches`.
void read_switches(Product &product, Report &report);

} // namespace installer::check
