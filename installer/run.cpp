#include "installer/run.h"

namespace installer {

void tell_fault(const Fault &fault) {
  log_fault(fault);
  if (fault.kind == FaultKind::Binary) std::printf("Error: %s\n", fault.text.c_str());
}

} // namespace installer
