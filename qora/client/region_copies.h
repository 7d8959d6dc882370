// SPDX-License-Identifier: BSD-2-Clause
// qora/client/region_copies.h -- What a viewer does so that it can follow a stream with moves: it
// makes each frame's copies in its own decoded picture, before it decodes the next access unit.
//
// The encoder made the same copies in its picture after it had coded the frame, and predicts the
// next one from there. So the decoder has to hand out the very pictures that it predicts from: one
// thread, low delay. The picture before is kept (for libavcodec: a reference to its frame) until
// the copies are made. What is to be shown is the picture after the copies.
#pragma once

#include <cstdint>
#include <span>

#include "qora/client/picture.h"
#include "qora/service/wire/messages.h"

namespace qora::client {

// Whether source and destination of a copy lie inside a picture of that size, in every plane.
bool fits(const service::RegionCopy& copy, int32_t width, int32_t height);

// Copies from `before` to `picture`, two pictures of one size in memory of their own, `before` with
// its own copies made. 1, or -1 with EINVAL when one does not fit or the sizes differ; nothing is
// copied then. The copies may come from anywhere. Planes before `firstPlane` are left alone.
int32_t copyRegions(const Picture& before, const Picture& picture,
                    std::span<const service::RegionCopy> copies, int32_t firstPlane = 0);

}  // namespace qora::client
