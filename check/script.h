#pragma once

// What the copy script makes: its sections run on a model of the machine (machine.h) that holds the
// product's folder and nothing else; [install] from nothing, all others from what [install] left.

#include "check/model.h"

namespace installer::check {

/// Fills the effects of all sections, and the markers. Once, after `trace_settings`. The work is
/// bounded: behind it everything is unsure.
void try_script(Product &product);

} // namespace installer::check
