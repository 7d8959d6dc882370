// SPDX-License-Identifier: BSD-2-Clause
// qora/client/shown_picture.h -- What the encoder is shown of a picture that is partly made by
// copies.
//
// Copies are made in the encoder's picture after a frame is coded. So while it is coded, what they
// go to is best left as it was: the encoder finds it still, and spends neither bytes nor time on
// it.
#pragma once

#include <span>

#include "qora/client/picture.h"
#include "qora/service/wire/messages.h"

namespace qora::client {

// Makes what the encoder is to be shown of `picture`, in `shown`, which holds the picture before.
//   rectangles  those of the frame; all that changed is in them or made by copies.
//   copies      what they go to stays, except where a macroblock is coded all the same and all of
//               it moved: the encoder finds the motion then.
void showWithoutCopies(const Picture& picture, const Picture& shown,
                       std::span<const service::Rectangle> rectangles,
                       std::span<const service::RegionCopy> copies);

}  // namespace qora::client
