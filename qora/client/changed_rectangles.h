// SPDX-License-Identifier: BSD-2-Clause
// qora/client/changed_rectangles.h -- Two pictures -> the rectangles that changed from one to the
// other.
//
// The encoder works on macroblocks, so changes are found and reported in whole macroblocks of 16x16
// pixels, clipped to the picture. Pure; as fast as comparing the memory where nothing changed.
#pragma once

#include <cstdint>
#include <vector>

#include "qora/client/picture.h"
#include "qora/service/wire/messages.h"

namespace qora::client {

inline constexpr int32_t kMacroblockSize = 16;

// The result of one search. Use the same record for every frame: its memory is kept.
struct ChangedRectangles {
  std::vector<uint8_t> map;              // row by row, a byte a macroblock: 1 changed, 0 not
  std::vector<service::Rectangle> list;  // covers every changed macroblock once; quantizer offset 0
};

// Compares two pictures of one size. No more than `limit` (at least 1) rectangles are listed: where
// the exact ones would be more, they are drawn on a coarser grid and cover unchanged macroblocks as
// well. Returns the number of changed macroblocks; -1 with EINVAL for a limit below 1.
int32_t findChangedRectangles(const Picture& before, const Picture& after, int32_t limit,
                              ChangedRectangles& changes);

// What to send instead of an empty list. The service takes an empty list as "nothing known": it
// warns and encodes by the map of the frame before. A rectangle without area covers no macroblock,
// so it marks the whole picture as unchanged, silently.
inline constexpr service::Rectangle nothingChanged() {
  return {.quantizerOffset = 0, .x = 0, .y = 0, .width = 0, .height = 0};
}

// What to send with the first frame of a stream.
inline constexpr service::Rectangle wholePicture(int32_t width, int32_t height) {
  return {.quantizerOffset = 0,
          .x = 0,
          .y = 0,
          .width = static_cast<uint16_t>(width),
          .height = static_cast<uint16_t>(height)};
}

// The steps of the search.

// Sets changed[i] when macroblock i of a row of macroblocks differs, for the columns [first, end).
void markChangedCells(const Picture& before, const Picture& after, int32_t row, int32_t first,
                      int32_t end, uint8_t* changed);

// A map of cells of `cellSize` pixels over a picture.
struct CellMap {
  int32_t columns;
  int32_t rows;
  int32_t cellSize;
  std::vector<uint8_t> changed;
};

// Lists runs of changed cells, equal runs in neighbouring rows as one. 1, or 0 when they would be
// more than `limit` (the list is then incomplete).
int32_t mergeCells(const CellMap& map, int32_t width, int32_t height, int32_t limit,
                   std::vector<service::Rectangle>& list);
// The same changes on cells of twice the size.
CellMap coarserMap(const CellMap& map);
// Lists the changed cells, on coarser cells where they would be more than `limit`. Returns the
// number listed, -1 with EINVAL for a limit below 1.
int32_t listCells(const CellMap& map, int32_t width, int32_t height, int32_t limit,
                  std::vector<service::Rectangle>& list);

}  // namespace qora::client
