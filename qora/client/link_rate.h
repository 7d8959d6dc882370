// qora/client/link_rate.h -- The rate that a link takes, found out from what its far end
// acknowledges: for a parent that is not told, such as one that serves viewers over the Internet.
//
// A queue shows as a round trip that is longer than the least. Then the rate falls to a little less
// than what arrives; while there is none and the link is used, it grows by 8 % a second. A link on
// which nothing is lost but much is queued needs nothing else. Pure; one thread at a time.
#pragma once

#include <chrono>
#include <cstdint>

namespace qora::client {

class LinkRate {
 public:
  using Time = std::chrono::microseconds;

  // Bytes a second: to begin with, and at most.
  explicit LinkRate(int64_t first, int64_t most = INT64_MAX) : rate_(first), most_(most) {}

  // So many bytes were acknowledged at `now`, on any clock that never goes back, `roundTrip` after
  // they were sent. Returns rate().
  int64_t acknowledged(Time now, int64_t bytes, Time roundTrip);
  // For QualityControl::setRate(). Never less than 100 kbit/s.
  int64_t rate() const { return rate_; }
  // The least of the last 5 to 10 seconds; for QualityControl::acknowledged().
  Time leastRoundTrip() const { return leastBefore_ < least_ ? leastBefore_ : least_; }

 private:
  void noteRoundTrip(Time now, Time roundTrip);

  int64_t rate_;
  int64_t most_;
  Time least_ = Time::max();        // of this period of 5 seconds
  Time leastBefore_ = Time::max();  // of the one before
  Time period_{};                   // when it began
  Time window_{};                   // since when bytes are counted
  int64_t bytes_ = 0;
  Time cut_{};  // when the rate fell last
  bool first_ = true;
};

}  // namespace qora::client
