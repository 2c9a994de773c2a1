#pragma once

// What one run of the program knows, handed from function to function: no part of it is a variable
// of the process, so that several runs may follow one another.

#include "installer/ini.h"
#include "installer/log.h"

#include <cstdint>
#include <cstdio>
#include <new>

namespace installer {

/// What became of the copy script, counted where it is known. `began`: its commands were started;
/// `completed`: none of them stopped it.
struct Outcome {
  bool began = false;
  bool completed = false;
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
};

/// `log` and `ini` are lent by the caller, for the length of the run.
struct Run {
  Log log = nullptr;
  Ini ini = nullptr;
  Outcome outcome = {};
};

/// The sink for the faults of a file without which there is no run or no action: the log, and for a
/// zero byte, which no look at the file shows, the console.
void tell_fault(const Fault &fault);

/// Does `work`; when memory runs out in it, tells so on the console and in the log. False: it did.
template <class Work> [[nodiscard]] bool within_memory(Work work) {
  try {
    work();
    return true;
  } catch (const std::bad_alloc &) {
    std::printf("Error: Out of memory\n");
    emsg("Out of memory");
    return false;
  }
}

} // namespace installer
