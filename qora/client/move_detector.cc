// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/move_detector.h"

#include <algorithm>
#include <bit>
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

// --- anchors ---

// The sum of 16 samples in each of two rows by these weights is mixed: black and white text has few
// kinds of one row. A pair of weights times samples fits a signed word.
constexpr int8_t kWeights[2][16] = {
    {53, -71, 37, 89, -61, 43, 67, -59, -31, 97, 73, -47, 29, 83, -79, 41},
    {-43, 61, -83, -29, 71, 53, -37, 79, 59, -67, 31, -89, 97, 23, 47, -73}};
constexpr uint16_t kFirstMix = 0x9E37;
constexpr uint16_t kSecondMix = 0x85EB;
constexpr int32_t kPlaceWidth = 16;  // samples
constexpr int32_t kPlaceHeight = 4;  // rows: the second one is the last

bool isAnchor(const uint8_t* upper, const uint8_t* lower) {
  if (std::memcmp(upper, upper + 1, 7) == 0) return false;
  int32_t sum = 0;
  for (int32_t i = 0; i < kPlaceWidth; ++i) {
    sum += kWeights[0][i] * upper[i] + kWeights[1][i] * lower[i];
  }
  auto mixed = static_cast<uint16_t>(static_cast<uint32_t>(sum) * kFirstMix);
  mixed = static_cast<uint16_t>((mixed ^ mixed >> 7) * uint32_t{kSecondMix});
  return mixed >> 8 == 0;
}

#if defined(__x86_64__)

[[gnu::target("avx2")]] __m256i load(const uint8_t* samples) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(samples));
}

// Of word i: the weighted sum of the 16 samples from 2 * i on.
[[gnu::target("avx2")]] __m256i weighedSums(const uint8_t* samples, const int8_t weights[16]) {
  __m256i sum = _mm256_setzero_si256();
  for (int32_t i = 0; i < kPlaceWidth; i += 2) {
    int16_t pair;
    std::memcpy(&pair, weights + i, sizeof pair);
    sum = _mm256_add_epi16(sum, _mm256_maddubs_epi16(load(samples + i), _mm256_set1_epi16(pair)));
  }
  return sum;
}

// All bits of word i set where the place 2 * i on has the mixed sum of an anchor.
[[gnu::target("avx2")]] __m256i anchorWords(const uint8_t* upper, const uint8_t* lower) {
  const __m256i sum =
      _mm256_add_epi16(weighedSums(upper, kWeights[0]), weighedSums(lower, kWeights[1]));
  __m256i mixed = _mm256_mullo_epi16(sum, _mm256_set1_epi16(static_cast<int16_t>(kFirstMix)));
  mixed = _mm256_mullo_epi16(_mm256_xor_si256(mixed, _mm256_srli_epi16(mixed, 7)),
                             _mm256_set1_epi16(static_cast<int16_t>(kSecondMix)));
  return _mm256_cmpeq_epi16(_mm256_srli_epi16(mixed, 8), _mm256_setzero_si256());
}

// The marks of 32 places; reads 47 samples of each row.
[[gnu::target("avx2")]] uint32_t anchors32(const uint8_t* upper, const uint8_t* lower) {
  __m256i flat = _mm256_cmpeq_epi8(load(upper), load(upper + 1));
  // Most of a desktop is flat.
  if (_mm256_movemask_epi8(flat) == -1 && std::memcmp(upper + 31, upper + 32, 7) == 0) return 0;
  for (int32_t i = 2; i < 8; ++i) {
    flat = _mm256_and_si256(flat, _mm256_cmpeq_epi8(load(upper), load(upper + i)));
  }
  const __m256i words =
      _mm256_blendv_epi8(anchorWords(upper, lower), anchorWords(upper + 1, lower + 1),
                         _mm256_set1_epi16(static_cast<int16_t>(0xFF00)));
  return static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_andnot_si256(flat, words)));
}

[[gnu::target("avx2")]] int32_t markAnchorsWide(const uint8_t* upper, const uint8_t* lower,
                                                int32_t count, uint64_t* marks) {
  int32_t done = 0;
  for (; done + 32 <= count; done += 32) {
    const uint64_t found = anchors32(upper + done, lower + done);
    if (done % 64 == 0) {
      marks[done / 64] = found;
    } else {
      marks[done / 64] |= found << 32;
    }
  }
  return done;
}

#endif

void markFrom(int32_t done, const uint8_t* upper, const uint8_t* lower, int32_t count,
              uint64_t* marks) {
  for (int32_t i = done; i < count; ++i) {
    if (i % 64 == 0) marks[i / 64] = 0;
    if (isAnchor(upper + i, lower + i)) marks[i / 64] |= uint64_t{1} << (i % 64);
  }
}

uint64_t readSamples(const uint8_t* samples) {
  uint64_t eight;
  std::memcpy(&eight, samples, sizeof eight);
  return eight;
}
uint64_t mix(uint64_t key, uint64_t samples) {
  key = (key ^ samples) * 0x9E3779B97F4A7C15U;
  return key ^ key >> 29;
}
uint64_t keyAt(const Picture& picture, int32_t x, int32_t y) {
  const uint8_t* upper = picture.plane[0] + ptrdiff_t{y} * picture.stride[0] + x;
  const uint8_t* lower = upper + ptrdiff_t{kPlaceHeight - 1} * picture.stride[0];
  return mix(mix(mix(mix(0, readSamples(upper)), readSamples(upper + 8)), readSamples(lower)),
             readSamples(lower + 8));
}

