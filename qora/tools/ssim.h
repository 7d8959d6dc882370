// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/ssim.h -- How alike two pictures look to a person: structural similarity. Pure.
#pragma once

#include "qora/client/picture.h"

namespace qora::tools {

// The mean over windows of 8x8 samples, four apart, of all planes, each with the weight of its
// samples; constants as in other programs that measure coded video. 1: equal. Both pictures are at
// least 16x16, `other` at least as large as `one`.
double structuralSimilarity(const client::Picture& one, const client::Picture& other);

}  // namespace qora::tools
