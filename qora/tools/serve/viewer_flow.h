// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/serve/viewer_flow.h -- What one viewer gets, and when.
//
// A socket takes megabytes before it pushes back, so only the page's own word that it is done with
// a frame bounds the delay. A frame goes out while few enough are unacknowledged; a viewer that
// misses one waits for the next key frame. Pure: time is passed in.
#pragma once

#include <chrono>
#include <cstdint>

#include "qora/client/link_rate.h"

namespace qora::serve {

class ViewerFlow {
 public:
  using Time = std::chrono::microseconds;

  // How many frames may be on the way: enough to fill the link's least round trip at so many frames
  // a second, and this many more. A window that grew with the measured round trip would feed
  // itself: each frame in a queue makes the trip longer.
  static constexpr int32_t kLeastWindow = 3;
  static constexpr int32_t kLargestWindow = 24;

  ViewerFlow(int32_t framesPerSecond, const client::LinkRate& link)
      : interval_(1'000'000 / framesPerSecond), link_(link) {}

  // A frame for all viewers: whether this one gets it. One that misses a frame needs a key frame,
  // and so does a new one.
  bool offer(bool keyFrame, int64_t bytes, Time now);
  // The page is done with `count` frames since it connected. 1, or -1 for a number that cannot be.
  int32_t acknowledged(int64_t count, Time now);
  // The page lost its pictures: its decoder began anew, or it goes over to another stream.
  void needKey() { needsKey_ = true; }
  void pause(bool paused);

  // Only a viewer that has caught up is worth a key frame: another would be late again.
  bool wantsKey() const { return needsKey_ && link_.unacknowledged() == 0 && !paused_; }
  // Pictures are left out, after it had one.
  bool isLate() const { return needsKey_ && shown_; }
  bool isPaused() const { return paused_; }

  client::LinkRate& link() { return link_; }
  const client::LinkRate& link() const { return link_; }

 private:
  bool hasRoom() const;

  Time interval_;
  client::LinkRate link_;
  int64_t sent_ = 0;  // frames, since it connected
  bool needsKey_ = true;
  bool shown_ = false;
  bool paused_ = false;
};

}  // namespace qora::serve
