// SPDX-License-Identifier: BSD-2-Clause
// benchmarks/clip.h -- A recorded clip, picture by picture, with what changed in each.
#pragma once

#include <functional>
#include <string>

#include "benchmarks/side_by_side.h"
#include "qora/tools/clip_reader.h"

namespace qora::bench {

// Reads an open clip into two cells by turns and calls `take` with the cell, what changed in it,
// and in how many macroblocks (-1: the first picture).
using TakePicture =
    std::function<void(int32_t cell, const Rectangles& rectangles, int32_t changed)>;
void readClip(tools::ClipReader& clip, const client::Picture (&cells)[2], const TakePicture& take);

// The clip through the service and in-process, frame by frame. At an even first turn the service
// encodes the first frame, the third, ... before the floor does.
struct ClipFrame : FrameCost {
  double bare;  // the round trip of the bare service less its encoder
  int32_t changed;
};
void encodeClip(const std::string& path, int32_t firstTurn,
                const std::function<void(const ClipFrame& frame)>& take);

}  // namespace qora::bench
