// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/view/view_session.h -- One run of qora-view: a stream in a window, compared with its
// source, or one picture of it saved.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "qora/tools/clip_reader.h"
#include "qora/tools/picture_check.h"
#include "qora/tools/view/frame_player.h"
#include "qora/tools/view/view_options.h"
#include "qora/tools/view/view_window.h"

namespace qora::tools {

// "0:01:05.320, frame 120", and what else is to be said.
std::string titleText(const std::string& name, std::chrono::microseconds time, int64_t frames,
                      const std::string& state);

class ViewSession {
 public:
  explicit ViewSession(const ViewOptions& options) : options_(options) {}

  // 1: done. 0: done, but the stream is damaged or not what it should be; problem() says how. -1:
  // it failed, problem() says why.
  [[nodiscard]] int32_t run();
  const std::string& problem() const { return problem_; }

 private:
  using Clock = std::chrono::steady_clock;
  using Next = FramePlayer::Next;
  using Time = std::chrono::microseconds;

  int32_t fail(const std::string& problem);
  int32_t conclude();
  int32_t load(int32_t timeout);
  int32_t advance();

  // Without a window.
  int32_t list();
  int32_t save();
  int32_t verify();
  int32_t advanceTo(int64_t number, bool& newStart);
  int32_t compare(int64_t number, PictureMemory& memory);
  int32_t drain();
  int32_t report();
  int32_t differ(const std::string& how);

  // In a window.
  int32_t play();
  int32_t step();
  int32_t take();
  int32_t present();
  int32_t rest();
  bool isDue() const;
  Time untilDue() const;
  void handle(ViewKey key);
  void showTitle();

  const ViewOptions options_;
  FramePlayer player_;
  bool waiting_ = false;  // a frame is read and not decoded
  bool ended_ = false;
  std::string problem_;

  ClipReader source_;
  PictureCheck check_;
  int64_t missing_ = 0;  // pictures that the source has and the stream has not
  int64_t surplus_ = 0;  // the other way round

  ViewWindow window_;
  Clock::time_point start_;   // when time 0 of a file was shown, or would have been
  Clock::time_point paused_;  // since when
  bool isPaused_ = false;
  bool wantsStep_ = false;
  bool wantsQuit_ = false;
  bool isNew_ = false;         // what is decoded is not shown yet
  Clock::time_point shown_{};  // a picture was, last
  Clock::time_point titled_{};
};

}  // namespace qora::tools
