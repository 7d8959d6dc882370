// qora/tools/serve/viewer_flow.h -- What one viewer gets, and when: the pictures on their way to
// it, and what its acknowledgements say about its line.
//
// A socket takes megabytes before it pushes back, so only the page's own word that it has decoded a
// frame bounds the delay. A frame goes out while few enough are unacknowledged; a viewer that
// misses one waits for the next key frame. Pure: time is passed in, in microseconds of one steady
// clock.
#pragma once

#include <cstdint>
#include <deque>

namespace qora::serve {

class ViewerFlow {
 public:
  // How many frames may be on the way: enough to fill the line's shortest round trip at `rate`
  // frames a second and this many more. A window that grew with the measured round trip would feed
  // itself: each frame in a queue makes the trip longer.
  static constexpr int32_t kLeastWindow = 3;
  static constexpr int32_t kLargestWindow = 24;

  explicit ViewerFlow(int32_t rate) : interval_(1000000 / rate) {}

  // Whether the viewer can take a frame now; a delta frame only after the one before it.
  bool hasRoom() const { return static_cast<int32_t>(flying_.size()) < window(); }
  bool takes(bool keyFrame) const { return (keyFrame || !needsKey_) && hasRoom(); }
  // The frame goes out: true for a frame that takes() said yes to, false for one that is left out.
  // A viewer that misses a frame needs a key frame, and so does a new one.
  bool offer(bool keyFrame, int32_t bytes, int64_t now);
  // The page decoded `count` frames since it connected. 1, or -1 for a number that cannot be.
  int32_t acknowledged(int64_t count, int64_t now);
  // What is on its way no longer counts: the page was hidden, or its decoder started again.
  void needKey() { needsKey_ = true; }

  // Only a viewer that has caught up is worth a key frame: another would be late again.
  bool wantsKey() const { return needsKey_ && flying_.empty() && !paused_; }
  bool needsKey() const { return needsKey_; }
  // Left out frames since it last had a whole picture, after it had one.
  bool isLate() const { return needsKey_ && shown_; }
  void pause(bool paused);
  bool isPaused() const { return paused_; }

  int64_t unacknowledged() const { return static_cast<int64_t>(flying_.size()); }
  int64_t unacknowledgedBytes() const { return flyingBytes_; }
  // Bytes on their way when the frame that was acknowledged last was sent, its own included.
  int64_t ahead() const { return ahead_; }
  // Of the last acknowledgement, in microseconds; -1 before the first.
  int64_t roundTrip() const { return roundTrip_; }
  int64_t shortestRoundTrip() const { return shortest_; }
  // Bytes a second that arrived while at least one frame was on its way, over the last second of
  // such time; 0 before it is known.
  int64_t deliveredRate() const { return rate_; }

 private:
  struct Flying {
    int32_t bytes;
    int64_t sent;
    int64_t ahead;  // its bytes and those before it
  };

  int32_t window() const;
  void measure(int32_t bytes, int64_t now);

  int64_t interval_;
  std::deque<Flying> flying_;
  int64_t flyingBytes_ = 0;
  int64_t sent_ = 0;  // frames, since it connected
  bool needsKey_ = true;
  bool shown_ = false;
  bool paused_ = false;
  int64_t ahead_ = 0;
  int64_t roundTrip_ = -1;
  int64_t shortest_ = -1;
  int64_t busySince_ = 0;  // the line has carried something since
  int64_t busyBytes_ = 0;
  int64_t rate_ = 0;
};

}  // namespace qora::serve
