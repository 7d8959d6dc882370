// SPDX-License-Identifier: BSD-2-Clause
// qora/service/macroblock_maps.h -- Rectangles in pixels become the two per-macroblock maps. Pure.
#pragma once

#include <cstdint>

#include "qora/service/wire/messages.h"

namespace qora::service {

// The two maps of one stream, row by row, columns * rows cells each; borrowed from the stream.
struct MacroblockMaps {
  int32_t columns, rows;  // picture size in 16x16 macroblocks, partial ones counted
  uint8_t* info;          // 1: unchanged since the last frame, 0: changed
  float* quantizer;       // added to the quantizer; negative means finer
};

struct MacroblockRange {
  int32_t column, row, columns, rows;  // columns or rows of 0: empty
};

// The macroblocks that a rectangle touches, clipped to the picture. 1; 0 when the rectangle lies
// outside and is to be skipped.
int32_t coverRectangle(const Rectangle& rectangle, const MacroblockMaps& maps,
                       MacroblockRange& out);

// What goes into the quantizer map for a rectangle's offset.
float quantizerValue(int8_t offset, int32_t bitrateMode);

// Marks every macroblock unchanged. The quantizer map is left: cells keep what they were given.
void markAllUnchanged(MacroblockMaps& maps);

// Marks a range, which lies inside the picture, changed and gives it a quantizer offset.
void fillRange(const MacroblockRange& range, float value, MacroblockMaps& maps);

// All of the above for one rectangle: marks what it touches and gives it its quantizer offset. 1; 0
// when the rectangle lies outside and was skipped.
int32_t applyRectangle(const Rectangle& rectangle, int32_t bitrateMode, MacroblockMaps& maps);

// One cell at a time; fillRange() gives the same. Kept to be compared with.
void fillRangePlainly(const MacroblockRange& range, float value, MacroblockMaps& maps);

}  // namespace qora::service
