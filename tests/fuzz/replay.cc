// tests/fuzz/replay.cc -- Runs a fuzzer over files, without an engine.
//
// Usage: replay_NAME PATH...; a folder stands for its files. Each file is run whole, then cut after
// every one of its bytes; then come a thousand inputs of random bytes, the same ones each time. An
// input that breaks something ends the program where it breaks.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

#include "tests/fuzz/fuzz.h"

namespace {

int runFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> read(std::istreambuf_iterator<char>(file), {});
  std::printf("%s\n", path.c_str());
  std::fflush(stdout);
  for (size_t size = read.size() + 1; size-- > 0;) {
    // A block of its own, so that a sanitizer sees the very end.
    const std::vector<uint8_t> bytes(read.begin(), read.begin() + static_cast<ptrdiff_t>(size));
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  return 1;
}

void runRandom() {
  std::mt19937 random(1);
  for (int round = 0; round < 1000; ++round) {
    std::vector<uint8_t> bytes(random() % 400);
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
}

}  // namespace

int main(int count, char* arguments[]) {
  int files = 0;
  for (int i = 1; i < count; ++i) {
    if (!std::filesystem::is_directory(arguments[i])) {
      files += runFile(arguments[i]);
      continue;
    }
    for (const auto& entry : std::filesystem::directory_iterator(arguments[i])) {
      files += runFile(entry.path());
    }
  }
  runRandom();
  std::printf("%d files\n", files);
  return files > 0 ? 0 : 1;
}
