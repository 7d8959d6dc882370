// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/move_detector.h"

#include <algorithm>
#include <cassert>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <utility>

#include "qora/client/changed_rectangles.h"
#include "qora/client/region_copies.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace qora::client {
namespace {

// Cells whose source, and which themselves, keep off the edges: [first, end) in one direction.
struct Reach {
  int32_t first, end;
};
Reach reachable(int32_t distance, int32_t pixels) {
  const int32_t from = std::max(kCopyEdge, kCopyEdge - distance);
  const int32_t to = std::min(pixels - kCopyEdge, pixels - kCopyEdge - distance);
  return {(from + kMacroblockSize - 1) / kMacroblockSize, std::max(to, 0) / kMacroblockSize};
}

// Which chroma samples a copy begins with is by its flags: where an odd distance leads between two,
// either may be the one that matches.
std::vector<uint8_t> flagChoices(const MoveDistance& distance) {
  std::vector<uint8_t> choices = {0};
  const bool right = (distance.dx & 1) != 0;
  const bool down = (distance.dy & 1) != 0;
  if (right) choices.push_back(service::kChromaRightFlag);
  if (down) choices.push_back(service::kChromaDownFlag);
  if (right && down) choices.push_back(service::kChromaRightFlag | service::kChromaDownFlag);
  return choices;
}

// Some macroblocks of a row: columns [first, first + cells).
struct Run {
  int32_t row, first, cells;
};

// Marks the macroblocks that differ in a plane from what stands (x, y) samples on in `before`.
void markDifferent(const MoveSearch& search, const Run& run, int32_t plane, int32_t x, int32_t y,
                   uint8_t* different) {
  const auto& [before, after, unfit, tolerance] = search;
  const int32_t side = plane == 0 ? kMacroblockSize : kMacroblockSize / 2;
  const int32_t left = run.first * side;
  for (int32_t top = run.row * side; top < (run.row + 1) * side; ++top) {
    const uint8_t* to = after.plane[plane] + ptrdiff_t{top} * after.stride[plane] + left;
    const uint8_t* from =
        before.plane[plane] + ptrdiff_t{top + y} * before.stride[plane] + left + x;
    if (plane == 0 || tolerance == 0) {
      markDifferentBlocks(from, to, run.cells * side, side, different);
    } else {
      markDistantBlocks(from, to, run.cells * side, tolerance, different);
    }
    if (std::memchr(different, 0, static_cast<size_t>(run.cells)) == nullptr) return;
  }
}

// Whether a macroblock at this place, aligned or not, touches a marked one.
bool touches(const Damage& cells, int32_t x, int32_t y) {
  const int32_t right = (x + kMacroblockSize - 1) / kMacroblockSize;
  const int32_t bottom = (y + kMacroblockSize - 1) / kMacroblockSize;
  return cells.test(x / kMacroblockSize, y / kMacroblockSize) ||
         cells.test(right, y / kMacroblockSize) || cells.test(x / kMacroblockSize, bottom) ||
         cells.test(right, bottom);
}

// The macroblocks among `cells` that are whole, may be copied and have the samples of their source
// in the planes.
Damage equalCells(const MoveSearch& search, const MoveWay& way, const Damage& cells,
                  std::initializer_list<int32_t> planes) {
  const Reach columns = reachable(way.dx, cells.width());
  const Reach rows = reachable(way.dy, cells.height());
  const int32_t chromaX = (way.dx >> 1) + ((way.flags & service::kChromaRightFlag) != 0 ? 1 : 0);
  const int32_t chromaY = (way.dy >> 1) + ((way.flags & service::kChromaDownFlag) != 0 ? 1 : 0);
  Damage equal(cells.width(), cells.height());
  std::vector<uint8_t> different(static_cast<size_t>(cells.columns()));
  cells.forEachRun([&](int32_t row, int32_t runFirst, int32_t runEnd) {
    const int32_t first = std::max(runFirst, columns.first);
    const Run run = {row, first, std::min(runEnd, columns.end) - first};
    if (row < rows.first || row >= rows.end || run.cells <= 0) return;
    std::fill_n(different.begin(), run.cells, uint8_t{0});
    for (const int32_t plane : planes) {
      markDifferent(search, run, plane, plane == 0 ? way.dx : chromaX,
                    plane == 0 ? way.dy : chromaY, different.data());
    }
    for (int32_t column = first; column < first + run.cells; ++column) {
      const bool fit =
          search.unfit == nullptr || !touches(*search.unfit, column * kMacroblockSize + way.dx,
                                              row * kMacroblockSize + way.dy);
      if (fit && different[static_cast<size_t>(column - first)] == 0) equal.set(column, row);
    }
  });
  return equal;
}

// The ways to go a distance with the macroblocks for which each is exact in chroma, the best first.
std::vector<MoveWay> waysOf(const MoveSearch& search, const MoveDistance& distance,
                            const Damage& cells) {
  const MoveSearch exact = {search.before, search.after, nullptr, 0};
  std::vector<MoveWay> ways;
  for (const uint8_t flags : flagChoices(distance)) {
    MoveWay way = {distance.dx, distance.dy, flags, {}, {}};
    way.cells = equalCells(exact, way, cells, {1, 2});
    ways.push_back(std::move(way));
  }
  std::stable_sort(ways.begin(), ways.end(), [](const MoveWay& a, const MoveWay& b) {
    return a.cells.count() > b.cells.count();
  });
  return ways;
}

// The smallest rectangle around the macroblocks.
Area bounds(const Damage& cells) {
  int32_t left = cells.columns(), right = 0, top = cells.rows(), bottom = 0;
  cells.forEachRun([&](int32_t row, int32_t first, int32_t end) {
    left = std::min(left, first);
    right = std::max(right, end);
    top = std::min(top, row);
    bottom = row + 1;
  });
  return {left * kMacroblockSize, top * kMacroblockSize, (right - left) * kMacroblockSize,
          (bottom - top) * kMacroblockSize};
}

}  // namespace

