// qora/tools/live_encoder.h -- One live picture through the service: what is sent, and when.
//
// The quantizer offsets are the quality control's: what changes is coded at once as finely as the
// rate allows, what then stays still is sharpened. A service that died is started again and begins
// with a key frame. One thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "qora/client/codec_client.h"
#include "qora/client/frame_segment.h"
#include "qora/client/quality_control.h"
#include "qora/tools/live_picture.h"

namespace qora::tools {

struct LiveSettings {
  std::string service;
  std::string codecRoot;
  bool sandbox = false;
  int32_t threads = 1;
  int32_t bitrate = 0;  // kbit/s; 0: constant quality
  int32_t quality = client::kDefaultQuality;
};

// What came of a picture. Use the same record for every frame: its memory is kept.
struct LiveFrame {
  client::Reply reply;  // the coded frame; the parameter sets in it are true
  std::vector<service::RegionCopy> copies;
  int32_t changed = 0;  // macroblocks that had changed
  int32_t moved = 0;    // of those, copied
};

class LiveEncoder {
 public:
  using Time = std::chrono::microseconds;

  // Starts the service. -1 with problem(), as for all below.
  [[nodiscard]] int32_t start(const LiveSettings& settings);
  // From now on pictures have this size, and the next one is whole.
  [[nodiscard]] int32_t resize(int32_t width, int32_t height, LivePicture& picture);

  // Encodes what changed, or sharpens what is still coarse. 1: `frame`, and the picture is kept. 0:
  // no frame is to be made before `wakeAt`; Time::max(): before something changes.
  [[nodiscard]] int32_t encode(Time now, LivePicture& picture, bool keyFrame, LiveFrame& frame,
                               Time& wakeAt);
  // A frame that says that nothing changed; a key frame if the service is a new one.
  [[nodiscard]] int32_t encodeNothing(Time now, LivePicture& picture, LiveFrame& frame);

  // How often the service had to be started again.
  int32_t restarts() const { return restarts_; }

  int32_t stop();
  const std::string& problem() const { return problem_; }

 private:
  int32_t fail(const std::string& problem);
  int32_t failService();
  int32_t launch();
  int32_t addStream();
  int32_t restart();
  int32_t send(bool invalidate, LiveFrame& frame);

  LiveSettings settings_;
  client::FrameSegment segment_;  // before the client: the service lets go of it first
  client::CodecClient client_;
  client::QualityControl control_;
  client::QualityPlan plan_;
  int32_t width_ = 0;
  int32_t height_ = 0;
  bool streamAdded_ = false;
  bool proven_ = false;  // this service gave a frame
  int32_t restarts_ = 0;
  std::string problem_;
};

}  // namespace qora::tools
