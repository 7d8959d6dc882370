// SPDX-License-Identifier: BSD-2-Clause
// qora/client/motion_guess.h -- Whether what changed is what was there before, moved: the encoder
// finds that itself and codes it for next to nothing. Pure.
#pragma once

#include <cstdint>

#include "qora/client/damage.h"
#include "qora/client/picture.h"

namespace qora::client {

// What stands at a place of the picture stood at place + motion in the one before; pixels.
struct Motion {
  int32_t dx = 0;
  int32_t dy = 0;
};

// The one motion, by at most 48 pixels sideways and 64 up or down, that explains the most of what
// changed; {0, 0} when none explains a quarter of a sample of it, or little changed. Only luma is
// compared. Takes about a third of a millisecond, whatever the size.
Motion guessMotion(const Picture& before, const Picture& after, const Damage& changed);

// Whether a cell, wholly inside the picture, is what was there before but for a trace.
bool hasMoved(const Picture& before, const Picture& after, int32_t column, int32_t row,
              const Motion& motion);

}  // namespace qora::client
