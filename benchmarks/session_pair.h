// SPDX-License-Identifier: BSD-2-Clause
// benchmarks/session_pair.h -- What checks, pictures and rate control cost a parent.
#pragma once

#include "qora/client/codec_client.h"
#include "qora/client/frame_segment.h"
#include "qora/client/screen_session.h"
#include "tests/support/temporary_root.h"

namespace qora::bench {

// A 1920x1080 stream whose rate is held, and the bare client with the same lists; both over a
// service with the scripted encoder. A call is one round trip in which `area` changed.
class SessionPair {
 public:
  explicit SessionPair(const client::Area& area);
  void callSession();
  void callClient();

 private:
  client::Area area_;
  test::TemporaryRoot root_;
  client::FrameSegment segment_;
  client::CodecClient client_;
  client::Reply reply_;
  service::EncodeRequest request_{};
  std::vector<service::Rectangle> rectangles_;
  client::ScreenSession session_;
  client::CodedFrame frame_;
};

}  // namespace qora::bench
