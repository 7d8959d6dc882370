// SPDX-License-Identifier: BSD-2-Clause
// qora/client/screen_stream.h -- One stream of a session: its present picture, what of that was not
// sent yet, and what is to be sent next.
//
// Knows nothing of the service: the session asks plan() for a frame, sends it and reports what
// became of it. Plain memory; one thread at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

#include "qora/client/damage.h"
#include "qora/client/picture_cells.h"
#include "qora/client/quality_control.h"
#include "qora/client/stream_settings.h"

namespace qora::client {

// A frame to send, or sent: what the encoder is to see of the picture, in `cell`, which it holds,
// and the lists.
struct PlannedFrame {
  int32_t cell = -1;
  int64_t picture = 0;  // number and time of the picture, see CodedFrame
  std::chrono::microseconds pictureTime{};
  bool keyFrame = false;
  bool isRepeat = false;
  int32_t keeping = 0;  // of the rectangles, see CodedFrame
  std::vector<service::Rectangle> rectangles;
  std::vector<service::RegionCopy> copies;
};

class ScreenStream {
 public:
  using Time = std::chrono::microseconds;
  static constexpr Time kNever{std::numeric_limits<int64_t>::max()};

  const StreamSettings& settings() const { return settings_; }
  PictureCells& cells() { return cells_; }
  const PictureCells& cells() const { return cells_; }
  int32_t present() const { return present_; }  // cell of the picture given last; -1: none

  // New cells, without memory, and no picture.
  void begin(const StreamSettings& settings);
  // The encoder knows nothing of the stream: the next frame takes the whole picture.
  void startAnew();
  void setBitrate(int32_t bitrate);
  void setQuality(int32_t offset);
  void requestKeyFrame() { keyFrameWanted_ = true; }

  // The picture in a cell that the caller has filled is the present one from now on.
  void give(int32_t cell, const Damage& changed, std::span<const service::RegionCopy> copies,
            Time now);
  // Prepares the next frame, if one is due. Frames that no change calls for come at least
  // `interval` apart. 1: frame() is to be sent; the same one until takeFrame(). 0: nothing now, ask
  // again when something happens, or at nextTime().
  int32_t plan(Time now, Time interval);
  // Prepares a frame that repeats the picture sent last. 0: there is none, or another frame waits.
  int32_t planRepeat(Time now);
  Time nextTime() const { return nextTime_; }
  const PlannedFrame& frame() const { return frame_; }
  // It was sent. Its cell stays held.
  PlannedFrame takeFrame();

  // The reply to the oldest frame sent since begin() or startAnew().
  void encoded(const PlannedFrame& frame, int64_t bytes, bool keyFrame, int32_t quantizer,
               Time now);
  void acknowledged(int64_t bytes, Time roundTrip) { control_.acknowledged(bytes, roundTrip); }

 private:
  bool isDue(Time now, Time interval);
  bool showsBefore(int32_t before);
  QualityStep planForEncoder();
  void prepare(int32_t cell, Time now);

  StreamSettings settings_;
  PictureCells cells_;
  QualityControl control_;
  Damage changed_;  // what the service does not know yet
  Damage change_;   // of the picture being given; a member for its memory
  // RateControl::encoder: not sharp yet, as far as the frames' quantizers tell.
  Damage coarse_;
  int32_t sharpenings_ = 0;  // frames sent for nothing else since the last change
  std::vector<service::RegionCopy> copies_;
  int32_t present_ = -1;
  int64_t presentNumber_ = -1;
  Time presentTime_{};
  int32_t sent_ = -1;  // cell of the picture that the encoder has seen last
  int64_t sentNumber_ = 0;
  Time sentTime_{};
  Time lastFrame_ = -kNever;
  Time nextTime_ = kNever;
  bool anew_ = true;
  bool keyFrameWanted_ = false;
  bool silent_ = false;  // nothing to do until something happens
  bool ready_ = false;   // frame_ waits to be sent
  QualityPlan plan_;
  PlannedFrame frame_;
};

}  // namespace qora::client
