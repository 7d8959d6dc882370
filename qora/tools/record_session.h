// qora/tools/record_session.h -- One run of qora-record: a live screen into a file.
//
// A loop of one thread, which sleeps until the screen was drawn on, something is to be sharpened, a
// file's piece is complete, or somebody wants it to stop. After a frame it looks at the screen
// again only when the next one may be made: what is drawn meanwhile adds up on the other side.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "qora/capture/screen.h"
#include "qora/tools/live_encoder.h"
#include "qora/tools/live_picture.h"
#include "qora/tools/progress.h"
#include "qora/tools/record_options.h"
#include "qora/tools/record_output.h"

namespace qora::tools {

// What a person wants to know of a recording, since its start.
struct RecordFigures {
  double seconds = 0;
  int64_t frames = 0;
  int64_t bytes = 0;
  int32_t quantizer = -1;       // of the last frame; -1: not known
  double changedPercent = 0;    // of the macroblocks of all frames
  double movedPercent = 0;      // copied, of those
  double processorPercent = 0;  // of one, ours and the service's
};
// "0:01:05  120 frames, 345.6 kbit/s, quantizer 23, 4.5% changed, 0.0% moved, 1.2% of a processor"
std::string recordText(const RecordFigures& figures);

class RecordSession {
 public:
  explicit RecordSession(const RecordOptions& options);

  // Records until the duration is over, somebody stops it (1) or the screen goes away (0); the
  // recording is complete then. -1: it failed, what was recorded until then is in the file. With 0
  // and -1 problem() says why.
  [[nodiscard]] int32_t run();
  const std::string& problem() const { return problem_; }

 private:
  using Clock = std::chrono::steady_clock;
  using Time = std::chrono::microseconds;

  int32_t fail(const std::string& problem);
  int32_t open();
  int32_t startEncoder();
  int32_t record();
  int32_t step();
  int32_t lookAtScreen();
  int32_t changeSize();
  int32_t capture();
  int32_t encode(Time time);
  int32_t write(Time time);
  int32_t finish();
  int32_t endFile(Time end);
  bool wantsKeyFrame(Time time) const;
  Time wakeTime() const;
  int32_t wait();
  void scheduleNext(Time time);
  Time now() const;
  RecordFigures figures() const;
  void showProgress();

  const RecordOptions options_;
  const Time interval_;  // between frames, at least
  std::unique_ptr<RecordOutput> output_;
  std::unique_ptr<capture::Screen> screen_;
  LivePicture picture_;  // after what it is in
  LiveEncoder encoder_;
  LiveFrame frame_;
  ProgressLine progress_;
  capture::ScreenSize size_{0, 0};
  Clock::time_point start_;  // of the recording: its first picture
  bool started_ = false;
  bool damaged_ = false;       // the screen has something to read
  Time nextFrame_{};           // not before
  Time captured_{};            // when the picture was read last
  Time wakeAt_ = Time::max();  // when there is something to sharpen
  Time lastKey_{};
  int64_t frames_ = 0;
  int64_t bytes_ = 0;
  int64_t macroblocks_ = 0;  // summed over the frames: all, changed, moved
  int64_t changed_ = 0;
  int64_t moved_ = 0;
  std::string problem_;
};

}  // namespace qora::tools
