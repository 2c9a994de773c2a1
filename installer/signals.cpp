#include "installer/signals.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#include <unistd.h>

namespace installer {

namespace {

/// Those that are sent, and whose default is the end. A fault of the program's own keeps its core.
constexpr int endings[] = {SIGHUP,  SIGINT,  SIGQUIT,   SIGALRM, SIGTERM, SIGUSR1,
                           SIGUSR2, SIGXCPU, SIGVTALRM, SIGPROF, SIGPOLL};

void (*told)(int signal) = nullptr;

::sigset_t set_of_endings() {
  ::sigset_t set;
  ::sigemptyset(&set);
  for (const int signal : endings) ::sigaddset(&set, signal);
  return set;
}

/// The action is the default again by now.
void end_process(int signal) {
  told(signal);
  ::sigset_t only;
  ::sigemptyset(&only);
  ::sigaddset(&only, signal);
  ::raise(signal);
  ::sigprocmask(SIG_UNBLOCK, &only, nullptr);
  ::_exit(128 + signal); // the first process of a container outlives it
}

} // namespace

HandlerText &HandlerText::add(std::string_view part) {
  const std::size_t count = std::min(part.size(), sizeof text - size);
  std::memcpy(text + size, part.data(), count);
  size += count;
  return *this;
}

HandlerText &HandlerText::add(std::uint64_t number, std::size_t width, char fill) {
  char digits[20];
  const auto end = std::to_chars(digits, std::end(digits), number).ptr;
  const auto count = static_cast<std::size_t>(end - digits);
  for (; width > count; --width) add({&fill, 1});
  return add({digits, count});
}

HeldSignals::HeldSignals() {
  const ::sigset_t held = set_of_endings();
  ::sigprocmask(SIG_BLOCK, &held, &before_);
}

HeldSignals::~HeldSignals() { ::sigprocmask(SIG_SETMASK, &before_, nullptr); }

ToldSignals::ToldSignals(void (*tell)(int signal)) {
  ::sigemptyset(&taken_);
  if (tell == nullptr) return;
  told = tell;
  struct ::sigaction now = {};
  struct ::sigaction then = {};
  then.sa_handler = end_process;
  then.sa_mask = set_of_endings();
  then.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int signal : endings) {
    if (::sigaction(signal, nullptr, &now) != 0 || now.sa_handler != SIG_DFL) continue;
    ::sigaction(signal, &then, nullptr);
    ::sigaddset(&taken_, signal);
  }
}

ToldSignals::~ToldSignals() {
  for (const int signal : endings)
    if (::sigismember(&taken_, signal) == 1) std::signal(signal, SIG_DFL);
}

} // namespace installer
