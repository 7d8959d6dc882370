// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/changed_rectangles.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "qora/client/block_differences.h"

namespace qora::client {
namespace {

constexpr int32_t kRowsAtOnce = 8;

int32_t cellsIn(int32_t pixels, int32_t cellSize) {
  return (pixels + cellSize - 1) / cellSize;
}

}  // namespace

int32_t mergeCells(const CellMap& map, int32_t width, int32_t height, int32_t limit,
                   std::vector<service::Rectangle>& list) {
  list.clear();
  // By column: the rectangle that began there last, if any; it can grow if it reaches this row.
  std::vector<int32_t> latest(static_cast<size_t>(map.columns), -1);
  for (int32_t row = 0; row < map.rows; ++row) {
    const uint8_t* cells = map.changed.data() + static_cast<ptrdiff_t>(row) * map.columns;
    const int32_t y = row * map.cellSize;
    const int32_t rowHeight = std::min(map.cellSize, height - y);
    for (int32_t column = 0; column < map.columns; ++column) {
      if (cells[column] == 0) continue;
      const int32_t first = column;
      while (column < map.columns && cells[column] != 0) ++column;
      const int32_t x = first * map.cellSize;
      const int32_t runWidth = std::min(column * map.cellSize, width) - x;

      int32_t& above = latest[static_cast<size_t>(first)];
      service::Rectangle* grown = above == -1 ? nullptr : &list[static_cast<size_t>(above)];
      if (grown != nullptr && grown->width == runWidth && grown->y + grown->height == y) {
        grown->height = static_cast<uint16_t>(grown->height + rowHeight);
        continue;
      }
      if (static_cast<int32_t>(list.size()) == limit) return 0;
      above = static_cast<int32_t>(list.size());
      list.push_back({.quantizerOffset = 0,
                      .x = static_cast<uint16_t>(x),
                      .y = static_cast<uint16_t>(y),
                      .width = static_cast<uint16_t>(runWidth),
                      .height = static_cast<uint16_t>(rowHeight)});
    }
  }
  return 1;
}

CellMap coarserMap(const CellMap& map) {
  CellMap coarse{.columns = (map.columns + 1) / 2,
                 .rows = (map.rows + 1) / 2,
                 .cellSize = map.cellSize * 2,
                 .changed = {}};
  coarse.changed.resize(static_cast<size_t>(coarse.columns) * static_cast<size_t>(coarse.rows));
  for (int32_t row = 0; row < map.rows; ++row) {
    for (int32_t column = 0; column < map.columns; ++column) {
      coarse.changed[static_cast<size_t>(row / 2 * coarse.columns + column / 2)] |=
          map.changed[static_cast<size_t>(row * map.columns + column)];
    }
  }
  return coarse;
}

int32_t listCells(const CellMap& map, int32_t width, int32_t height, int32_t limit,
                  std::vector<service::Rectangle>& list) {
  if (limit < 1) {
    errno = EINVAL;
    return -1;
  }
  if (mergeCells(map, width, height, limit, list) == 0) {
    CellMap coarse = coarserMap(map);
    // Ends at the latest with one cell over the whole picture.
    while (mergeCells(coarse, width, height, limit, list) == 0) coarse = coarserMap(coarse);
  }
  return static_cast<int32_t>(list.size());
}

void markChangedCells(const Picture& before, const Picture& after, int32_t row, int32_t first,
                      int32_t end, uint8_t* changed) {
  for (int32_t plane = 0; plane < 3; ++plane) {
    const int32_t blockSize = plane == 0 ? kMacroblockSize : kMacroblockSize / 2;
    const int32_t start = first * blockSize;
    const int32_t bytes = std::min(end * blockSize, planeWidth(after, plane)) - start;
    const int32_t last = std::min((row + 1) * blockSize, planeHeight(after, plane));
    for (int32_t y = row * blockSize; y < last; y += kRowsAtOnce) {
      const SampleRows ours = rowsAt(after, plane, start, y);
      const SampleRows theirs = rowsAt(before, plane, start, y);
      const int32_t rows = std::min(kRowsAtOnce, last - y);
      markBlocks(theirs, ours, bytes, rows, blockSize, kAnyDistance, changed + first);
      // Nothing is left to find once the row is changed from end to end.
      if (std::memchr(changed + first, 0, static_cast<size_t>(end - first)) == nullptr) return;
    }
  }
}

int32_t findChangedRectangles(const Picture& before, const Picture& after, int32_t limit,
                              ChangedRectangles& changes) {
  if (limit < 1) {
    errno = EINVAL;
    return -1;
  }
  CellMap map{.columns = cellsIn(after.width, kMacroblockSize),
              .rows = cellsIn(after.height, kMacroblockSize),
              .cellSize = kMacroblockSize,
              .changed = std::move(changes.map)};
  map.changed.assign(static_cast<size_t>(map.columns) * static_cast<size_t>(map.rows), 0);
  for (int32_t row = 0; row < map.rows; ++row) {
    uint8_t* changed = map.changed.data() + static_cast<ptrdiff_t>(row) * map.columns;
    markChangedCells(before, after, row, 0, map.columns, changed);
  }
  const int32_t listed = listCells(map, after.width, after.height, limit, changes.list);
  changes.map = std::move(map.changed);
  if (listed == -1) return -1;
  return static_cast<int32_t>(std::count(changes.map.begin(), changes.map.end(), 1));
}

}  // namespace qora::client
