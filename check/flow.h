#pragma once

// Who sets and who reads each setting. `trace_settings` once, when all scripts of a product are
// loaded, and `trace_readers`, when its templates are too.

#include "check/model.h"

namespace installer::check {

/// Makes the steps (steps.h), and notes who sets each setting.
void trace_settings(Product &product);
/// Then, with the templates: who reads each setting, and the names.
void trace_readers(Product &product);

} // namespace installer::check
