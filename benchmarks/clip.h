// benchmarks/clip.h -- A clip through the service and through the encoder in this process, frame by
// frame.
#pragma once

#include <functional>
#include <string>

#include "benchmarks/sessions.h"

namespace qora::bench {

// Calls `take` for every frame with its cost and its number of changed macroblocks.
using TakeFrame = std::function<void(const FrameCost& cost, int32_t changed)>;
void encodeClip(const std::string& path, const TakeFrame& take);

// A clip's totals.
struct ClipCost {
  double overhead;  // median of the round trip less the encoder's time, microseconds
  double ratio;     // sum of the round trips over the sum of the encoder's times
};
ClipCost measureClip(const std::string& path);

}  // namespace qora::bench
