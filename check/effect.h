#pragma once

// What the copy script makes: its sections run on a model of the machine, a tree of paths that
// holds the product's folder and nothing else. Settings have their values of an unattended run; a
// command with a control is taken to run when that makes fewer findings.

#include "check/model.h"

#include <string>

namespace installer::check {

/// Fills the effects of all sections, and the markers. Once, after `trace_settings`. The work is
/// bounded: behind it everything is unsure.
void trace_effects(Product &product);

/// The text of a use with its references replaced as in an unattended run; one that has no known
/// value stays as it is written. As a plain path (words.h).
[[nodiscard]] std::string path_of(const Product &product, const Step &step, const Use &use);
/// The same, not as a path. None when a value is not known.
[[nodiscard]] Text value_of(const Product &product, const Step &step, const Use &use);

} // namespace installer::check
