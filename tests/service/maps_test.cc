// SPDX-License-Identifier: BSD-2-Clause
#include <gtest/gtest.h>

#include <vector>

#include "qora/service/macroblock_maps.h"

namespace qora::service {
namespace {

// A map of 24 rows.
void expectThePlainFill(int32_t mapColumns, const MacroblockRange& range) {
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
  ASSERT_EQ(info[0], info[1]) << range.column << "+" << range.columns << " of " << mapColumns;
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
