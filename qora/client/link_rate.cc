// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/link_rate.h"

#include <algorithm>
#include <cassert>

namespace qora::client {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr LinkRate::Time kPeriod = seconds(5);
constexpr LinkRate::Time kWindow = milliseconds(200);  // of counting what arrives
constexpr LinkRate::Time kQueue = milliseconds(50);    // too long
constexpr LinkRate::Time kNoQueue = milliseconds(25);
constexpr LinkRate::Time kRaiseInterval = milliseconds(100);
constexpr int64_t kBelowArriving = 85;  // per cent, so that what is queued drains
constexpr int64_t kGrowth = 8;          // per cent a second
constexpr int64_t kLeastRate = 12'500;
constexpr int64_t kSecond = 1'000'000;

}  // namespace

LinkRate::Time LinkRate::leastRoundTrip() const {
  const Time least = std::min(least_, leastBefore_);
  return least == Time::max() ? Time{} : least;
}

void LinkRate::noteRoundTrip(Time now, Time roundTrip) {
  if (now >= periodEnd_) {
    leastBefore_ = least_;
    least_ = Time::max();
    periodEnd_ = now + kPeriod;
  }
  least_ = std::min(least_, roundTrip);
}

void LinkRate::sent(Time now, int64_t bytes) {
  if (underWay_.empty()) {
    busySince_ = now;
    busyBytes_ = 0;
  }
  underWayBytes_ += bytes;
  underWay_.push_back({bytes, now});
}

void LinkRate::countArriving(Time now, int64_t bytes) {
  busyBytes_ += bytes;
  const Time busy = now - busySince_;
  if (busy.count() <= 0 || (busy < kWindow && !underWay_.empty())) return;
  arriving_ = busyBytes_ * kSecond / busy.count();
  busySince_ = now;
  busyBytes_ = 0;
}

int64_t LinkRate::acknowledged(Time now) {
  assert(!underWay_.empty());
  const UnderWay message = underWay_.front();
  underWay_.pop_front();
  underWayBytes_ -= message.bytes;
  roundTrip_ = now - message.sent;
  noteRoundTrip(now, roundTrip_);
  countArriving(now, message.bytes);
  used_ += message.bytes;

  const Time queue = roundTrip_ - leastRoundTrip() - Time(message.bytes * kSecond / rate_);
  const Time since = now - raisedAt_;
  if (queue > kQueue) {
    if (arriving_ > 0) {  // while there is a queue, the link's own rate
      rate_ = std::max(std::min(rate_, arriving_ * kBelowArriving / 100), kLeastRate);
      sawQueue_ = true;
    }
  } else if (queue > kNoQueue || since < kRaiseInterval) {
    return rate_;
  } else if (used_ * kSecond / since.count() >= rate_ / 2) {  // less does not try the link
    const int64_t share = std::min<int64_t>(since.count(), kSecond);
    const int64_t growth = sawQueue_ ? rate_ * kGrowth / 100 * share / kSecond + 1 : rate_ / 2;
    rate_ = std::max(std::min(most_, rate_ + growth), kLeastRate);
  }
  raisedAt_ = now;
  used_ = 0;
  return rate_;
}

}  // namespace qora::client
