// Runs a fuzz harness once over every file of the directories given, so that what a fuzzer has
// found is tried again with each compiler and without its library. Each name is printed before
// its input runs: the last one printed is the one that failed.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

int main(int argc, char **argv) {
  int inputs = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto &entry : std::filesystem::recursive_directory_iterator{argv[i]}) {
      if (!entry.is_regular_file()) continue;
      std::puts(entry.path().c_str());
      std::fflush(stdout);
      std::ifstream file{entry.path(), std::ios::binary};
      const std::string text{std::istreambuf_iterator<char>{file}, {}};
      LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(text.data()), text.size());
      ++inputs;
    }
  }
  std::printf("%d inputs\n", inputs);
  return inputs == 0 ? 1 : 0;
}
