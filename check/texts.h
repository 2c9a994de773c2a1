#pragma once

// The texts without sections, of which each line has its references replaced: the templates that
// the copy script fills, and the blurb.

#include "check/model.h"
#include "check/words.h"

namespace installer::check {

/// Reads them; only the lines with a reference are kept. Once, after `trace_settings`, without
/// which the paths of the templates are not known.
void read_texts(Product &product);

/// True for what a shell understands and a packager does not mean for a setting.
[[nodiscard]] bool is_shell(const Template &text, const Reference &reference);

} // namespace installer::check
