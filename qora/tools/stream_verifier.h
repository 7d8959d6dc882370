// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/stream_verifier.h -- Whether a coded stream shows its source, frame by frame as it is
// made.
//
// Decodes as a viewer does and compares with the source. What the encoder itself has is not to be
// had outside the service, so a frame is held against what its quantizers allow, and against the
// frames before it, see PictureCheck.
#pragma once

#include <cstdint>
#include <string>

#include "qora/client/screen_session.h"
#include "qora/tools/picture_check.h"
#include "qora/tools/picture_decoder.h"

namespace qora::tools {

class StreamVerifier {
 public:
  // 1, or -1 with one line in `problem`.
  [[nodiscard]] int32_t open(std::string& problem) { return decoder_.open(problem); }
  // Whether similarity() is wanted, which costs about as much as the rest.
  void measureSimilarity(bool wanted) { measuresSimilarity_ = wanted; }

  // A frame in the order of sending, and the clip's picture now; `isOf`: the frame is of that very
  // picture, not of one before. 1, or -1: no memory.
  [[nodiscard]] int32_t add(const client::CodedFrame& frame, const client::Picture& source,
                            bool isOf);

  // The first thing that was wrong, with the frame's number; empty: nothing so far.
  std::string mismatch() const;
  CheckFigures figures() const { return check_.figures(); }
  // Structural, the mean of all frames.
  double similarity() const;

 private:
  void noteQuantizers(const client::CodedFrame& frame);
  void compare(const client::CodedFrame& frame, const client::Picture& source, bool isOf);

  PictureDecoder decoder_;
  PictureCheck check_;
  int64_t frames_ = 0;
  int32_t coarsest_ = 0;  // quantizer of any macroblock since the last key frame
  std::string mismatch_;
  bool measuresSimilarity_ = false;
  double similarities_ = 0;
};

// Decibels that a picture has at the least which was coded with quantizers up to this one.
double lowestPsnr(int32_t quantizer);

}  // namespace qora::tools
