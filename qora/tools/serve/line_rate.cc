#include "qora/tools/serve/line_rate.h"

#include <algorithm>

namespace qora::serve {
namespace {

constexpr int64_t kSecond = 1'000'000;
constexpr int64_t kSpan = 5'000'000;     // the shortest round trip is forgotten after two
constexpr int64_t kLongQueue = 50'000;   // microseconds above the shortest: too much is sent
constexpr int64_t kShortQueue = 25'000;  // below: there may be room for more
constexpr int64_t kRaiseInterval = 100'000;

}  // namespace

void LineRate::noteShortest(int64_t now, int64_t roundTrip) {
  if (now >= spanEnd_) {
    before_ = shortest_;
    shortest_ = kNone;
    spanEnd_ = now + kSpan;
  }
  shortest_ = std::min(shortest_, roundTrip);
}

void LineRate::acknowledged(int64_t now, int64_t bytes, int64_t ahead, int64_t roundTrip,
                            int64_t delivered) {
  noteShortest(now, roundTrip);
  used_ += bytes;
  // What a line of this rate takes for these bytes is no queue.
  const int64_t queue = roundTrip - shortest() - ahead * 1'000'000 / rate_;
  if (queue > kLongQueue) {
    // Once a round trip: what is on its way was sent at the old rate.
    if (delivered > 0 && now - loweredAt_ >= roundTrip) {
      rate_ = std::clamp(delivered * 85 / 100, kLeast, rate_);
      isKnown_ = true;
      loweredAt_ = now;
    }
    raisedAt_ = now;
    used_ = 0;
    return;
  }
  const int64_t since = now - raisedAt_;
  if (queue > kShortQueue || since < kRaiseInterval) return;
  // Only a rate that is made use of says that there is room: 8 % a second, or half as much again
  // each time while nothing is known of the line yet.
  if (used_ * 1'000'000 / since >= rate_ / 2) {
    const int64_t slow = rate_ * 8 / 100 * std::min<int64_t>(since, kSecond) / kSecond + 1;
    rate_ = std::min(most_, rate_ + (isKnown_ ? slow : rate_ / 2));
  }
  raisedAt_ = now;
  used_ = 0;
}

}  // namespace qora::serve
