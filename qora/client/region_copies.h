// SPDX-License-Identifier: BSD-2-Clause
// qora/client/region_copies.h -- What a viewer does so that it can follow a stream with moves: it
// makes each frame's copies in its own decoded picture, before it decodes the next access unit.
//
// The encoder made the same copies in its picture after it had coded the frame, and predicts the
// next one from there. So the decoder has to hand out the very pictures that it predicts from: one
// thread, low delay. The picture before is kept (for libavcodec: a reference to its frame) until
// the copies are made. What is to be shown is the picture after the copies.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "qora/client/damage.h"
#include "qora/client/picture.h"
#include "qora/service/wire/messages.h"

namespace qora::client {

// Copies keep so far off the picture's edges: the encoder's border is made before them.
inline constexpr int32_t kCopyEdge = 2;  // pixels

// Why the encoder cannot make a copy in a picture of that size, or what it would make is not what
// other planes or whoever decodes have; null when it can. Destinations and sizes are even.
const char* faultOf(const service::RegionCopy& copy, int32_t width, int32_t height);

// Where a copy goes to, and the whole macroblocks in there; empty when there are none.
Area destinationOf(const service::RegionCopy& copy);
Area wholeMacroblocks(const service::RegionCopy& copy);

// Adds the macroblocks that copies go to, be it in part.
void addDestinations(std::span<const service::RegionCopy> copies, Damage& cells);

// Which pixels of a macroblock the copies go to: a word a row, a bit a pixel.
using CopyMask = std::array<uint32_t, kMacroblockSize>;
CopyMask maskOf(std::span<const service::RegionCopy> copies, int32_t column, int32_t row);

// Takes those macroblocks off `changed` that are right once the copies are made: whole ones, and
// partly covered ones in which nothing else differs. What the copies make is not looked at.
void removeCopied(const Picture& before, const Picture& after,
                  std::span<const service::RegionCopy> copies, Damage& changed);

// The block of a copy in luma, or in each chroma plane, in samples.
struct CopyBlock {
  int32_t fromX, fromY, toX, toY, width, height;
};
CopyBlock blockOf(const service::RegionCopy& copy, int32_t plane);

// Whether source and destination of a copy lie inside a picture of that size, in every plane.
bool fits(const service::RegionCopy& copy, int32_t width, int32_t height);

// Copies from `before` to `picture`, two pictures of one size in memory of their own, `before` with
// its own copies made. 1, or -1 with EINVAL when one does not fit or the sizes differ; nothing is
// copied then. The copies may come from anywhere. Planes before `firstPlane` are left alone.
int32_t copyRegions(const Picture& before, const Picture& picture,
                    std::span<const service::RegionCopy> copies, int32_t firstPlane = 0);

}  // namespace qora::client
