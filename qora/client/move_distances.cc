// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/move_distances.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

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

void MoveDistances::collectAnchors(const Picture& before, const Damage& changed) {
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

void MoveDistances::collectVotes(const Picture& after, const Damage& changed) {
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

void MoveDistances::vote(int32_t dx, int32_t dy) {
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

void MoveDistances::chooseBest() {
  std::erase_if(distances_, [](const MoveDistance& one) { return one.votes < kFewestVotes; });
  const auto best = std::min<ptrdiff_t>(kMostDistances, std::ssize(distances_));
  std::partial_sort(distances_.begin(), distances_.begin() + best, distances_.end(),
                    [](const MoveDistance& a, const MoveDistance& b) { return a.votes > b.votes; });
  distances_.resize(static_cast<size_t>(best));
}

void MoveDistances::find(const Picture& before, const Picture& after, const Damage& changed) {
  collectAnchors(before, changed);
  collectVotes(after, changed);
  chooseBest();
}

}  // namespace qora::client
