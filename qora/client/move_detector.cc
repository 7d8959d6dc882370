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
  const auto& [before, after, tolerance] = search;
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
      if (different[static_cast<size_t>(column - first)] == 0) equal.set(column, row);
    }
  });
  return equal;
}

// The ways to go a distance with the macroblocks for which each is exact in chroma, the best first.
std::vector<MoveWay> waysOf(const MoveSearch& search, const MoveDistance& distance,
                            const Damage& cells) {
  const MoveSearch exact = {search.before, search.after, 0};
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

// Whether a copy makes its destination what it is, to the tolerance.
bool isRight(const MoveSearch& search, const service::RegionCopy& copy) {
  const auto& [before, after, tolerance] = search;
  if (faultOf(copy, after.width, after.height) != nullptr) return false;
  for (int32_t plane = 0; plane < 3; ++plane) {
    const CopyBlock block = blockOf(copy, plane);
    for (int32_t row = 0; row < block.height; ++row) {
      const uint8_t* from =
          before.plane[plane] + ptrdiff_t{block.fromY + row} * before.stride[plane] + block.fromX;
      const uint8_t* to =
          after.plane[plane] + ptrdiff_t{block.toY + row} * after.stride[plane] + block.toX;
      const bool within = plane == 0 || tolerance == 0
                              ? std::memcmp(from, to, static_cast<size_t>(block.width)) == 0
                              : std::equal(to, to + block.width, from,
                                           [tolerance = tolerance](uint8_t a, uint8_t b) {
                                             return std::abs(a - b) <= tolerance;
                                           });
      if (!within) return false;
    }
  }
  return true;
}

// What moved does not end where a macroblock does. Two pixels at a time, on each side.
void grow(const MoveSearch& search, service::RegionCopy& copy) {
  const struct {
    bool before, vertical;
  } sides[] = {{true, true}, {false, true}, {true, false}, {false, false}};
  for (const auto& [before, vertical] : sides) {
    uint16_t service::RegionCopy::*const source =
        vertical ? &service::RegionCopy::sourceY : &service::RegionCopy::sourceX;
    uint16_t service::RegionCopy::*const destination =
        vertical ? &service::RegionCopy::destinationY : &service::RegionCopy::destinationX;
    uint16_t service::RegionCopy::*const length =
        vertical ? &service::RegionCopy::height : &service::RegionCopy::width;
    for (int32_t step = 0; step < kMacroblockSize / 2; ++step) {
      service::RegionCopy strip = copy;
      const int32_t start = before ? -2 : copy.*length;
      strip.*source = static_cast<uint16_t>(strip.*source + start);
      strip.*destination = static_cast<uint16_t>(strip.*destination + start);
      strip.*length = 2;
      if (!isRight(search, strip)) break;
      copy.*length = static_cast<uint16_t>(copy.*length + 2);
      if (!before) continue;
      copy.*source = strip.*source;
      copy.*destination = strip.*destination;
    }
  }
}

// Whether one copy makes all of the other as well.
bool contains(const service::RegionCopy& one, const service::RegionCopy& other) {
  return one.flags == other.flags &&
         one.sourceX - one.destinationX == other.sourceX - other.destinationX &&
         one.sourceY - one.destinationY == other.sourceY - other.destinationY &&
         one.destinationX <= other.destinationX && one.destinationY <= other.destinationY &&
         one.destinationX + one.width >= other.destinationX + other.width &&
         one.destinationY + one.height >= other.destinationY + other.height;
}

// Marks the macroblocks in which a copy would change a plane of the picture.
void markUnequal(const Picture& before, const Picture& picture, const service::RegionCopy& copy,
                 int32_t plane, Damage& unequal) {
  const CopyBlock block = blockOf(copy, plane);
  const int32_t side = plane == 0 ? kMacroblockSize : kMacroblockSize / 2;
  const int32_t head = std::min((side - block.toX % side) % side, block.width);
  std::vector<uint8_t> different(static_cast<size_t>(block.width / side + 2));
  for (int32_t row = 0; row < block.height; ++row) {
    const int32_t y = block.toY + row;
    const uint8_t* from =
        before.plane[plane] + ptrdiff_t{block.fromY + row} * before.stride[plane] + block.fromX;
    const uint8_t* to = picture.plane[plane] + ptrdiff_t{y} * picture.stride[plane] + block.toX;
    markDifferentBlocks(from, to, head, side, different.data());
    markDifferentBlocks(from + head, to + head, block.width - head, side, different.data() + 1);
    if (y % side != side - 1 && row != block.height - 1) continue;
    for (size_t at = 0; at < different.size(); ++at) {
      if (different[at] == 0) continue;
      const auto next = static_cast<int32_t>(at) - 1;
      unequal.set(at == 0 ? block.toX / side : (block.toX + head) / side + next, y / side);
      different[at] = 0;
    }
  }
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

void MoveDetector::listCopies(const MoveSearch& search, Moves& moves) {
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
  for (Candidate& candidate : candidates_) {
    const auto isMade = [&candidate](const service::RegionCopy& made) {
      return contains(made, candidate.copy);
    };
    if (std::any_of(moves.copies.begin(), moves.copies.end(), isMade)) continue;
    grow(search, candidate.copy);
    moves.copies.push_back(candidate.copy);
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
                           Moves& moves, int32_t tolerance) {
  assert(before.width == after.width && before.height == after.height);
  assert(changed.width() == after.width && changed.height() == after.height);
  moves.copies.clear();
  moves.remaining = changed;
  if (changed.count() < kFewestMoved) return 0;
  const MoveSearch search = {before, after, tolerance};
  // What scrolls on goes as far as it went, and leaves about as much as it left.
  const bool anyMoved = matchAll(search, moves.remaining);
  const int32_t left = moves.remaining.count();
  const bool isAsBefore = std::abs(left - unexplained_) <= unexplained_ / 4;
  const bool isLittle = left <= changed.count() / 16 && left <= 2 * unexplained_;
  if (!anyMoved || !(isAsBefore || isLittle)) {
    distances_.find(before, after, changed);
    moves.remaining = changed;
    if (!matchAll(search, moves.remaining)) distances_.forget();
    unexplained_ = moves.remaining.count();
  }
  listCopies(search, moves);
  moves.remaining = changed;
  removeCopied(before, after, moves.copies, moves.remaining);
  return changed.count() - moves.remaining.count();
}

int32_t adoptMoves(const Picture& before, const Picture& picture, const Moves& moves,
                   Damage& owed) {
  Damage unequal(picture.width, picture.height);
  Damage cells = unequal;
  for (const service::RegionCopy& copy : moves.copies) {
    cells.clear();
    for (const int32_t plane : {1, 2}) markUnequal(before, picture, copy, plane, cells);
    if (!cells.isEmpty()) copyRegions(before, picture, {&copy, 1}, 1);
    unequal.add(cells);
  }
  owed.add(unequal);
  return unequal.count();
}

}  // namespace qora::client
