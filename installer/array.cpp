#include "installer/array.h"

#include "installer/log.h"

namespace installer {

void array_growth_failed() { emsg("Memory allocation error."); }

} // namespace installer
