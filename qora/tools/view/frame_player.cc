// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/view/frame_player.h"

#include "qora/client/changed_rectangles.h"

namespace qora::tools {

int32_t FramePlayer::open(const std::string& path, int32_t framesASecond) {
  if (decoder_.open(problem_) == -1) return -1;
  if (input_.open(path, framesASecond) == 1) return 1;
  problem_ = input_.problem();
  return -1;
}

FramePlayer::Next FramePlayer::load(int32_t timeout) {
  const Next next = input_.next(frame_, timeout);
  if (next == Next::failed) problem_ = input_.problem();
  return next;
}

int64_t FramePlayer::copiedMacroblocks() const {
  int64_t pixels = 0;
  for (const service::RegionCopy& copy : frame_.copies) pixels += int64_t{copy.width} * copy.height;
  return pixels / (client::kMacroblockSize * client::kMacroblockSize);
}

int32_t FramePlayer::show() {
  time_ = waitingTime();
  if (frame_.head.end) return 0;
  const int32_t decoded = decoder_.decode(frame_.accessUnit, frame_.copies);
  ++frames_;
  if (decoded == -1) {
    problem_ = "no memory for a picture";
    return -1;
  }
  if (decoded == 1 && frame_.head.keyFrame) wrong_ = false;
  if (decoded == 0 || frame_.afterGap) wrong_ = true;
  if (wrong_) ++damaged_;
  return decoder_.hasPicture() ? 1 : 0;
}

std::string FramePlayer::damage() const {
  const int64_t lost = input_.lostBytes();
  if (lost == 0 && damaged_ == 0) return "";
  std::string text = input_.name() + ": the stream is damaged or cut off: ";
  if (lost > 0) text += std::to_string(lost) + " bytes cannot be read, ";
  return text + std::to_string(damaged_) + " of " + std::to_string(frames_) +
         " pictures may be wrong";
}

}  // namespace qora::tools
