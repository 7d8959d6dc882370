// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/serve/viewer_flow.h"

#include <algorithm>

namespace qora::serve {

bool ViewerFlow::hasRoom() const {
  const int64_t trip = link_.leastRoundTrip() / interval_;
  return link_.unacknowledged() < std::min<int64_t>(kLeastWindow + trip, kLargestWindow);
}

bool ViewerFlow::offer(bool keyFrame, int64_t bytes, Time now) {
  if (paused_ || (needsKey_ && !keyFrame) || !hasRoom()) {
    needsKey_ = true;
    return false;
  }
  needsKey_ = false;
  link_.sent(now, bytes);
  ++sent_;
  return true;
}

int32_t ViewerFlow::acknowledged(int64_t count, Time now) {
  if (count > sent_ || count < sent_ - link_.unacknowledged()) return -1;
  for (int64_t left = sent_ - count; link_.unacknowledged() > left;) {
    link_.acknowledged(now);
    shown_ = true;
  }
  return 1;
}

void ViewerFlow::pause(bool paused) {
  paused_ = paused;
  needsKey_ = true;
}

}  // namespace qora::serve