// Calls visit(x, y) for the anchors in the changed macroblocks, on every rowStep-th row.
template <typename Visit>
void forEachAnchor(const Picture& picture, const Damage& changed, int32_t rowStep, Visit visit) {
  uint64_t marks[1024 + 1];  // a row of 65535
  changed.forEachRun([&](int32_t row, int32_t first, int32_t end) {
    const int32_t left = first * kMacroblockSize;
    const int32_t count = std::min(end * kMacroblockSize, picture.width - kPlaceWidth + 1) - left;
    const int32_t bottom = std::min((row + 1) * kMacroblockSize, picture.height - kPlaceHeight + 1);
    // Regular patterns may be anchors at every place; some of them will do.
    const int32_t most = 4 + (end - first) / 4;
    for (int32_t y = row * kMacroblockSize; y < bottom && count > 0; y += rowStep) {
      const uint8_t* upper = picture.plane[0] + ptrdiff_t{y} * picture.stride[0] + left;
      markAnchors(upper, upper + ptrdiff_t{kPlaceHeight - 1} * picture.stride[0], count, marks);
      int32_t found = 0;
      for (int32_t at = 0; at < count && found < most; at += 64) {
        for (uint64_t bits = marks[at / 64]; bits != 0 && found < most; bits &= bits - 1) {
          visit(left + at + std::countr_zero(bits), y);
          ++found;
        }
      }
    }
  });
}

constexpr int32_t kChains = 1 << 14;
constexpr int32_t kMostAnchors = 1 << 16;
constexpr int32_t kLongestChain = 16;
// More of one kind say nothing of where it went.
constexpr int32_t kMostPartners = 4;

// --- votes ---

constexpr int32_t kVoteSlots = 1 << 13;
constexpr int32_t kFewestVotes = 4;
constexpr int32_t kMostDistances = 4;

// Of much change a part of the rows says enough.
int32_t rowStepFor(int32_t cells) {
  if (cells > 2000) return 4;
  return cells > 500 ? 2 : 1;
}

// --- the comparison ---

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

void markAnchorsPlain(const uint8_t* upper, const uint8_t* lower, int32_t count, uint64_t* marks) {
  markFrom(0, upper, lower, count, marks);
}

void markAnchors(const uint8_t* upper, const uint8_t* lower, int32_t count, uint64_t* marks) {
  int32_t done = 0;
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx2") != 0) done = markAnchorsWide(upper, lower, count, marks);
#endif
  markFrom(done, upper, lower, count, marks);
}

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

void MoveDetector::collectAnchors(const Picture& before, const Damage& changed) {
  anchors_.clear();
  chains_.assign(kChains, -1);
  forEachAnchor(before, changed, 1, [&](int32_t x, int32_t y) {
    if (anchors_.size() == kMostAnchors) return;
    const uint64_t key = keyAt(before, x, y);
    int32_t& chain = chains_[key % kChains];
    anchors_.push_back({key, x, y, chain});
    chain = static_cast<int32_t>(anchors_.size()) - 1;
  });
}

void MoveDetector::collectVotes(const Picture& after, const Damage& changed) {
  distances_.assign(kVoteSlots, {0, 0, 0});
  forEachAnchor(after, changed, rowStepFor(changed.count()), [&](int32_t x, int32_t y) {
    const uint64_t key = keyAt(after, x, y);
    const Anchor* partners[kMostPartners];
    int32_t found = 0;
    int32_t steps = 0;
    for (int32_t at = chains_[key % kChains]; at != -1;) {
      const Anchor& anchor = anchors_[static_cast<size_t>(at)];
      at = anchor.next;
      if (++steps > kLongestChain) return;
      if (anchor.key != key) continue;
      if (found == kMostPartners) return;
      partners[found++] = &anchor;
    }
    for (int32_t i = 0; i < found; ++i) vote(partners[i]->x - x, partners[i]->y - y);
  });
}

void MoveDetector::vote(int32_t dx, int32_t dy) {
  if (dx == 0 && dy == 0) return;
  const uint64_t key = mix(static_cast<uint32_t>(dx), static_cast<uint32_t>(dy));
  // A full neighbourhood is noise; its votes are not missed.
  for (size_t probe = 0; probe < 8; ++probe) {
    MoveDistance& slot = distances_[(key + probe) % kVoteSlots];
    if (slot.votes == 0) slot = {dx, dy, 0};
    if (slot.dx != dx || slot.dy != dy) continue;
    ++slot.votes;
    return;
  }
}

void MoveDetector::chooseDistances() {
  std::erase_if(distances_, [](const MoveDistance& one) { return one.votes < kFewestVotes; });
  const auto best = std::min<ptrdiff_t>(kMostDistances, std::ssize(distances_));
  std::partial_sort(distances_.begin(), distances_.begin() + best, distances_.end(),
                    [](const MoveDistance& a, const MoveDistance& b) { return a.votes > b.votes; });
  distances_.resize(static_cast<size_t>(best));
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
  for (const MoveDistance& distance : distances_) match(search, distance, remaining);
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
    collectAnchors(before, changed);
    collectVotes(after, changed);
    chooseDistances();
    moves.remaining = changed;
    if (!matchAll(search, moves.remaining)) distances_.clear();
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
