// benchmarks/clip.h -- A clip through the service and through the encoder in this process, frame by
// frame.
#pragma once

#include <functional>
#include <string>

#include "benchmarks/sessions.h"

namespace qora::bench {

struct ClipFrame : FrameCost {
  double bare;      // the round trip of the bare service less its encoder
  int32_t changed;  // macroblocks; -1: the first frame
};

// Calls `take` for every frame. At an even first
// turn the service encodes the first frame, the third, ... before the floor does.
using TakeFrame = std::function<void(const ClipFrame& frame)>;
void encodeClip(const std::string& path, int32_t firstTurn, const TakeFrame& take);

// A clip's totals, over four runs: every frame comes first and second as often in both.
struct ClipCost {
  double overhead;  // median of the round trip less the service's encoder, microseconds
  double bare;      // the same of the bare service
  double ratio;     // sum of the round trips over the sum of the floor's times
};
ClipCost measureClip(const std::string& path);

}  // namespace qora::bench
