// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/damage.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <functional>

namespace qora::client {
namespace {

// The bits [first, last] of a word; both are clipped to it.
uint64_t bits(int32_t first, int32_t last) {
  const int32_t low = std::max(first, 0);
  const int32_t high = std::min(last, 63);
  return ~uint64_t{0} >> (63 - (high - low)) << low;
}

// Macroblocks that [start, start + length) touches in a picture of `pixels`: first and last; none
// when last < first. 64 bits: both numbers may be anything.
struct Span {
  int32_t first, last;
};
Span touched(int32_t start, int32_t length, int32_t pixels) {
  const int64_t from = std::max<int64_t>(start, 0);
  const int64_t to = std::min<int64_t>(int64_t{start} + length, pixels);
  if (to <= from) return {0, -1};
  return {static_cast<int32_t>(from / kMacroblockSize),
          static_cast<int32_t>((to - 1) / kMacroblockSize)};
}

}  // namespace

void Damage::resize(int32_t width, int32_t height) {
  width_ = width;
  height_ = height;
  columns_ = (width + kMacroblockSize - 1) / kMacroblockSize;
  rows_ = (height + kMacroblockSize - 1) / kMacroblockSize;
  rowWords_ = (columns_ + 63) / 64;
  words_.assign(static_cast<size_t>(rowWords_) * static_cast<size_t>(rows_), 0);
}

void Damage::add(const Area& area) {
  const Span columns = touched(area.x, area.width, width_);
  const Span rows = touched(area.y, area.height, height_);
  if (columns.last < columns.first) return;
  addCells(columns.first, columns.last, rows.first, rows.last);
}

void Damage::addAll() {
  if (columns_ > 0) addCells(0, columns_ - 1, 0, rows_ - 1);
}

void Damage::addCells(int32_t firstColumn, int32_t lastColumn, int32_t firstRow, int32_t lastRow) {
  for (int32_t at = firstColumn / 64; at <= lastColumn / 64; ++at) {
    const uint64_t mask = bits(firstColumn - at * 64, lastColumn - at * 64);
    for (int32_t row = firstRow; row <= lastRow; ++row) word(at * 64, row) |= mask;
  }
}

void Damage::add(const Damage& other) {
  assert(other.width_ == width_ && other.height_ == height_);
  std::transform(words_.begin(), words_.end(), other.words_.begin(), words_.begin(),
                 std::bit_or<>());
}

void Damage::intersect(const Damage& other) {
  assert(other.width_ == width_ && other.height_ == height_);
  std::transform(words_.begin(), words_.end(), other.words_.begin(), words_.begin(),
                 std::bit_and<>());
}

void Damage::subtract(const Damage& other) {
  assert(other.width_ == width_ && other.height_ == height_);
  std::transform(words_.begin(), words_.end(), other.words_.begin(), words_.begin(),
                 [](uint64_t ours, uint64_t theirs) { return ours & ~theirs; });
}

void Damage::clear() {
  std::fill(words_.begin(), words_.end(), 0);
}

int32_t Damage::count() const {
  int32_t cells = 0;
  for (const uint64_t bitsOfWord : words_) cells += std::popcount(bitsOfWord);
  return cells;
}

bool Damage::isEmpty() const {
  return std::all_of(words_.begin(), words_.end(), [](uint64_t cells) { return cells == 0; });
}

int32_t Damage::refine(const Picture& before, const Picture& after) {
  assert(after.width == width_ && after.height == height_);
  std::vector<uint8_t> changed(static_cast<size_t>(columns_));
  forEachRun([&](int32_t row, int32_t first, int32_t end) {
    std::fill(changed.begin() + first, changed.begin() + end, uint8_t{0});
    markChangedCells(before, after, row, first, end, changed.data());
    for (int32_t column = first; column < end; ++column) {
      if (changed[static_cast<size_t>(column)] == 0) reset(column, row);
    }
  });
  return count();
}

int32_t Damage::list(std::vector<service::Rectangle>& rectangles, int32_t limit) const {
  CellMap map{.columns = columns_,
              .rows = rows_,
              .cellSize = kMacroblockSize,
              .changed = std::vector<uint8_t>(static_cast<size_t>(columns_ * rows_))};
  forEachCell([&map](int32_t column, int32_t row) {
    map.changed[static_cast<size_t>(row * map.columns + column)] = 1;
  });
  return listCells(map, width_, height_, limit, rectangles);
}

}  // namespace qora::client
