// SPDX-License-Identifier: BSD-2-Clause
// qora/client/damage.h -- Which macroblocks of a picture may have changed since it was last
// encoded.
//
// Capture systems report damage as rectangles: thousands at a time, overlapping, half outside the
// screen. Here each sets bits, one a macroblock, so adding is cheap, nothing is counted twice and
// what comes out fits a command. A bit that is set is an upper bound: the pixels there may be the
// same after all. refine() compares them. Plain memory; one thread at a time.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "qora/client/changed_rectangles.h"
#include "qora/client/picture.h"
#include "qora/service/wire/messages.h"

namespace qora::client {

// A rectangle of pixels, anywhere: it may begin left of the picture or above it, and one without
// width or height is empty.
struct Area {
  int32_t x, y, width, height;
  friend bool operator==(const Area&, const Area&) = default;
};

// Rectangles that a list of damage has at most unless asked otherwise: with the most copies that a
// frame takes, the command still fits the 64 KiB that the service's buffer begins with.
inline constexpr int32_t kDamageRectangles = 4096;

class Damage {
 public:
  Damage() = default;  // of a picture without pixels
  Damage(int32_t width, int32_t height) { resize(width, height); }

  // A picture of that size in pixels (0 to 65535), nothing of it damaged.
  void resize(int32_t width, int32_t height);
  int32_t width() const { return width_; }
  int32_t height() const { return height_; }
  int32_t columns() const { return columns_; }  // in macroblocks, partial ones counted
  int32_t rows() const { return rows_; }

  // Every macroblock that the area touches; what lies outside the picture is left out.
  void add(const Area& area);
  void addAll();
  // The next three take damage of a picture of the same size.
  void add(const Damage& other);
  void intersect(const Damage& other);
  void subtract(const Damage& other);
  void clear();

  // One macroblock, by its column and row; both inside.
  bool test(int32_t column, int32_t row) const {
    return (word(column, row) >> (column % 64) & 1) != 0;
  }
  void set(int32_t column, int32_t row) { word(column, row) |= uint64_t{1} << (column % 64); }
  void reset(int32_t column, int32_t row) { word(column, row) &= ~(uint64_t{1} << (column % 64)); }

  int32_t count() const;  // damaged macroblocks
  bool isEmpty() const;

  // Keeps what really differs between two pictures of this size; only damaged macroblocks are
  // looked at. Returns the number that is left.
  int32_t refine(const Picture& before, const Picture& after);

  // Lists the damage: runs of macroblocks, equal runs in neighbouring rows as one, clipped to the
  // picture, quantizer offset 0. Where that were more than `limit`, cells of twice the size are
  // listed, and so on: they cover undamaged macroblocks as well. Returns the number listed, -1 with
  // EINVAL for a limit below 1. No damage is an empty list, which the service understands
  // otherwise: see nothingChanged().
  int32_t list(std::vector<service::Rectangle>& rectangles,
               int32_t limit = kDamageRectangles) const;

  // Calls visit(row, first, end) for each run of damaged macroblocks, columns [first, end).
  template <typename Visit>
  void forEachRun(Visit visit) const;
  // Calls visit(column, row) for each damaged macroblock, row by row.
  template <typename Visit>
  void forEachCell(Visit visit) const;

 private:
  uint64_t& word(int32_t column, int32_t row) {
    return words_[static_cast<size_t>(row * rowWords_ + column / 64)];
  }
  const uint64_t& word(int32_t column, int32_t row) const {
    return words_[static_cast<size_t>(row * rowWords_ + column / 64)];
  }
  void addCells(int32_t firstColumn, int32_t lastColumn, int32_t firstRow, int32_t lastRow);

  int32_t width_ = 0;
  int32_t height_ = 0;
  int32_t columns_ = 0;
  int32_t rows_ = 0;
  int32_t rowWords_ = 0;
  std::vector<uint64_t> words_;  // row by row, the lowest bit is the leftmost; none set outside
};

template <typename Visit>
void Damage::forEachCell(Visit visit) const {
  for (int32_t row = 0; row < rows_; ++row) {
    for (int32_t at = 0; at < rowWords_; ++at) {
      for (uint64_t left = word(at * 64, row); left != 0; left &= left - 1) {
        visit(at * 64 + std::countr_zero(left), row);
      }
    }
  }
}

template <typename Visit>
void Damage::forEachRun(Visit visit) const {
  int32_t runRow = -1;
  int32_t first = 0;
  int32_t end = 0;
  forEachCell([&](int32_t column, int32_t row) {
    if (row == runRow && column == end) {
      ++end;
      return;
    }
    if (runRow != -1) visit(runRow, first, end);
    runRow = row;
    first = column;
    end = column + 1;
  });
  if (runRow != -1) visit(runRow, first, end);
}

}  // namespace qora::client