void markDistantBlocksPlain(const uint8_t* before, const uint8_t* after, int32_t bytes,
                            int32_t tolerance, uint8_t* distant) {
  for (int32_t i = 0; i < bytes; ++i) {
    if (std::abs(before[i] - after[i]) > tolerance) distant[i / 8] = 1;
  }
}

void markDistantBlocks(const uint8_t* before, const uint8_t* after, int32_t bytes,
                       int32_t tolerance, uint8_t* distant) {
  int32_t done = 0;
#if defined(__SSE2__)
  const __m128i allowed = _mm_set1_epi8(static_cast<char>(std::min(tolerance, 255)));
  for (; done + 16 <= bytes; done += 16) {
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(before + done));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(after + done));
    const __m128i distance = _mm_or_si128(_mm_subs_epu8(a, b), _mm_subs_epu8(b, a));
    const __m128i within = _mm_cmpeq_epi8(_mm_subs_epu8(distance, allowed), _mm_setzero_si128());
    const int far = _mm_movemask_epi8(within) ^ 0xFFFF;
    distant[done / 8] |= static_cast<uint8_t>((far & 0x00FF) != 0);
    distant[done / 8 + 1] |= static_cast<uint8_t>((far & 0xFF00) != 0);
  }
#endif
  markDistantBlocksPlain(before + done, after + done, bytes - done, tolerance, distant + done / 8);
}

void MoveDetector::match(const MoveSearch& search, const MoveDistance& distance,
                         Damage& remaining) {
  const auto& [dx, dy, votes] = distance;
  Damage left = equalCells(search, {dx, dy, 0, {}, {}}, remaining, {0});
  if (left.count() < kFewestMoved) return;
  std::vector<MoveWay> ways = waysOf(search, distance, left);
  const int32_t before = left.count();
  for (MoveWay& way : ways) {
    if (search.tolerance > 0) way.cells = equalCells(search, way, left, {1, 2});
    way.cells.intersect(left);
    left.subtract(way.cells);
  }
  // Of a move that is mostly in between chroma samples the encoder makes more than copies do: they
  // would take its neighbours' motion away from it.
  if (before - left.count() < std::max(kFewestMoved, before / 2)) return;
  for (MoveWay& way : ways) {
    if (way.cells.isEmpty()) continue;
    remaining.subtract(way.cells);
    fill(search, way);
    ways_.push_back(std::move(way));
  }
}

