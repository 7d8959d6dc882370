// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/changed_rectangles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "qora/client/block_differences.h"

namespace qora::client {
namespace {

using Map = std::vector<uint8_t>;

TEST(ChangedRectanglesTest, MergesRunsAndEqualRows) {
  const std::pair<const char*, size_t> cases[] = {
      {"........", 0}, {".##.", 1},     {"#.##", 2},         {".##..##..##.", 1}, {".##..###", 2},
      {".##.####", 2}, {"#..##..#", 2}, {".##......##.", 2}, {"#...#.#.#...", 2}};
  for (const auto& [cells, rectangles] : cases) {
    CellMap map{4, static_cast<int32_t>(std::strlen(cells) / 4), 16, {}};
    for (const char* cell = cells; *cell != '\0'; ++cell) map.changed.push_back(*cell == '#');
    std::vector<service::Rectangle> list;
    EXPECT_EQ(1, mergeCells(map, 64, 16 * map.rows, 4, list));
    EXPECT_EQ(rectangles, list.size()) << cells;
  }
}

TEST(BlockDifferencesTest, WideComparisonEqualsThePlainOne) {
  std::mt19937 random(3);
  int32_t differing = 0, distant = 0;
  for (int32_t bytes = 0; bytes <= 100; ++bytes) {
    for (uint32_t start = 0; start < 35; ++start) {
      const int32_t stride = bytes + static_cast<int32_t>(random() % 5);
      const int32_t rows = 1 + static_cast<int32_t>(random() % 4);
      Map a(600), b;
      for (uint8_t& sample : a) sample = static_cast<uint8_t>(random());
      b = a;
      for (uint32_t i = 0; i < start; i += 4) b[random() % 600] ^= 1U << random() % 8;
      const int32_t blockSize = start % 2 == 0 ? 8 : 16;
      const auto tolerance = static_cast<int32_t>(random() % 4 == 0 ? 255 : random() % 40);
      Map wide(16, 0);
      wide[2] = kDiffers;  // stays marked
      Map plain = wide;
      const SampleRows before = {a.data() + start, stride}, after = {b.data() + start, stride};
      markBlocks(before, after, bytes, rows, blockSize, tolerance, wide.data());
      markBlocksPlain(before, after, bytes, rows, blockSize, tolerance, plain.data());
      ASSERT_EQ(plain, wide) << bytes << " bytes at " << start << ", " << tolerance;
      differing += static_cast<int32_t>(std::count(plain.begin(), plain.end(), kDiffers));
      distant += static_cast<int32_t>(std::count(plain.begin(), plain.end(), 3));
    }
  }
  EXPECT_TRUE(differing > 3000 && distant > 700) << differing << " " << distant;
}

}  // namespace
}  // namespace qora::client
