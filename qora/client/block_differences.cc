// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/block_differences.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace qora::client {
namespace {

// Pictures are larger than the caches: samples are asked for so many columns before they are
// needed, further than the processor looks ahead by itself.
constexpr int32_t kAhead = 256;

struct Eight {
  using Samples = uint8_t __attribute__((vector_size(8)));
};
struct Sixteen {
  using Samples = uint8_t __attribute__((vector_size(16)));
};
struct ThirtyTwo {
  using Samples = uint8_t __attribute__((vector_size(32)));
};

// From column x on, what there is in steps of so many columns. Returns how far that goes.
template <typename Step>
[[gnu::always_inline]] inline int32_t markWide(int32_t x, SampleRows before, SampleRows after,
                                               int32_t bytes, int32_t rows, int32_t blockSize,
                                               int32_t tolerance, uint8_t* marks) {
  using Wide = typename Step::Samples;
  constexpr int32_t kStep = sizeof(Wide);
  const Wide allowed = Wide{} + static_cast<uint8_t>(std::min(tolerance, 255));
  for (; x + kStep <= bytes; x += kStep) {
    Wide most = {};
    const uint8_t* a = before.first + x;
    const uint8_t* b = after.first + x;
    for (int32_t row = 0; row < rows; ++row, a += before.stride, b += after.stride) {
      if (x % 64 == 0) {
        __builtin_prefetch(a + kAhead);
        __builtin_prefetch(b + kAhead);
      }
      Wide one;
      Wide other;
      std::memcpy(&one, a, sizeof one);
      std::memcpy(&other, b, sizeof other);
      const Wide distance = (one > other ? one : other) - (one < other ? one : other);
      most = most > distance ? most : distance;
    }
    uint64_t differs[kStep / 8];
    std::memcpy(differs, &most, sizeof differs);
    uint64_t any = 0;
    for (const uint64_t eight : differs) any |= eight;
    if (any == 0) continue;
    const Wide beyond = most > allowed ? most : Wide{};
    uint64_t isDistant[kStep / 8];
    std::memcpy(isDistant, &beyond, sizeof isDistant);
    for (int32_t at = 0; at < kStep / 8; ++at) {
      marks[(x + at * 8) / blockSize] |= static_cast<uint8_t>(
          (differs[at] != 0 ? kDiffers : 0) | (isDistant[at] != 0 ? kIsDistant : 0));
    }
  }
  return x;
}

int32_t markNarrow(SampleRows before, SampleRows after, int32_t bytes, int32_t rows,
                   int32_t blockSize, int32_t tolerance, uint8_t* marks) {
  const int32_t done =
      markWide<Sixteen>(0, before, after, bytes, rows, blockSize, tolerance, marks);
  return markWide<Eight>(done, before, after, bytes, rows, blockSize, tolerance, marks);
}

#if defined(__x86_64__)
[[gnu::target("avx2")]] int32_t markAvx2(SampleRows before, SampleRows after, int32_t bytes,
                                         int32_t rows, int32_t blockSize, int32_t tolerance,
                                         uint8_t* marks) {
  const int32_t done =
      markWide<ThirtyTwo>(0, before, after, bytes, rows, blockSize, tolerance, marks);
  return markWide<Eight>(done, before, after, bytes, rows, blockSize, tolerance, marks);
}
#endif

}  // namespace

void markBlocksPlain(SampleRows before, SampleRows after, int32_t bytes, int32_t rows,
                     int32_t blockSize, int32_t tolerance, uint8_t* marks) {
  for (int32_t row = 0; row < rows; ++row) {
    for (int32_t x = 0; x < bytes; ++x) {
      const int32_t distance = std::abs(before.first[ptrdiff_t{row} * before.stride + x] -
                                        after.first[ptrdiff_t{row} * after.stride + x]);
      if (distance > 0) marks[x / blockSize] |= kDiffers;
      if (distance > tolerance) marks[x / blockSize] |= kIsDistant;
    }
  }
}

void markBlocks(SampleRows before, SampleRows after, int32_t bytes, int32_t rows, int32_t blockSize,
                int32_t tolerance, uint8_t* marks) {
  auto* mark = markNarrow;
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx2") != 0) mark = markAvx2;
#endif
  const int32_t done = mark(before, after, bytes, rows, blockSize, tolerance, marks);
  markBlocksPlain({before.first + done, before.stride}, {after.first + done, after.stride},
                  bytes - done, rows, blockSize, tolerance, marks + done / blockSize);
}

}  // namespace qora::client
