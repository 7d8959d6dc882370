// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/region_copies.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

namespace qora::client {
namespace {

struct Block {
  int32_t fromX, fromY, toX, toY, width, height;
};

// The block of a copy in luma, or in each chroma plane. Only the source follows the flags; odd
// destinations are rounded down and odd widths up, odd heights down, as the encoder does it.
Block blockOf(const service::RegionCopy& copy, int32_t plane) {
  if (plane == 0) {
    return {copy.sourceX,      copy.sourceY, copy.destinationX,
            copy.destinationY, copy.width,   copy.height};
  }
  const int32_t right = (copy.flags & service::kChromaRightFlag) != 0 ? 1 : 0;
  const int32_t down = (copy.flags & service::kChromaDownFlag) != 0 ? 1 : 0;
  return {copy.sourceX / 2 + right, copy.sourceY / 2 + down, copy.destinationX / 2,
          copy.destinationY / 2,    (copy.width + 1) / 2,    copy.height / 2};
}

void copyBlock(const Picture& before, const Picture& picture, int32_t plane, const Block& block) {
  for (int32_t row = 0; row < block.height; ++row) {
    std::memcpy(
        picture.plane[plane] + ptrdiff_t{block.toY + row} * picture.stride[plane] + block.toX,
        before.plane[plane] + ptrdiff_t{block.fromY + row} * before.stride[plane] + block.fromX,
        static_cast<size_t>(block.width));
  }
}

}  // namespace

bool fits(const service::RegionCopy& copy, int32_t width, int32_t height) {
  const auto inside = [](const Block& block, int32_t columns, int32_t rows) {
    return std::max(block.fromX, block.toX) + block.width <= columns &&
           std::max(block.fromY, block.toY) + block.height <= rows;
  };
  return inside(blockOf(copy, 0), width, height) &&
         inside(blockOf(copy, 1), (width + 1) / 2, (height + 1) / 2);
}

int32_t copyRegions(const Picture& before, const Picture& picture,
                    std::span<const service::RegionCopy> copies, int32_t firstPlane) {
  const auto fitting = [&picture](const service::RegionCopy& copy) {
    return fits(copy, picture.width, picture.height);
  };
  if (before.width != picture.width || before.height != picture.height ||
      !std::all_of(copies.begin(), copies.end(), fitting)) {
    errno = EINVAL;
    return -1;
  }
  for (const service::RegionCopy& copy : copies) {
    for (int32_t plane = firstPlane; plane < 3; ++plane) {
      copyBlock(before, picture, plane, blockOf(copy, plane));
    }
  }
  return 1;
}

}  // namespace qora::client
