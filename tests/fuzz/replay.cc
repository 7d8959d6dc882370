// SPDX-License-Identifier: BSD-2-Clause
// tests/fuzz/replay.cc -- Runs a fuzzer over files, without an engine.
//
// Usage: replay_NAME FOLDER. Each file is run whole, then cut after every one of its bytes; then
// come a thousand inputs of random bytes, the same ones each time. An input that breaks something
// ends the program where it breaks.

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

#include "tests/fuzz/fuzz.h"

int main(int, char* arguments[]) {
  int files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(arguments[1])) {
    std::fprintf(stderr, "%s\n", entry.path().c_str());
    std::ifstream file(entry.path(), std::ios::binary);
    std::vector<uint8_t> bytes(std::istreambuf_iterator<char>(file), {});
    ++files;
    for (;; bytes.pop_back(), bytes.shrink_to_fit()) {  // a sanitizer sees the very end
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
      if (bytes.empty()) break;
    }
  }
  std::mt19937 random(1);
  for (int round = 0; round < 1000; ++round) {
    std::vector<uint8_t> bytes(random() % 400);
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  return files > 0 ? 0 : 1;
}
