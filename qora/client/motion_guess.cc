// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/motion_guess.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qora::client {
namespace {

constexpr int32_t kReachAcross = 48;
constexpr int32_t kReachDown = 64;
constexpr int32_t kPlaces = 2 * kReachAcross + 1;  // in a row
constexpr int32_t kFewest = 24;                    // changed cells that may have moved
constexpr int32_t kMostSamples = 8;
constexpr uint32_t kTrace = 256;  // luma differences of a cell: one a pixel
// A cell with less contrast than this fits nearly anywhere.
constexpr uint32_t kDistinct = 1024;

// The sum of the differences of sixteen pixels.
uint32_t rowDifference(const uint8_t* a, const uint8_t* b) {
#if defined(__SSE2__)
  const __m128i halves = _mm_sad_epu8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(a)),
                                      _mm_loadu_si128(reinterpret_cast<const __m128i*>(b)));
  return static_cast<uint32_t>(_mm_cvtsi128_si32(halves) + _mm_extract_epi16(halves, 4));
#else
  uint32_t sum = 0;
  for (int32_t x = 0; x < kMacroblockSize; ++x) sum += static_cast<uint32_t>(std::abs(a[x] - b[x]));
  return sum;
#endif
}

const uint8_t* pixel(const Picture& picture, int32_t x, int32_t y) {
  return picture.plane[0] + static_cast<ptrdiff_t>(y) * picture.stride[0] + x;
}

bool isInside(const Picture& picture, int32_t x, int32_t y) {
  return x >= 0 && y >= 0 && x + kMacroblockSize <= picture.width &&
         y + kMacroblockSize <= picture.height;
}

bool isDistinct(const Picture& picture, int32_t x, int32_t y) {
  uint32_t contrast = 0;
  for (int32_t line = 1; line < kMacroblockSize; ++line) {
    contrast += rowDifference(pixel(picture, x, y + line), pixel(picture, x, y + line - 1));
  }
  return contrast >= kDistinct;
}

struct Cell {
  int32_t column, row;
};

// A few of the changed cells, all over the picture, that fit one place only.
std::vector<Cell> chooseSamples(const Picture& picture, const Damage& changed) {
  std::vector<Cell> samples;
  const int32_t count = changed.count();
  if (count < kFewest) return samples;
  int32_t number = 0;
  int32_t next = 0;  // the number of the cell from which on another one is looked for
  changed.forEachCell([&](int32_t column, int32_t row) {
    const int32_t x = column * kMacroblockSize;
    const int32_t y = row * kMacroblockSize;
    if (number++ < next || !isInside(picture, x, y) || !isDistinct(picture, x, y)) return;
    samples.push_back({column, row});
    next = number + count / kMostSamples;
  });
  return samples;
}

}  // namespace

bool hasMoved(const Picture& before, const Picture& after, int32_t column, int32_t row,
              const Motion& motion) {
  const int32_t x = column * kMacroblockSize;
  const int32_t y = row * kMacroblockSize;
  if (!isInside(after, x, y) || !isInside(before, x + motion.dx, y + motion.dy)) return false;
  uint32_t difference = 0;
  for (int32_t line = 0; line < kMacroblockSize && difference <= kTrace; ++line) {
    difference += rowDifference(pixel(after, x, y + line),
                                pixel(before, x + motion.dx, y + motion.dy + line));
  }
  return difference <= kTrace;
}

Motion guessMotion(const Picture& before, const Picture& after, const Damage& changed) {
  const std::vector<Cell> samples = chooseSamples(after, changed);
  if (samples.empty()) return {};
  const auto count = static_cast<int32_t>(samples.size());
  const int32_t tooFew = count / 4;
  std::vector<int8_t> votes(static_cast<size_t>(kPlaces * (2 * kReachDown + 1)));
  for (int32_t at = 0; at < count; ++at) {
    const Cell& sample = samples[static_cast<size_t>(at)];
    auto vote = votes.begin();
    for (int32_t dy = -kReachDown; dy <= kReachDown; ++dy) {
      for (int32_t dx = -kReachAcross; dx <= kReachAcross; ++dx, ++vote) {
        if (*vote + count - at <= tooFew) continue;
        *vote += hasMoved(before, after, sample.column, sample.row, {dx, dy}) ? 1 : 0;
      }
    }
  }
  const auto most = std::max_element(votes.begin(), votes.end());
  if (*most <= tooFew) return {};
  const auto place = static_cast<int32_t>(most - votes.begin());
  return {place % kPlaces - kReachAcross, place / kPlaces - kReachDown};
}

}  // namespace qora::client
