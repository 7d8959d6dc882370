// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/region_copies.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

namespace qora::client {
namespace {

// A side of a copy: pixels [start, start + length), `shift` more on the source's chroma.
bool isInside(int32_t start, int32_t length, int32_t pixels, int32_t shift) {
  return start >= kCopyEdge && start + length + shift <= pixels - kCopyEdge;
}

constexpr uint32_t kWholeRow = 0xFFFF;

// Whether two pictures differ in a macroblock beside what the mask covers.
bool differBeside(const Picture& before, const Picture& after, const CopyMask& mask, int32_t column,
                  int32_t row) {
  for (int32_t plane = 0; plane < 3; ++plane) {
    const int32_t scale = plane == 0 ? 1 : 2;
    const int32_t left = column * kMacroblockSize / scale;
    const int32_t top = row * kMacroblockSize / scale;
    const int32_t right = std::min(left + kMacroblockSize / scale, planeWidth(after, plane));
    const int32_t bottom = std::min(top + kMacroblockSize / scale, planeHeight(after, plane));
    for (int32_t y = top; y < bottom; ++y) {
      const uint8_t* one = before.plane[plane] + ptrdiff_t{y} * before.stride[plane] + left;
      const uint8_t* other = after.plane[plane] + ptrdiff_t{y} * after.stride[plane] + left;
      const auto width = static_cast<size_t>(right - left);
      const uint32_t covered = mask[static_cast<size_t>((y - top) * scale)];
      if (covered == kWholeRow || std::memcmp(one, other, width) == 0) continue;
      if (covered == 0) return true;
      for (size_t x = 0; x < width; ++x) {
        if (one[x] != other[x] && (covered >> (x * static_cast<size_t>(scale)) & 1) == 0)
          return true;
      }
    }
  }
  return false;
}

void copyBlock(const Picture& before, const Picture& picture, int32_t plane,
               const CopyBlock& block) {
  for (int32_t row = 0; row < block.height; ++row) {
    std::memcpy(
        picture.plane[plane] + ptrdiff_t{block.toY + row} * picture.stride[plane] + block.toX,
        before.plane[plane] + ptrdiff_t{block.fromY + row} * before.stride[plane] + block.fromX,
        static_cast<size_t>(block.width));
  }
}

}  // namespace

// Only the source follows the flags; odd destinations are rounded down and odd widths up, odd
// heights down, as the encoder does it.
CopyBlock blockOf(const service::RegionCopy& copy, int32_t plane) {
  if (plane == 0) {
    return {copy.sourceX,      copy.sourceY, copy.destinationX,
            copy.destinationY, copy.width,   copy.height};
  }
  const int32_t right = (copy.flags & service::kChromaRightFlag) != 0 ? 1 : 0;
  const int32_t down = (copy.flags & service::kChromaDownFlag) != 0 ? 1 : 0;
  return {copy.sourceX / 2 + right, copy.sourceY / 2 + down, copy.destinationX / 2,
          copy.destinationY / 2,    (copy.width + 1) / 2,    copy.height / 2};
}

const char* faultOf(const service::RegionCopy& copy, int32_t width, int32_t height) {
  const int32_t edges = copy.destinationX | copy.destinationY | copy.width | copy.height;
  if (copy.width == 0 || copy.height == 0) return "is empty";
  if (edges % 2 != 0) return "is not at even pixels";
  if ((copy.flags & ~(service::kChromaDownFlag | service::kChromaRightFlag)) != 0) {
    return "has unknown flags";
  }
  const int32_t right = (copy.flags & service::kChromaRightFlag) != 0 ? 2 : 0;
  const int32_t down = (copy.flags & service::kChromaDownFlag) != 0 ? 2 : 0;
  const bool inside = isInside(copy.destinationX, copy.width, width, 0) &&
                      isInside(copy.destinationY, copy.height, height, 0) &&
                      isInside(copy.sourceX, copy.width, width, right) &&
                      isInside(copy.sourceY, copy.height, height, down);
  return inside ? nullptr : "comes within 2 pixels of the picture's edge";
}

Area destinationOf(const service::RegionCopy& copy) {
  return {copy.destinationX, copy.destinationY, copy.width, copy.height};
}

Area wholeMacroblocks(const service::RegionCopy& copy) {
  const int32_t left = (copy.destinationX + kMacroblockSize - 1) / kMacroblockSize;
  const int32_t top = (copy.destinationY + kMacroblockSize - 1) / kMacroblockSize;
  const int32_t right = (copy.destinationX + copy.width) / kMacroblockSize;
  const int32_t bottom = (copy.destinationY + copy.height) / kMacroblockSize;
  if (right <= left || bottom <= top) return {};
  return {left * kMacroblockSize, top * kMacroblockSize, (right - left) * kMacroblockSize,
          (bottom - top) * kMacroblockSize};
}

void addDestinations(std::span<const service::RegionCopy> copies, Damage& cells) {
  for (const service::RegionCopy& copy : copies) cells.add(destinationOf(copy));
}

CopyMask maskOf(std::span<const service::RegionCopy> copies, int32_t column, int32_t row) {
  const int32_t left = column * kMacroblockSize;
  const int32_t top = row * kMacroblockSize;
  CopyMask mask{};
  for (const service::RegionCopy& copy : copies) {
    const int32_t from = std::clamp(copy.destinationX - left, 0, kMacroblockSize);
    const int32_t to = std::clamp(copy.destinationX + copy.width - left, 0, kMacroblockSize);
    const int32_t end = std::min(copy.destinationY + copy.height - top, kMacroblockSize);
    for (int32_t y = std::max(copy.destinationY - top, 0); y < end && from < to; ++y) {
      mask[static_cast<size_t>(y)] |= (1U << to) - (1U << from);
    }
  }
  return mask;
}

void removeCopied(const Picture& before, const Picture& after,
                  std::span<const service::RegionCopy> copies, Damage& changed) {
  Damage whole(changed.width(), changed.height());
  Damage touched = whole;
  for (const service::RegionCopy& copy : copies) {
    whole.add(wholeMacroblocks(copy));
    touched.add(destinationOf(copy));
  }
  changed.subtract(whole);
  touched.intersect(changed);
  touched.forEachCell([&](int32_t column, int32_t row) {
    if (!differBeside(before, after, maskOf(copies, column, row), column, row)) {
      changed.reset(column, row);
    }
  });
}

bool fits(const service::RegionCopy& copy, int32_t width, int32_t height) {
  const auto inside = [](const CopyBlock& block, int32_t columns, int32_t rows) {
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
