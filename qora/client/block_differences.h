// SPDX-License-Identifier: BSD-2-Clause
// qora/client/block_differences.h -- Which blocks of two planes differ, and by how much.
#pragma once

#include <cstdint>

#include "qora/client/picture.h"

namespace qora::client {

// Rows of samples somewhere in a plane.
struct SampleRows {
  const uint8_t* first;
  int32_t stride;  // bytes from one row to the next
};

inline SampleRows rowsAt(const Picture& picture, int32_t plane, int32_t x, int32_t y) {
  return {picture.plane[plane] + int64_t{y} * picture.stride[plane] + x, picture.stride[plane]};
}

inline constexpr uint8_t kDiffers = 1;
inline constexpr uint8_t kIsDistant = 2;      // as well: by more than the tolerance
inline constexpr int32_t kAnyDistance = 255;  // the tolerance with which nothing is distant

// Adds to marks[i] what there is to say of block i, `blockSize` columns of so many rows: 8 or 16.
// `bytes` is the width of all; the last block may be a partial one. As
// fast as the memory; uses AVX2 where there is some. The plain one is the measure.
void markBlocks(SampleRows before, SampleRows after, int32_t bytes, int32_t rows, int32_t blockSize,
                int32_t tolerance, uint8_t* marks);
void markBlocksPlain(SampleRows before, SampleRows after, int32_t bytes, int32_t rows,
                     int32_t blockSize, int32_t tolerance, uint8_t* marks);

}  // namespace qora::client
