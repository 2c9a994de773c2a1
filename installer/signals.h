#pragma once

// The signals that end a process from outside, for a run that says in its log that one did. A
// handler tells so and lets the signal do what it does anyway; it interrupts anything, so it uses
// system calls and the little that stands here.

#include "installer/lib.h"

#include <csignal>
#include <cstdint>
#include <string_view>

namespace installer {

/// A text made where memory cannot be asked for. What does not fit is cut off.
struct HandlerText {
  char text[LineSize + 100] = {};
  std::size_t size = 0;

  HandlerText &add(std::string_view part);
  /// At least `width` characters, with `fill` in front.
  HandlerText &add(std::uint64_t number, std::size_t width = 1, char fill = '0');
  [[nodiscard]] std::string_view view() const { return {text, size}; }
};

/// Holds these signals back as long as it lives: what a handler reads is not half changed then.
class HeldSignals {
public:
  HeldSignals();
  ~HeldSignals();
  HeldSignals(const HeldSignals &) = delete;
  HeldSignals &operator=(const HeldSignals &) = delete;

private:
  ::sigset_t before_ = {};
};

/// As long as it lives, `tell` (null: nothing changes) is called in the handler of a signal that
/// ends the process; others wait until then. A signal that is ignored, as nohup(1) has it, or has a
/// handler already stays as it is.
class ToldSignals {
public:
  explicit ToldSignals(void (*tell)(int signal));
  ~ToldSignals();
  ToldSignals(const ToldSignals &) = delete;
  ToldSignals &operator=(const ToldSignals &) = delete;

private:
  ::sigset_t taken_ = {};
};

} // namespace installer
