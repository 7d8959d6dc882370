// SPDX-License-Identifier: BSD-2-Clause
// tests/fuzz/fuzz.h -- What every fuzzer is made of: its entry, its input, its verdict.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

// The one function of a fuzzer. The engine calls it with anything.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace qora::fuzz {

// Takes values off the front of the input; after its end everything is zero.
struct Input {
  const uint8_t* at;
  size_t left;

  uint8_t byte() { return left > 0 ? (--left, *at++) : uint8_t{0}; }
};

// What must hold; if it does not, that is a finding.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "finding: %s\n", what);
  std::abort();
}

}  // namespace qora::fuzz
