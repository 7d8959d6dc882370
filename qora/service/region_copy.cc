// SPDX-License-Identifier: BSD-2-Clause
#include "qora/service/region_copy.h"

#include <cstddef>
#include <cstring>

namespace qora::service {
namespace {

constexpr int32_t evenBelow(int32_t value) {
  return value & ~1;
}

uint8_t* at(const PlanarView& view, int32_t plane, int32_t byte, int32_t row) {
  return view.plane[plane] + static_cast<ptrdiff_t>(row) * view.stride[plane] + byte;
}

// memmove: the encoder may return the very picture it predicted from, so both can be one buffer.
void copyRows(uint8_t* to, ptrdiff_t toStride, const uint8_t* from, ptrdiff_t fromStride,
              int32_t bytes, int32_t rows) {
  for (int32_t row = 0; row < rows; ++row) {
    memmove(to + row * toStride, from + row * fromStride, static_cast<size_t>(bytes));
  }
}

}  // namespace

void copyRegion(const RegionCopy& copy, const PlanarView& from, const PlanarView& to) {
  copyRows(at(to, 0, copy.destinationX, copy.destinationY), to.stride[0],
           at(from, 0, copy.sourceX, copy.sourceY), from.stride[0], copy.width, copy.height);
  // The flags move the source only: decoders that mirror the copies do the same.
  const int32_t right = (copy.flags & kChromaRightFlag) != 0 ? 2 : 0;
  const int32_t down = (copy.flags & kChromaDownFlag) != 0 ? 2 : 0;
  copyRows(at(to, 1, evenBelow(copy.destinationX), copy.destinationY / 2), to.stride[1],
           at(from, 1, evenBelow(copy.sourceX + right), (copy.sourceY + down) / 2), from.stride[1],
           evenBelow(copy.width + 1), copy.height / 2);
}

}  // namespace qora::service
