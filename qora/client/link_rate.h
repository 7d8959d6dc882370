// SPDX-License-Identifier: BSD-2-Clause
// qora/client/link_rate.h -- The rate that a link takes, found out from when its far end
// acknowledges what was sent: for a parent that is not told, such as one that serves viewers over
// the Internet.
//
// A queue shows as a round trip that is longer than the least and the time that a link of this rate
// takes for the message itself. Then the rate falls to a little less than what
// arrives; while there is none and the link is used, it grows: by half until the first queue was
// seen, by 8 % a second from then on. A link on which nothing is lost but much is queued needs
// nothing else. Pure; one thread at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>

namespace qora::client {

class LinkRate {
 public:
  using Time = std::chrono::microseconds;  // of any clock that never goes back

  // Bytes a second: to begin with, and at most.
  explicit LinkRate(int64_t first, int64_t most = INT64_MAX) : rate_(first), most_(most) {}

  // A message went out.
  void sent(Time now, int64_t bytes);
  // The oldest one that was not acknowledged yet is; there has to be one. Returns rate().
  int64_t acknowledged(Time now);
  // An answer to a message of a few bytes: what the link takes at least, known before much is sent.
  void probed(Time now, Time roundTrip) { noteRoundTrip(now, roundTrip); }

  // For QualityControl::setRate(). Never less than 100 kbit/s.
  int64_t rate() const { return rate_; }
  // The least round trip of the last 5 to 10 seconds, 0 before the first; for
  // QualityControl::acknowledged().
  Time leastRoundTrip() const;
  Time roundTrip() const { return roundTrip_; }  // of the last acknowledgement; -1: none yet

  int32_t unacknowledged() const { return static_cast<int32_t>(underWay_.size()); }  // messages
  int64_t unacknowledgedBytes() const { return underWayBytes_; }

 private:
  struct UnderWay {
    int64_t bytes;
    Time sent;
  };

  void noteRoundTrip(Time now, Time roundTrip);
  void countArriving(Time now, int64_t bytes);

  int64_t rate_;
  int64_t most_;
  std::deque<UnderWay> underWay_;
  int64_t underWayBytes_ = 0;
  Time roundTrip_{-1};
  Time least_ = Time::max();        // of this period of 5 seconds
  Time leastBefore_ = Time::max();  // of the one before
  Time periodEnd_{};
  // What arrives while something is on its way.
  Time busySince_{};
  int64_t busyBytes_ = 0;
  int64_t arriving_ = 0;  // bytes a second; 0: not known yet
  bool sawQueue_ = false;
  Time raisedAt_{};
  int64_t used_ = 0;  // bytes since then
};

}  // namespace qora::client
