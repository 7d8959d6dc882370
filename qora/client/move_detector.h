// SPDX-License-Identifier: BSD-2-Clause
// qora/client/move_detector.h -- What moved from one picture to the next, as exact copies: text
// that scrolls, in any direction, and windows that are dragged, to the pixel.
//
// The encoder makes the copies in the picture that it predicts the next frame from, so a moved part
// costs next to nothing. Every sample of a copy was compared, in all planes: where a move splits
// colour samples (by an odd distance, in coloured content) the part is not copied but coded.
//
// How a frame with copies is sent: what remains is listed, and what is copied to is left in the
// picture as it was before, see shown_picture.h. Never with a key frame. Macroblocks that were
// copied to and that a later frame leaves alone are listed there once, a little above their real
// offset, for next to no bytes. A standard decoder cannot follow; one that makes the same copies
// can, see region_copies.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "qora/client/damage.h"
#include "qora/client/move_distances.h"
#include "qora/client/picture.h"
#include "qora/client/region_copies.h"
#include "qora/service/wire/messages.h"

namespace qora::client {

inline constexpr int32_t kMostCopies = 64;  // of one frame
// With fewer changed macroblocks nothing is searched for; a move of fewer is not reported.
inline constexpr int32_t kFewestMoved = 24;

// The result of one search. Use the same record for every frame: its memory is kept.
struct Moves {
  // What `before` had at the source, `after` has at the destination, be it changed or not: few
  // copies cover much when they may pass over what stayed the same, and is the same at the source.
  // Sources are read from the picture before. Where copies overlap, the last one counts.
  std::vector<service::RegionCopy> copies;
  Damage remaining;  // macroblocks that the copies do not make right: to be coded
};

// What the search is made of.
struct MoveSearch {
  const Picture& before;
  const Picture& after;
  int32_t tolerance;
};
// What one kind of copy makes right.
struct MoveWay {
  int32_t dx, dy;
  uint8_t flags;
  int32_t exact;  // how many macroblocks it makes right without a tolerance
  Damage cells;   // changed macroblocks
  Damage filled;  // with those between them for which a copy does no harm
};
// What a distance explains.
struct MoveMatch {
  int32_t dx, dy;
  Damage luma;  // macroblocks that are right in luma
  std::vector<MoveWay> ways;
  std::vector<uint8_t> inLuma, inAll;  // for their memory
};

// Holds memory from one search to the next, nothing else. One thread at a time.
class MoveDetector {
 public:
  // Searches for what moved.
  //   before, after  pictures of one size; `before` is the one last encoded.
  //   changed        macroblocks that really differ, see Damage::refine(); of the pictures' size.
  //   tolerance      how far a chroma sample may be off; kUnseenTolerance is a good choice. With
  //                  more than 0, adoptMoves() has to follow: the copies are exact for the picture
  //                  that it makes of `after`.
  // Returns the number of changed macroblocks that the copies make right. About a millisecond when
  // all of 1920x1080 moved, nothing when little changed.
  int32_t find(const Picture& before, const Picture& after, const Damage& changed, Moves& moves,
               int32_t tolerance = 0);

 private:
  struct Candidate {
    int32_t cells;  // that it makes right
    service::RegionCopy copy;
  };

  bool mayMoveOn(const MoveSearch& search, const Damage& changed);
  bool matchAll(const MoveSearch& search, Damage& remaining);
  void match(const MoveSearch& search, const MoveDistance& distance, Damage& remaining);
  void fill(const MoveSearch& search, MoveWay& way);
  void addCandidate(const MoveWay& way, const service::Rectangle& rectangle);
  void listCopies(const MoveSearch& search, Moves& moves);

  int32_t unexplained_ = 0;  // changed macroblocks, by the last search for distances
  MoveDistances distances_;  // tried again first
  MoveMatch match_;
  std::vector<MoveWay> ways_;
  std::vector<service::Rectangle> rectangles_;
  std::vector<service::Rectangle> filledRectangles_;
  std::vector<Candidate> candidates_;
};

// A tolerance that nobody sees in what moves: text with a tint of colour scrolls within it, windows
// with coloured title bars are dragged within it. What stays is put right, see adoptMoves().
inline constexpr int32_t kUnseenTolerance = 12;

// An odd distance leads between two chroma samples, so coloured text that scrolls by it is nowhere
// to be found, though its colours are off by little. This makes the copies in `picture`
// itself, before it is encoded: they are exact then. `owed` gains the macroblocks where that
// changed a sample; they are to be read from the screen again, as damage, once they stay where they
// are. Errors do not add up, since the next search compares with the screen. Returns the number of
// those macroblocks.
int32_t adoptMoves(const Picture& before, const Picture& picture, const Moves& moves, Damage& owed);

}  // namespace qora::client
