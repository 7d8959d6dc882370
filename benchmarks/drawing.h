// SPDX-License-Identifier: BSD-2-Clause
// benchmarks/drawing.h -- Text-like pictures with as much changed as is asked for.
#pragma once

#include <cstdint>
#include <vector>

#include "qora/client/picture.h"
#include "qora/service/wire/messages.h"

namespace qora::bench {

void drawPicture(const client::Picture& picture);
// Makes `after` the picture before with a share of its macroblocks drawn anew. The result is the
// list of those, at least one rectangle.
std::vector<service::Rectangle> redrawShare(const client::Picture& before,
                                            const client::Picture& after, double share,
                                            uint32_t seed);

}  // namespace qora::bench
