#include "qora/tools/serve/viewer_flow.h"

#include <algorithm>

namespace qora::serve {
namespace {

constexpr int64_t kRateSpan = 200000;  // busy microseconds that one measurement of the rate takes

}  // namespace

int32_t ViewerFlow::window() const {
  const int64_t trip = std::max<int64_t>(shortest_, 0) / interval_;
  return static_cast<int32_t>(std::min<int64_t>(kLeastWindow + trip, kLargestWindow));
}

bool ViewerFlow::offer(bool keyFrame, int32_t bytes, int64_t now) {
  if (paused_ || !takes(keyFrame)) {
    needsKey_ = true;
    return false;
  }
  if (flying_.empty()) {
    busySince_ = now;
    busyBytes_ = 0;
  }
  needsKey_ = false;
  flyingBytes_ += bytes;
  flying_.push_back({bytes, now, flyingBytes_});
  ++sent_;
  return true;
}

int32_t ViewerFlow::acknowledged(int64_t count, int64_t now) {
  const int64_t flying = static_cast<int64_t>(flying_.size());
  if (count > sent_ || count < sent_ - flying) return -1;
  for (int64_t done = count - (sent_ - flying); done > 0; --done) {
    const Flying frame = flying_.front();
    flying_.pop_front();
    flyingBytes_ -= frame.bytes;
    shown_ = true;
    ahead_ = frame.ahead;
    roundTrip_ = now - frame.sent;
    shortest_ = shortest_ == -1 ? roundTrip_ : std::min(shortest_, roundTrip_);
    measure(frame.bytes, now);
  }
  return 1;
}

void ViewerFlow::measure(int32_t bytes, int64_t now) {
  busyBytes_ += bytes;
  const int64_t busy = now - busySince_;
  if (busy <= 0 || (busy < kRateSpan && !flying_.empty())) return;
  rate_ = busyBytes_ * 1000000 / busy;
  busySince_ = now;
  busyBytes_ = 0;
}

void ViewerFlow::pause(bool paused) {
  paused_ = paused;
  needsKey_ = true;
}

}  // namespace qora::serve
