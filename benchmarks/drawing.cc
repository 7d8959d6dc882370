// SPDX-License-Identifier: BSD-2-Clause
#include "benchmarks/drawing.h"

#include <algorithm>
#include <cstring>
#include <random>

namespace qora::bench {
namespace {

// A screen full of letters of 8x16 pixels, each out of one of 64 patterns; another text a seed.
uint8_t inkAt(int32_t x, int32_t y, uint32_t seed) {
  const auto letter = static_cast<uint32_t>(x / 8 * 31 + y / 16 * 17) + seed * 13;
  const uint32_t stroke = letter * 2654435761U >> 26;
  const bool blank = letter % 3 == 0 || x % 8 > 5 || y % 16 > 11;
  const bool ink =
      (static_cast<uint32_t>(x % 8) * 5 + static_cast<uint32_t>(y % 16) * 3) % 7 == stroke % 7 ||
      x % 8 == static_cast<int32_t>(stroke / 16);
  return !blank && ink ? 210 : 36;
}

uint8_t* rowOf(const client::Picture& picture, int32_t plane, int32_t y) {
  return picture.plane[plane] + static_cast<int64_t>(y) * picture.stride[plane];
}

}  // namespace

void drawPicture(const client::Picture& picture) {
  for (int32_t plane = 0; plane < 3; ++plane) {
    for (int32_t y = 0; y < planeHeight(picture, plane); ++y) {
      for (int32_t x = 0; x < planeWidth(picture, plane); ++x) {
        const bool written = plane == 0 && (x / 480 + y / 270) % 3 == 0;
        rowOf(picture, plane, y)[x] =
            written ? inkAt(x, y, 0) : static_cast<uint8_t>(36 + 44 * plane);
      }
    }
  }
}

std::vector<service::Rectangle> redrawShare(const client::Picture& before,
                                            const client::Picture& after, double share,
                                            uint32_t seed) {
  for (int32_t plane = 0; plane < 3; ++plane) {
    memcpy(after.plane[plane], before.plane[plane],
           rowOf(after, plane, planeHeight(after, plane)) - after.plane[plane]);
  }
  std::minstd_rand random(seed);
  std::vector<service::Rectangle> list;
  const auto limit = static_cast<uint32_t>(share * 10000);
  for (int32_t y = 0; y < after.height; y += 16) {
    for (int32_t x = 0; x < after.width; x += 16) {
      if (random() % 10000 >= limit) continue;
      for (int32_t row = y; row < std::min(y + 16, after.height); ++row)
        for (int32_t i = x; i < std::min(x + 16, after.width); ++i)
          rowOf(after, 0, row)[i] = inkAt(i, row, seed);
      list.push_back({0, static_cast<uint16_t>(x), static_cast<uint16_t>(y), 16, 16});
    }
  }
  if (list.empty()) list.push_back({});  // marks everything as unchanged
  return list;
}

}  // namespace qora::bench
