// SPDX-License-Identifier: BSD-2-Clause
// qora/service/region_copy.h -- Moves content between reconstructed pictures, so that the next
// frame predicts from where the content now is. Pure; coordinates are the parent's and are trusted.
#pragma once

#include <cstdint>

#include "qora/service/wire/messages.h"

namespace qora::service {

// A 4:2:0 picture in two planes: luma, and chroma with U and V interleaved, so that a chroma row
// has as many bytes as a luma row and there are half as many rows.
struct PlanarView {
  uint8_t* plane[2];
  int32_t stride[2];  // bytes
};

// Copies row by row; within a row source and destination may overlap.
void copyRegion(const RegionCopy& copy, const PlanarView& from, const PlanarView& to);

}  // namespace qora::service
