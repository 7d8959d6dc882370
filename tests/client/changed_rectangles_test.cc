// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/changed_rectangles.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

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

TEST(ChangedRectanglesTest, WideComparisonEqualsThePlainOne) {
  std::mt19937 random(3);
  const Map a(200, 5);
  for (int32_t bytes = 0; bytes <= 100; ++bytes) {
    for (size_t start = 0; start < 17; ++start) {
      Map b = a;
      b[random() % 100] = b[random() % 200] = 200;
      for (const int32_t blockSize : {8, 16}) {
        Map wide(16, 0);
        wide[2] = 1;  // stays marked
        Map plain = wide;
        markDifferentBlocks(a.data() + start, b.data() + start, bytes, blockSize, wide.data());
        markDifferentBlocksPlain(a.data() + start, b.data() + start, bytes, blockSize,
                                 plain.data());
        ASSERT_EQ(plain, wide) << bytes << " bytes at " << start;
      }
    }
  }
}

}  // namespace
}  // namespace qora::client
