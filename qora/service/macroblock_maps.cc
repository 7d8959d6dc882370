// SPDX-License-Identifier: BSD-2-Clause
#include "qora/service/macroblock_maps.h"

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstring>

namespace qora::service {
namespace {

// Pixels first .. first + length - 1 as macroblocks from `start` on. An empty rectangle that does
// not begin on a macroblock's edge still covers the one it stands in: parents that
// predict the maps count it too.
int32_t macroblocksFrom(int32_t start, int32_t first, int32_t length) {
  return ((first + length - 1) >> 4) - start + 1;
}

// 1, or 0 when nothing of the span lies before `limit`.
int32_t clip(int32_t start, int32_t limit, int32_t& count) {
  if (start + count <= limit) return 1;
  count = limit - start;
  return count > 0 ? 1 : 0;
}

// Four cells a store and eight stores a round: with one a round it takes twice as long as memset.
// `count` of 0 or less: nothing.
void fillRun(float* cells, int32_t count, float value) {
  using FourFloats = float __attribute__((vector_size(16)));
  constexpr int32_t kRound = 32;
  const FourFloats four = {value, value, value, value};
  for (; count >= kRound; count -= kRound, cells += kRound) {
    for (int32_t cell = 0; cell < kRound; cell += 4) memcpy(cells + cell, &four, sizeof four);
  }
  for (; count >= 4; count -= 4, cells += 4) memcpy(cells, &four, sizeof four);
  for (; count > 0; --count) *cells++ = value;
}

// A long run is its own beginning, copied: memcpy has wider stores than we may count on.
void fillFloats(float* cells, int32_t count, float value) {
  constexpr int32_t kPattern = 256;
  const int32_t pattern = count < 2 * kPattern ? count : kPattern;
  fillRun(cells, pattern, value);
  for (int32_t done = pattern; done < count; done += kPattern) {
    const int32_t copied = std::min(kPattern, count - done);
    memcpy(cells + done, cells, static_cast<size_t>(copied) * sizeof(float));
  }
}

size_t cellIndex(const MacroblockRange& range, int32_t row, const MacroblockMaps& maps) {
  return static_cast<size_t>(range.row + row) * maps.columns + range.column;
}

}  // namespace

int32_t coverRectangle(const Rectangle& rectangle, const MacroblockMaps& maps,
                       MacroblockRange& out) {
  out.column = rectangle.x >> 4;
  out.row = rectangle.y >> 4;
  out.columns = macroblocksFrom(out.column, rectangle.x, rectangle.width);
  out.rows = macroblocksFrom(out.row, rectangle.y, rectangle.height);
  if (clip(out.column, maps.columns, out.columns) == 0) return 0;
  return clip(out.row, maps.rows, out.rows);
}

float quantizerValue(int8_t offset, int32_t bitrateMode) {
  // One finer outside bitrate mode: parents send offsets that are tuned to it.
  return static_cast<float>(bitrateMode == 1 ? offset : offset - 1);
}

void markAllUnchanged(MacroblockMaps& maps) {
  memset(maps.info, 1, static_cast<size_t>(maps.columns) * maps.rows);
}

void fillRange(const MacroblockRange& range, float value, MacroblockMaps& maps) {
  assert(range.column >= 0 && range.column + range.columns <= maps.columns);
  assert(range.row >= 0 && range.row + range.rows <= maps.rows);
  // Rows from edge to edge are one long row.
  const bool wide = range.columns == maps.columns && range.rows > 0;
  const int32_t columns = wide ? range.columns * range.rows : range.columns;
  const int32_t rows = wide ? 1 : range.rows;
  for (int32_t row = 0; row < rows; ++row) {
    const size_t cell = cellIndex(range, row, maps);
    memset(maps.info + cell, 0, static_cast<size_t>(columns));
    fillFloats(maps.quantizer + cell, columns, value);
  }
}

int32_t applyRectangle(const Rectangle& rectangle, int32_t bitrateMode, MacroblockMaps& maps) {
  MacroblockRange range;
  if (coverRectangle(rectangle, maps, range) == 0) return 0;
  fillRange(range, quantizerValue(rectangle.quantizerOffset, bitrateMode), maps);
  return 1;
}

void fillRangePlainly(const MacroblockRange& range, float value, MacroblockMaps& maps) {
  for (int32_t row = 0; row < range.rows; ++row) {
    for (int32_t column = 0; column < range.columns; ++column) {
      maps.info[cellIndex(range, row, maps) + column] = 0;
      maps.quantizer[cellIndex(range, row, maps) + column] = value;
    }
  }
}

}  // namespace qora::service
