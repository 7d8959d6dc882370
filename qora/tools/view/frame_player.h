// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/view/frame_player.h -- Frames of a stream made into pictures, one after the other, and
// an account of what was wrong with them.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "qora/tools/picture_decoder.h"
#include "qora/tools/view/stream_input.h"

namespace qora::tools {

class FramePlayer {
 public:
  using Next = StreamInput::Next;
  using Time = std::chrono::microseconds;

  // 1, or -1 with problem().
  [[nodiscard]] int32_t open(const std::string& path, int32_t framesASecond);

  // Reads the next frame, which waits then; at the stream's end notes what is lost.
  Next load(int32_t timeout);
  // Of the one that waits: when it is to be shown, whether it only says that the stream ends then.
  Time waitingTime() const { return Time(frame_.head.time); }
  bool isEndMark() const { return frame_.head.end; }
  bool isKeyFrame() const { return frame_.head.keyFrame; }
  size_t waitingBytes() const { return frame_.accessUnit.size(); }
  int64_t copiedMacroblocks() const;
  // Decodes it. 1: picture() is new. 0: there is none. -1 with problem().
  [[nodiscard]] int32_t show();

  bool hasPicture() const { return decoder_.hasPicture(); }
  client::Picture picture() const { return decoder_.picture(); }
  Time time() const { return time_; }         // of the frame shown last
  int64_t frames() const { return frames_; }  // decoded so far

  const StreamInput& input() const { return input_; }
  // One line; empty: all was in order so far.
  std::string damage() const;
  const std::string& problem() const { return problem_; }

 private:
  StreamInput input_;
  PictureDecoder decoder_;
  client::StreamFrame frame_;
  Time time_{0};
  int64_t frames_ = 0;
  int64_t damaged_ = 0;
  bool wrong_ = false;  // until a frame stands alone
  std::string problem_;
};

}  // namespace qora::tools
