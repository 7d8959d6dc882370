// tests/fuzz/fuzz.h -- What every fuzzer is made of: its entry, its input, its verdict.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

// The one function of a fuzzer. The engine calls it with anything.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace qora::fuzz {

// Takes values off the front of the input; behind its end everything is zero.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : at_(data), end_(data + size) {}

  size_t left() const { return static_cast<size_t>(end_ - at_); }
  uint8_t byte() { return left() > 0 ? *at_++ : uint8_t{0}; }
  uint16_t word() {
    const int low = byte();
    return static_cast<uint16_t>(low | byte() << 8);
  }
  uint32_t number() {
    const uint32_t low = word();
    return low | static_cast<uint32_t>(word()) << 16;
  }
  // Up to and without the next zero byte, which is taken too.
  std::string text() {
    std::string result;
    for (uint8_t next = byte(); next != 0; next = byte()) result += static_cast<char>(next);
    return result;
  }
  std::vector<uint8_t> rest() {
    const std::vector<uint8_t> result(at_, end_);
    at_ = end_;
    return result;
  }

 private:
  const uint8_t* at_;
  const uint8_t* end_;
};

// What must hold; if it does not, that is a finding.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "finding: %s\n", what);
  std::abort();
}

}  // namespace qora::fuzz
