// qora/tools/serve/line_rate.h -- How many bytes a second a viewer's line takes, told from when its
// frames arrive: a queue on the way makes the round trip longer. Pure: time is passed in, in
// microseconds of one steady clock.
#pragma once

#include <cstdint>

namespace qora::serve {

class LineRate {
 public:
  static constexpr int64_t kLeast = 100'000 / 8;  // bytes a second

  LineRate(int64_t start, int64_t most) : rate_(start), most_(most) {}

  // A frame arrived: its bytes; its bytes and those that were on their way before it; the time from
  // its sending to its acknowledgement; the bytes a second that came through lately, 0: unknown.
  void acknowledged(int64_t now, int64_t bytes, int64_t ahead, int64_t roundTrip,
                    int64_t delivered);
  // A message without a picture came back: the line's own delay.
  void probed(int64_t now, int64_t roundTrip) { noteShortest(now, roundTrip); }

  int64_t rate() const { return rate_; }
  // The shortest round trip of the last seconds; 0 before the first.
  int64_t shortest() const { return shortest_ < before_ ? shortest_ : before_; }

 private:
  void noteShortest(int64_t now, int64_t roundTrip);

  static constexpr int64_t kNone = INT64_MAX;
  int64_t rate_;
  int64_t most_;
  bool isKnown_ = false;      // there was a queue once
  int64_t shortest_ = kNone;  // of this span
  int64_t before_ = kNone;    // and of the one before
  int64_t spanEnd_ = 0;
  int64_t loweredAt_ = 0;
  int64_t raisedAt_ = 0;
  int64_t used_ = 0;  // bytes since then
};

}  // namespace qora::serve
