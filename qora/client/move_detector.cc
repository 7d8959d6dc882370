// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/move_detector.h"

#include <algorithm>
#include <cassert>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <utility>

#include "qora/client/block_differences.h"
#include "qora/client/region_copies.h"

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

// Marks how the macroblocks of a run differ in a plane from what stands (x, y) samples on in
// `before`.
void markRun(const MoveSearch& search, const Run& run, int32_t plane, int32_t x, int32_t y,
             uint8_t* marks) {
  const int32_t side = plane == 0 ? kMacroblockSize : kMacroblockSize / 2;
  const int32_t left = run.first * side;
  const int32_t top = run.row * side;
  markBlocks(rowsAt(search.before, plane, left + x, top + y),
             rowsAt(search.after, plane, left, top), run.cells * side, side, side, search.tolerance,
             marks);
}

// Adds the macroblocks of a run that have none of the marks. Returns how many.
int32_t addUnmarked(const Run& run, const uint8_t* marks, uint8_t which, Damage& cells) {
  int32_t count = 0;
  for (int32_t at = 0; at < run.cells; ++at) {
    if ((marks[at] & which) != 0) continue;
    cells.set(run.first + at, run.row);
    ++count;
  }
  return count;
}

// Looks which macroblocks in columns [first, end) of a row are whole, may be copied and have the
// samples of their source, by each way to go the distance: in one pass, while they are at hand.
void matchRun(const MoveSearch& search, int32_t row, int32_t first, int32_t end, MoveMatch& match) {
  const Reach columns = reachable(match.dx, match.luma.width());
  const Reach rows = reachable(match.dy, match.luma.height());
  first = std::max(first, columns.first);
  const Run run = {row, first, std::min(end, columns.end) - first};
  if (row < rows.first || row >= rows.end || run.cells <= 0) return;
  const auto cells = static_cast<size_t>(run.cells);
  match.inLuma.assign(cells, 0);
  markRun(search, run, 0, match.dx, match.dy, match.inLuma.data());
  if (addUnmarked(run, match.inLuma.data(), kDiffers, match.luma) == 0) return;
  for (MoveWay& way : match.ways) {
    const int32_t x = (way.dx >> 1) + ((way.flags & service::kChromaRightFlag) != 0 ? 1 : 0);
    const int32_t y = (way.dy >> 1) + ((way.flags & service::kChromaDownFlag) != 0 ? 1 : 0);
    match.inAll = match.inLuma;
    for (uint8_t& mark : match.inAll) mark = mark != 0 ? kDiffers | kIsDistant : 0;
    for (const int32_t plane : {1, 2}) markRun(search, run, plane, x, y, match.inAll.data());
    addUnmarked(run, match.inAll.data(), search.tolerance > 0 ? kIsDistant : kDiffers, way.cells);
    way.exact += static_cast<int32_t>(std::count(match.inAll.begin(), match.inAll.end(), 0));
  }
}

void beginMatch(const MoveDistance& distance, const Picture& picture, MoveMatch& match) {
  match.dx = distance.dx;
  match.dy = distance.dy;
  match.luma.resize(picture.width, picture.height);
  match.ways.clear();
  for (const uint8_t flags : flagChoices(distance)) {
    match.ways.push_back({distance.dx, distance.dy, flags, 0, match.luma, {}});
  }
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
    // From far to near: mostly all of it is right, or what is furthest is not.
    for (int32_t pixels = kMacroblockSize; pixels > 0; pixels -= 2) {
      service::RegionCopy strip = copy;
      const int32_t start = before ? -pixels : copy.*length;
      strip.*source = static_cast<uint16_t>(strip.*source + start);
      strip.*destination = static_cast<uint16_t>(strip.*destination + start);
      strip.*length = static_cast<uint16_t>(pixels);
      if (!isRight(search, strip)) continue;
      copy.*length = static_cast<uint16_t>(copy.*length + pixels);
      if (!before) break;
      copy.*source = strip.*source;
      copy.*destination = strip.*destination;
      break;
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
  std::vector<uint8_t> marks(static_cast<size_t>(block.width / side + 2));
  for (int32_t done = 0, rows = 0; done < block.height; done += rows) {
    const int32_t y = block.toY + done;
    rows = std::min(side - y % side, block.height - done);
    std::fill(marks.begin(), marks.end(), uint8_t{0});
    const auto mark = [&](int32_t start, int32_t width, uint8_t* to) {
      markBlocks(rowsAt(before, plane, block.fromX + start, block.fromY + done),
                 rowsAt(picture, plane, block.toX + start, y), width, rows, side, kAnyDistance, to);
    };
    mark(0, head, marks.data());
    mark(head, block.width - head, marks.data() + 1);
    for (size_t at = 0; at < marks.size(); ++at) {
      const auto next = static_cast<int32_t>(at) - 1;
      const int32_t column = at == 0 ? block.toX / side : (block.toX + head) / side + next;
      if (marks[at] != 0) unequal.set(column, y / side);
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

// Takes what a distance explains off the macroblocks that remain, if it is worth it.
void MoveDetector::match(const MoveSearch& search, const MoveDistance& distance,
                         Damage& remaining) {
  beginMatch(distance, search.after, match_);
  remaining.forEachRun(
      [&](int32_t row, int32_t first, int32_t end) { matchRun(search, row, first, end, match_); });
  Damage& left = match_.luma;
  if (left.count() < kFewestMoved) return;
  const int32_t before = left.count();
  std::stable_sort(match_.ways.begin(), match_.ways.end(),
                   [](const MoveWay& a, const MoveWay& b) { return a.exact > b.exact; });
  for (MoveWay& way : match_.ways) {
    way.cells.intersect(left);
    left.subtract(way.cells);
  }
  // Of a move that is mostly in between chroma samples the encoder makes more than copies do: they
  // would take its neighbours' motion away from it.
  if (before - left.count() < std::max(kFewestMoved, before / 2)) return;
  for (MoveWay& way : match_.ways) {
    if (way.cells.isEmpty()) continue;
    remaining.subtract(way.cells);
    fill(search, way);
    ways_.push_back(std::move(way));
  }
}

// With what stands between the macroblocks and does no harm.
void MoveDetector::fill(const MoveSearch& search, MoveWay& way) {
  way.filled = way.cells;
  if (way.cells.count() < kFewestMoved) return;
  Damage spare(way.cells.width(), way.cells.height());
  spare.add(bounds(way.cells));
  spare.subtract(way.cells);
  MoveMatch between{way.dx, way.dy, {}, {}, {}, {}};
  between.luma.resize(spare.width(), spare.height());
  between.ways.push_back({way.dx, way.dy, way.flags, 0, between.luma, {}});
  spare.forEachRun(
      [&](int32_t row, int32_t first, int32_t end) { matchRun(search, row, first, end, between); });
  way.filled.add(between.ways.front().cells);
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

// Whether what changed may have moved as far as the last time, by a look at every fourth row.
bool MoveDetector::mayMoveOn(const MoveSearch& search, const Damage& changed) {
  if (distances_.best().empty()) return false;
  beginMatch(distances_.best().front(), search.after, match_);
  match_.ways.clear();  // luma will do
  int32_t looked = 0;
  changed.forEachRun([&](int32_t row, int32_t first, int32_t end) {
    if (row % 4 != 0) return;
    matchRun(search, row, first, end, match_);
    looked += end - first;
  });
  return match_.luma.count() >= looked / 4;
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
  const bool anyMoved = mayMoveOn(search, changed) && matchAll(search, moves.remaining);
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
