// The inner routines: what a run does once per line, per entry, per message.

#include "installer/copy.h"
#include "installer/file.h"
#include "installer/ini.h"
#include "installer/lib.h"
#include "installer/log.h"

#include <benchmark/benchmark.h>

#include <string>

namespace installer {

namespace {

void wildcard(benchmark::State &state) {
  const std::string text(static_cast<std::size_t>(state.range(0)), 'a');
  for (auto _ : state) benchmark::DoNotOptimize(wmatch(text.c_str(), "*a*a*b", 1));
  state.SetComplexityN(state.range(0));
}
BENCHMARK(wildcard)->RangeMultiplier(4)->Range(16, 1024)->Complexity();

void exclusion(benchmark::State &state) {
  for (auto _ : state) benchmark::DoNotOptimize(wild_ilist("index.html", "*.bak, *.old,CVS"));
}
BENCHMARK(exclusion);

void format(benchmark::State &state) {
  char buffer[LineSize];
  for (auto _ : state)
    benchmark::DoNotOptimize(snprintf(buffer, sizeof buffer, "Adding '%s'='%s' %d", "a", "b", 42));
}
BENCHMARK(format);

void log_a_line(benchmark::State &state) {
  Log log = log_init(LogDebug);
  log_open(log, "/dev/null");
  log_doflush(log, 1);
  log_set(log);
  for (auto _ : state) dmsg("Directory created '%s'", "/opt/product/data");
  log_set(nullptr);
  log_free(&log);
}
BENCHMARK(log_a_line);

/// A store of `count` settings s0, s1, ... for one benchmark.
struct Store {
  explicit Store(std::int64_t count) {
    const SettingList none[1] = {};
    ini_setup(ini, none, nullptr, 0);
    for (std::int64_t i = 0; i < count; ++i)
      ini_add_name(ini, ("s" + std::to_string(i)).c_str(), "value");
    last = "s" + std::to_string(count - 1);
  }
  ~Store() { ini_free(&ini); }
  Store(const Store &) = delete;
  Store &operator=(const Store &) = delete;

  Ini ini = ini_init();
  std::string last;
};

void look_up(benchmark::State &state) {
  const Store store{state.range(0)};
  for (auto _ : state) benchmark::DoNotOptimize(ini_value_name(store.ini, store.last.c_str()));
  state.SetComplexityN(state.range(0));
}
BENCHMARK(look_up)->RangeMultiplier(10)->Range(10, 10000)->Complexity();

void replace(benchmark::State &state) {
  const Store store{20};
  char result[LineSize];
  for (auto _ : state) {
    ini_replace(store.ini, "from $(s3)/bin to $(s19)/lib", result, sizeof result);
    benchmark::DoNotOptimize(result);
  }
}
BENCHMARK(replace);

void list_directory(benchmark::State &state) {
  for (auto _ : state)
    for (File entry : Entries{"/usr/bin", "*", log_missed()}) benchmark::DoNotOptimize(entry);
}
BENCHMARK(list_directory);

} // namespace

} // namespace installer
