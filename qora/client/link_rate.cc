#include "qora/client/link_rate.h"

#include <algorithm>

namespace qora::client {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr auto kPeriod = seconds(5);
constexpr auto kWindow = milliseconds(200);  // of counting what arrives
constexpr auto kQueue = milliseconds(50);    // too long
constexpr auto kNoQueue = milliseconds(25);
constexpr double kBelowArriving = 0.85;  // so that what is queued drains
constexpr double kGrowth = 0.08;         // a second
constexpr double kInUse = 0.5;           // of the rate: less does not try the link
constexpr int64_t kLeastRate = 12'500;

double secondsOf(LinkRate::Time time) {
  return static_cast<double>(time.count()) / 1e6;
}

}  // namespace

void LinkRate::noteRoundTrip(Time now, Time roundTrip) {
  if (first_ || now - period_ >= kPeriod) {
    leastBefore_ = least_;
    least_ = Time::max();
    period_ = now;
  }
  least_ = std::min(least_, roundTrip);
}

int64_t LinkRate::acknowledged(Time now, int64_t bytes, Time roundTrip) {
  noteRoundTrip(now, roundTrip);
  if (first_) window_ = now;
  bytes_ += first_ ? 0 : bytes;
  first_ = false;
  const Time elapsed = now - window_;
  if (elapsed < std::max<Time>(kWindow, leastRoundTrip())) return rate_;
  const double arriving = static_cast<double>(bytes_) / secondsOf(elapsed);
  const Time queue = roundTrip - leastRoundTrip();
  auto rate = static_cast<double>(rate_);
  if (queue > kQueue) {
    rate = std::min(rate, kBelowArriving * arriving);  // while all is late, the link's own rate
  } else if (queue < kNoQueue && arriving > kInUse * rate) {
    rate *= 1 + kGrowth * std::min(secondsOf(elapsed), 1.0);
  }
  rate_ = std::clamp(static_cast<int64_t>(rate), kLeastRate, std::max(most_, kLeastRate));
  window_ = now;
  bytes_ = 0;
  return rate_;
}

}  // namespace qora::client
