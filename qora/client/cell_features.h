// SPDX-License-Identifier: BSD-2-Clause
// qora/client/cell_features.h -- What of a macroblock decides the cost of coding it. Pure.
#pragma once

#include <cstdint>

#include "qora/client/picture.h"

namespace qora::client {

struct CellFeatures {
  // 12 * log2 of the sum of the luma differences between neighbours, across and down; 0 to 203.
  uint8_t texture;
  // The encoder's own term for the cell, which it adds to the rectangle's offset, in half quantizer
  // steps: 2 * 1.04 * (log2 of the energy - 14.43), from -30 in a flat cell to about 18 in text.
  int8_t term;
};

// The cell at a column and row of macroblocks. What lies outside the picture repeats its edge.
CellFeatures cellFeatures(const Picture& picture, int32_t column, int32_t row);

// What they are made of. The plain one is the measure, and takes the cells at the picture's edge.
struct CellSums {
  uint32_t differences;  // of luma, to the right and down
  uint32_t energy;       // squared distances from the mean, of all planes
};
CellSums cellSums(const Picture& picture, int32_t column, int32_t row);
CellSums cellSumsPlain(const Picture& picture, int32_t column, int32_t row);

}  // namespace qora::client
