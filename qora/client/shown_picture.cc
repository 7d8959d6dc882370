// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/shown_picture.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>

#include "qora/client/damage.h"
#include "qora/client/picture_cells.h"
#include "qora/client/region_copies.h"

namespace qora::client {
namespace {

// Calls visit(x, y) for each sample of a macroblock that the copies do not go to.
template <typename Visit>
void forEachRest(const Picture& picture, int32_t plane, int32_t column, int32_t row,
                 const CopyMask& mask, Visit&& visit) {
  const int32_t scale = plane == 0 ? 1 : 2;
  const int32_t side = kMacroblockSize / scale;
  const int32_t width = std::min(side, planeWidth(picture, plane) - column * side);
  const int32_t height = std::min(side, planeHeight(picture, plane) - row * side);
  for (int32_t y = 0; y < height; ++y) {
    const uint32_t bits = mask[static_cast<size_t>(y * scale)];
    for (int32_t x = 0; x < width; ++x) {
      if ((bits >> (x * scale) & 1) == 0) visit(column * side + x, row * side + y);
    }
  }
}

uint8_t& at(const Picture& picture, int32_t plane, int32_t x, int32_t y) {
  return picture.plane[plane][ptrdiff_t{y} * picture.stride[plane] + x];
}

// How much the rest of a macroblock differs from what was (dx, dy) pixels on.
int32_t changeOfRest(const Picture& picture, const Picture& before, int32_t column, int32_t row,
                     const CopyMask& mask, int32_t dx, int32_t dy) {
  int32_t sum = 0;
  forEachRest(picture, 0, column, row, mask, [&](int32_t x, int32_t y) {
    const int32_t fromX = std::clamp(x + dx, 0, before.width - 1);
    const int32_t fromY = std::clamp(y + dy, 0, before.height - 1);
    sum += std::abs(at(picture, 0, x, y) - at(before, 0, fromX, fromY));
  });
  return sum;
}

}  // namespace

void showWithoutCopies(const Picture& picture, const Picture& shown,
                       std::span<const service::Rectangle> rectangles,
                       std::span<const service::RegionCopy> copies) {
  Damage coded(picture.width, picture.height);
  for (const service::Rectangle& one : rectangles) {
    coded.add({one.x, one.y, one.width, one.height});
  }
  Damage copied(picture.width, picture.height);
  Damage whole = copied;
  for (const service::RegionCopy& copy : copies) {
    copied.add(destinationOf(copy));
    whole.add(wholeMacroblocks(copy));
  }
  Damage partly = copied;
  partly.subtract(whole);
  partly.intersect(coded);
  coded.subtract(copied);
  for (const service::RegionCopy& copy : copies) {
    Damage cells(picture.width, picture.height);
    cells.add(destinationOf(copy));
    cells.intersect(partly);
    partly.subtract(cells);
    const int32_t dx = copy.sourceX - copy.destinationX;
    const int32_t dy = copy.sourceY - copy.destinationY;
    cells.forEachCell([&](int32_t column, int32_t row) {
      const CopyMask mask = maskOf(copies, column, row);
      if (changeOfRest(picture, shown, column, row, mask, dx, dy) <
          changeOfRest(picture, shown, column, row, mask, 0, 0)) {
        coded.set(column, row);
        return;
      }
      for (int32_t plane = 0; plane < 3; ++plane) {
        forEachRest(picture, plane, column, row, mask, [&](int32_t x, int32_t y) {
          at(shown, plane, x, y) = at(picture, plane, x, y);
        });
      }
    });
  }
  copyCells(picture, shown, coded);
}

}  // namespace qora::client