void MoveDetector::fill(const MoveSearch& search, MoveWay& way) {
  way.filled = way.cells;
  if (way.cells.count() < kFewestMoved) return;
  Damage spare(way.cells.width(), way.cells.height());
  spare.add(bounds(way.cells));
  spare.subtract(way.cells);
  way.filled.add(equalCells(search, way, spare, {0, 1, 2}));
}

void MoveDetector::listCopies(Moves& moves) {
  candidates_.clear();
  for (const MoveWay& way : ways_) {
    // The fewer rectangles: with what stands between the macroblocks, or without.
    const int32_t exact = way.cells.list(rectangles_, INT_MAX);
    if (way.filled.list(filledRectangles_, INT_MAX) < exact) rectangles_.swap(filledRectangles_);
    for (const service::Rectangle& one : rectangles_) addCandidate(way, one);
  }
  const auto most = std::min<ptrdiff_t>(kMostCopies, std::ssize(candidates_));
  std::partial_sort(candidates_.begin(), candidates_.begin() + most, candidates_.end(),
                    [](const Candidate& a, const Candidate& b) { return a.cells > b.cells; });
  candidates_.resize(static_cast<size_t>(most));
  for (const Candidate& candidate : candidates_) {
    const service::RegionCopy& copy = candidate.copy;
    moves.copies.push_back(copy);
    moves.covered.add({copy.destinationX, copy.destinationY, copy.width, copy.height});
  }
}

void MoveDetector::addCandidate(const MoveWay& way, const service::Rectangle& rectangle) {
  Damage moved(way.cells.width(), way.cells.height());
  moved.add({rectangle.x, rectangle.y, rectangle.width, rectangle.height});
  moved.intersect(way.cells);
  const int32_t cells = moved.count();
  if (cells == 0) return;
  const Area to = bounds(moved);
  candidates_.push_back({cells,
                         {.flags = way.flags,
                          .sourceX = static_cast<uint16_t>(to.x + way.dx),
                          .sourceY = static_cast<uint16_t>(to.y + way.dy),
                          .destinationX = static_cast<uint16_t>(to.x),
                          .destinationY = static_cast<uint16_t>(to.y),
                          .width = static_cast<uint16_t>(to.width),
                          .height = static_cast<uint16_t>(to.height)}});
}

// Tries the distances one after another. Whether anything moved.
bool MoveDetector::matchAll(const MoveSearch& search, Damage& remaining) {
  ways_.clear();
  for (const MoveDistance& distance : distances_.best()) match(search, distance, remaining);
  return !ways_.empty();
}

int32_t MoveDetector::find(const Picture& before, const Picture& after, const Damage& changed,
                           const Damage* unfit, Moves& moves, int32_t tolerance) {
  assert(before.width == after.width && before.height == after.height);
  assert(changed.width() == after.width && changed.height() == after.height);
  moves.copies.clear();
  moves.covered.resize(after.width, after.height);
  moves.remaining = changed;
  if (changed.count() < kFewestMoved) return 0;
  const MoveSearch search = {before, after, unfit, tolerance};
  // What scrolls on goes as far as it went, and leaves as little as it left.
  matchAll(search, moves.remaining);
  const int32_t left = moves.remaining.count();
  if (left > changed.count() / 16 || left > 2 * unexplained_) {
    distances_.find(before, after, changed);
    moves.remaining = changed;
    if (!matchAll(search, moves.remaining)) distances_.forget();
    unexplained_ = moves.remaining.count();
  }
  listCopies(moves);
  moves.remaining = changed;
  moves.remaining.subtract(moves.covered);
  return changed.count() - moves.remaining.count();
}

int32_t adoptMoves(const Picture& before, const Picture& picture, const Moves& moves,
                   Damage& owed) {
  Damage unequal(picture.width, picture.height);
  for (const service::RegionCopy& copy : moves.copies) {
    const MoveWay way = {
        copy.sourceX - copy.destinationX, copy.sourceY - copy.destinationY, copy.flags, {}, {}};
    Damage cells(picture.width, picture.height);
    cells.add({copy.destinationX, copy.destinationY, copy.width, copy.height});
    cells.subtract(equalCells({before, picture, nullptr, 0}, way, cells, {1, 2}));
    if (!cells.isEmpty()) copyRegions(before, picture, {&copy, 1}, 1);
    unequal.add(cells);
  }
  owed.add(unequal);
  return unequal.count();
}

}  // namespace qora::client
