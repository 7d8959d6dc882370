#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "service/macroblock_maps.h"
#include "service/region_copy.h"

namespace qora::service {
namespace {

TEST(CoverRectangle, TouchesClipsAndSkips) {
  struct {
    const char* what;
    Rectangle rectangle;
    int32_t result;
    MacroblockRange range;
  } const cases[] = {
      // picture of 4 x 3 macroblocks
      {"one aligned macroblock", {0, 0, 0, 16, 16}, 1, {0, 0, 1, 1}},
      {"straddles two columns", {0, 8, 0, 16, 16}, 1, {0, 0, 2, 1}},
      {"a single pixel", {0, 17, 33, 1, 1}, 1, {1, 2, 1, 1}},
      {"overhang is clipped", {0, 48, 32, 64, 64}, 1, {3, 2, 1, 1}},
      {"outside on the right", {0, 64, 0, 16, 16}, 0, {}},
      {"outside below", {0, 0, 48, 16, 1}, 0, {}},
      {"farthest corner", {0, 65535, 65535, 65535, 65535}, 0, {}},
      {"no width, aligned", {0, 16, 0, 0, 16}, 1, {1, 0, 0, 1}},
      {"no width, unaligned: its cell", {0, 20, 0, 0, 16}, 1, {1, 0, 1, 1}},
      {"no height, unaligned: its cell", {0, 0, 20, 16, 0}, 1, {0, 1, 1, 1}},
      {"no width on the edge", {0, 64, 0, 0, 16}, 1, {4, 0, 0, 1}},
      {"no width beyond the edge", {0, 80, 0, 0, 16}, 0, {}},
  };
  MacroblockMaps maps = {4, 3, nullptr, nullptr};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    MacroblockRange range{};
    ASSERT_EQ(coverRectangle(c.rectangle, maps, range), c.result);
    if (c.result == 0) continue;
    EXPECT_EQ(range.column, c.range.column);
    EXPECT_EQ(range.row, c.range.row);
    EXPECT_EQ(range.columns, c.range.columns);
    EXPECT_EQ(range.rows, c.range.rows);
  }
}

TEST(QuantizerValue, IsOneFinerOutsideBitrateMode) {
  EXPECT_EQ(quantizerValue(-2, 0), -3.0F);
  EXPECT_EQ(quantizerValue(-2, 1), -2.0F);
  EXPECT_EQ(quantizerValue(-128, 0), -129.0F);
}

TEST(FillRange, EqualsThePlainFillAtEveryPlaceAndWidth) {
  constexpr int32_t kColumns = 37;
  constexpr int32_t kRows = 3;
  for (int32_t column = 0; column < kColumns; ++column) {
    for (int32_t columns = 0; column + columns <= kColumns; ++columns) {
      std::vector<uint8_t> info[2];
      std::vector<float> quantizer[2];
      for (int32_t plain = 0; plain < 2; ++plain) {
        info[plain].assign(kColumns * kRows, 9);
        quantizer[plain].assign(kColumns * kRows, 9.0F);
        MacroblockMaps maps = {kColumns, kRows, info[plain].data(), quantizer[plain].data()};
        markAllUnchanged(maps);
        (plain == 1 ? fillRangePlainly : fillRange)({column, 1, columns, 2}, -2.5F, maps);
      }
      ASSERT_EQ(info[0], info[1]) << column << "+" << columns;
      ASSERT_EQ(quantizer[0], quantizer[1]) << column << "+" << columns;
      ASSERT_EQ(info[0][kColumns + column], columns > 0 ? 0 : 1);
    }
  }
}

// Byte by byte, each row through a copy of it.
void copyPlainly(const RegionCopy& copy, std::vector<uint8_t>* from, int32_t fromStride,
                 std::vector<uint8_t>* to, int32_t toStride) {
  const int32_t right = (copy.flags & 4) != 0 ? 2 : 0;
  const int32_t down = (copy.flags & 2) != 0 ? 2 : 0;
  const struct {
    int32_t fromX, fromY, toX, toY, width, rows;
  } planes[] = {
      {copy.sourceX, copy.sourceY, copy.destinationX, copy.destinationY, copy.width, copy.height},
      {(copy.sourceX + right) / 2 * 2, (copy.sourceY + down) / 2, copy.destinationX / 2 * 2,
       copy.destinationY / 2, (copy.width + 1) / 2 * 2, copy.height / 2}};
  for (int32_t plane = 0; plane < 2; ++plane) {
    const auto& p = planes[plane];
    for (int32_t y = 0; y < p.rows; ++y) {
      std::vector<uint8_t> row(static_cast<size_t>(p.width));
      for (int32_t x = 0; x < p.width; ++x) {
        row[x] = from[plane][(p.fromY + y) * fromStride + p.fromX + x];
      }
      for (int32_t x = 0; x < p.width; ++x) to[plane][(p.toY + y) * toStride + p.toX + x] = row[x];
    }
  }
}

TEST(CopyRegion, EqualsThePlainCopyAlsoWithinOneBuffer) {
  const RegionCopy copies[] = {
      {0, 4, 4, 10, 9, 20, 11}, {2, 5, 5, 6, 6, 13, 8},  {4, 3, 8, 4, 8, 31, 5},
      {6, 7, 3, 0, 0, 8, 7},    {0, 9, 9, 8, 9, 30, 30}, {0, 8, 9, 9, 9, 30, 30},
      {0, 0, 5, 0, 6, 40, 20},  {0, 1, 1, 2, 2, 1, 1},   {6, 0, 0, 9, 9, 0, 9},
  };
  std::vector<uint8_t> source[2];
  for (int32_t i = 0; i < 64 * 64; ++i) {
    source[0].push_back(static_cast<uint8_t>(i * 31 + i / 64));
    source[1].push_back(static_cast<uint8_t>(i * 17 + i / 61 + 5));
  }
  for (const RegionCopy& copy : copies) {
    SCOPED_TRACE(testing::Message()
                 << copy.sourceX << "," << copy.sourceY << " flags " << +copy.flags);
    for (const bool oneBuffer : {false, true}) {
      std::vector<uint8_t> expected[2] = {source[0], source[1]};
      std::vector<uint8_t> actual[2] = {source[0], source[1]};
      copyPlainly(copy, oneBuffer ? expected : source, 64, expected, 48);
      const PlanarView from = {{source[0].data(), source[1].data()}, {64, 64}};
      const PlanarView to = {{actual[0].data(), actual[1].data()}, {48, 48}};
      copyRegion(copy, oneBuffer ? PlanarView{{to.plane[0], to.plane[1]}, {64, 64}} : from, to);
      EXPECT_EQ(actual[0], expected[0]);
      EXPECT_EQ(actual[1], expected[1]);
    }
  }
}

}  // namespace
}  // namespace qora::service
