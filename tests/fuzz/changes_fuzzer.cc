// SPDX-License-Identifier: BSD-2-Clause
// tests/fuzz/changes_fuzzer.cc -- Two pictures -> rectangles: every changed sample lies in exactly
// one of them, and none is empty, outside or begins inside a macroblock.

#include "qora/client/changed_rectangles.h"
#include "tests/fuzz/fuzz.h"

using qora::fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qora::fuzz::Input in{data, size};
  const int width = 2 + in.byte() % 56, height = 2 + in.byte() % 40, limit = 1 + in.byte() % 24;
  const int columns = (width + 15) / 16, plane = width * height;
  std::vector<uint8_t> samples[2] = {std::vector<uint8_t>(3 * plane),
                                     std::vector<uint8_t>(3 * plane)};
  qora::client::Picture pictures[2];
  for (int i = 0; i < 2; ++i) {
    uint8_t* first = samples[i].data();
    pictures[i] = {{first, first + plane, first + 2 * plane}, {width, width, width}, width, height};
  }
  while (in.left > 0) {
    const int p = in.byte() % 3, x = in.byte() % planeWidth(pictures[1], p);
    const int y = in.byte() % planeHeight(pictures[1], p);
    pictures[1].plane[p][y * width + x] ^= 0x40 | in.byte();  // may change it back
  }
  std::vector<uint8_t> expected(columns * ((height + 15) / 16)), covered(expected);
  for (int i = 0; i < 3 * plane; ++i) {
    const int side = i < plane ? 16 : 8;
    if (samples[1][i] != 0) expected[i % plane / width / side * columns + i % width / side] = 1;
  }

  qora::client::ChangedRectangles changes;
  qora::client::findChangedRectangles(pictures[0], pictures[1], limit, changes);
  require(changes.map == expected, "the map of changes");
  require(static_cast<int>(changes.list.size()) <= limit, "more rectangles than allowed");
  for (const auto& [offset, left, top, w, h] : changes.list) {
    require(w > 0 && h > 0 && left + w <= width && top + h <= height, "empty or outside");
    require(left % 16 == 0 && top % 16 == 0, "a rectangle that begins inside a macroblock");
    for (int y = top; y < top + h; y += 16)
      for (int x = left; x < left + w; x += 16) ++covered[y / 16 * columns + x / 16];
  }
  for (size_t cell = 0; cell < covered.size(); ++cell) {
    require(covered[cell] <= 1 && covered[cell] >= expected[cell], "listed twice, or not at all");
  }
  return 0;
}
