// SPDX-License-Identifier: BSD-2-Clause
// qora/client/move_distances.h -- How far things seem to have moved from one picture to the next.
//
// Places are chosen by what stands there, so that they move with the content; each that is found in
// both pictures votes for the distance between the two. Only luma is looked at, and nothing is
// proved: whoever uses a distance compares.
#pragma once

#include <cstdint>
#include <vector>

#include "qora/client/damage.h"
#include "qora/client/picture.h"

namespace qora::client {

// From destination to source, pixels.
struct MoveDistance {
  int32_t dx, dy;
  int32_t votes;
};

// Holds memory from one search to the next, and the distances found. One thread at a time.
class MoveDistances {
 public:
  // Searches inside `changed`, which is of the pictures' size.
  void find(const Picture& before, const Picture& after, const Damage& changed);
  // The distances of the last search, the one with the most votes first; a few at most.
  const std::vector<MoveDistance>& best() const { return distances_; }
  void forget() { distances_.clear(); }

 private:
  struct Anchor {
    uint64_t key;  // made from the samples there
    int32_t x, y;
    int32_t next;  // the next of its chain, -1 none
  };

  void collectAnchors(const Picture& before, const Damage& changed);
  void collectVotes(const Picture& after, const Damage& changed);
  void vote(int32_t dx, int32_t dy);
  void chooseBest();

  std::vector<Anchor> anchors_;
  std::vector<int32_t> chains_;          // first anchor by the key's low bits, -1 none
  std::vector<MoveDistance> distances_;  // a hash table while votes are counted, then the best
};

// Sets bit i % 64 of marks[i / 64] where the 16 samples from upper[i] on and those from lower[i] on
// make an anchor, clears it elsewhere; i from 0 to count - 1. About one place in 256 is one, none
// where the first 8 upper samples are equal. Reads count + 15 samples of each row. The plain one is
// the measure.
void markAnchors(const uint8_t* upper, const uint8_t* lower, int32_t count, uint64_t* marks);
void markAnchorsPlain(const uint8_t* upper, const uint8_t* lower, int32_t count, uint64_t* marks);

}  // namespace qora::client
