// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/picture_cells.h"

#include <algorithm>
#include <cstring>

namespace qora::client {
namespace {

// The cells of columns [first, end) in a row of macroblocks.
void copyRun(const Picture& from, const Picture& to, int32_t row, int32_t first, int32_t end) {
  for (int32_t plane = 0; plane < 3; ++plane) {
    const int32_t side = plane == 0 ? kMacroblockSize : kMacroblockSize / 2;
    const int32_t left = first * side;
    const int32_t width = std::min(end * side, planeWidth(from, plane)) - left;
    const int32_t bottom = std::min((row + 1) * side, planeHeight(from, plane));
    for (int32_t y = row * side; y < bottom; ++y) {
      const int64_t source = int64_t{y} * from.stride[plane] + left;
      const int64_t destination = int64_t{y} * to.stride[plane] + left;
      std::memcpy(to.plane[plane] + destination, from.plane[plane] + source,
                  static_cast<size_t>(width));
    }
  }
}

}  // namespace

void copyCells(const Picture& from, const Picture& to, const Damage& cells) {
  cells.forEachRun(
      [&](int32_t row, int32_t first, int32_t end) { copyRun(from, to, row, first, end); });
}

void PictureCells::resize(int32_t width, int32_t height, int32_t count) {
  width_ = width;
  height_ = height;
  layout_ = cellLayout(codedWidth(), codedHeight());
  segment_ = nullptr;
  acquired_ = 0;
  cells_.assign(static_cast<size_t>(count), {});
  for (Cell& cell : cells_) {
    cell.lacks.resize(codedWidth(), codedHeight());
    cell.lacks.addAll();
  }
}

void PictureCells::moveTo(uint8_t* segment, uint64_t start) {
  for (size_t i = 0; i < cells_.size() && segment_ != nullptr; ++i) {
    const uint64_t offset = layout_.size * i;
    if (cells_[i].users == 0) {
      cells_[i].lacks.addAll();
    } else {
      std::memcpy(segment + start + offset, segment_ + start_ + offset, layout_.size);
    }
  }
  segment_ = segment;
  start_ = start;
}

int32_t PictureCells::acquire() {
  const auto free =
      std::find_if(cells_.begin(), cells_.end(), [](const Cell& cell) { return cell.users == 0; });
  if (free == cells_.end()) return -1;
  free->users = 1;
  free->filling = true;
  ++acquired_;
  return static_cast<int32_t>(free - cells_.begin());
}

int32_t PictureCells::find(const Picture& given) const {
  for (size_t i = 0; i < cells_.size(); ++i) {
    const Picture ours = picture(static_cast<int32_t>(i));
    if (cells_[i].filling && given.width == ours.width && given.height == ours.height &&
        std::equal(ours.plane, ours.plane + 3, given.plane) &&
        std::equal(ours.stride, ours.stride + 3, given.stride)) {
      return static_cast<int32_t>(i);
    }
  }
  return -1;
}

void PictureCells::noteFilled(int32_t cell) {
  at(cell).filling = false;
  --acquired_;
}

void PictureCells::makePresent(int32_t cell, const Damage& changed) {
  for (Cell& other : cells_) other.lacks.add(changed);
  at(cell).lacks.clear();
}

void PictureCells::bringUpToDate(int32_t cell, int32_t present, const Damage* drawn) {
  if (present == -1 || present == cell) return;
  if (drawn != nullptr) {
    drawn->forEachCell([this, cell](int32_t x, int32_t y) { at(cell).lacks.reset(x, y); });
  }
  copyCells(coded(present), coded(cell), at(cell).lacks);
  at(cell).lacks.clear();
}

void PictureCells::repeatEdges(int32_t cell) const {
  const Picture all = coded(cell);
  uint8_t* const luma = all.plane[0];
  const auto stride = static_cast<size_t>(all.stride[0]);
  const auto width = static_cast<size_t>(width_);
  const auto height = static_cast<size_t>(height_);
  if (width_ % 2 != 0) {
    for (size_t y = 0; y < height; ++y) luma[y * stride + width] = luma[y * stride + width - 1];
  }
  if (height_ % 2 != 0) {
    std::memcpy(luma + height * stride, luma + (height - 1) * stride,
                static_cast<size_t>(all.width));
  }
}

}  // namespace qora::client
