#include <gtest/gtest.h>

#include <vector>

#include "service/macroblock_maps.h"

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
    EXPECT_TRUE(range.column == c.range.column && range.row == c.range.row);
    EXPECT_TRUE(range.columns == c.range.columns && range.rows == c.range.rows);
  }
}

TEST(QuantizerValue, IsOneFinerOutsideBitrateMode) {
  EXPECT_EQ(quantizerValue(-2, 0), -3.0F);
  EXPECT_EQ(quantizerValue(-2, 1), -2.0F);
  EXPECT_EQ(quantizerValue(-128, 0), -129.0F);
}

// A map of 24 rows.
void expectThePlainFill(int32_t mapColumns, const MacroblockRange& range) {
  SCOPED_TRACE(testing::Message() << range.column << "+" << range.columns << " of " << mapColumns
                                  << ", " << range.rows << " rows");
  const size_t cells = static_cast<size_t>(mapColumns) * 24;
  std::vector<uint8_t> info[2];
  std::vector<float> quantizer[2];
  for (int32_t plain = 0; plain < 2; ++plain) {
    info[plain].assign(cells, 9);
    quantizer[plain].assign(cells, 9.0F);
    MacroblockMaps maps = {mapColumns, 24, info[plain].data(), quantizer[plain].data()};
    markAllUnchanged(maps);
    (plain == 1 ? fillRangePlainly : fillRange)(range, -2.5F, maps);
  }
  ASSERT_EQ(info[0], info[1]);
  ASSERT_EQ(quantizer[0], quantizer[1]);
  ASSERT_EQ(info[0][mapColumns + range.column], range.columns > 0 ? 0 : 1);
}

TEST(FillRange, EqualsThePlainFillAtEveryPlaceAndWidth) {
  for (int32_t column = 0; column < 37; ++column) {
    for (int32_t columns = 0; column + columns <= 37; ++columns) {
      expectThePlainFill(37, {column, 1, columns, 2});
    }
  }
  // From edge to edge rows are filled as one: around one and two patterns of a long run.
  for (int32_t rows = 1; rows < 22; ++rows) expectThePlainFill(79, {0, 1, 79, rows});
}

}  // namespace
}  // namespace qora::service
