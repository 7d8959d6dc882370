// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/record_session.h -- One run of qora-record: a live screen into a file.
//
// A loop of one thread, which sleeps until the screen was drawn on, a frame is coded, something is
// to be sharpened, a file's piece is complete, or somebody wants it to stop. After a picture it
// looks at the screen again only when the next one may be made: what is drawn meanwhile adds up on
// the other side.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "qora/capture/screen.h"
#include "qora/client/move_detector.h"
#include "qora/client/screen_session.h"
#include "qora/client/sequence_parameters.h"
#include "qora/tools/coded_output.h"
#include "qora/tools/progress.h"
#include "qora/tools/record_options.h"
#include "qora/tools/screen_reader.h"

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
  int32_t failScreen();
  int32_t open();
  int32_t startService();
  int32_t record();
  int32_t step();
  int32_t lookAtScreen();
  int32_t changeSize();
  int32_t acquirePicture();
  int32_t capture();
  int32_t give();
  void findMoves();
  void payDebt();
  int32_t takeFrames(int32_t timeout);
  int32_t restartService();
  std::span<const uint8_t> trueAccessUnit();
  int32_t writeFrame(Time time);
  Time timeOfFrame();
  int32_t finish();
  int32_t endFile(Time end);
  bool wantsKeyFrame() const;
  Time wakeTime() const;
  int32_t wait();
  Time now() const;
  RecordFigures figures() const;
  void showProgress();

  const RecordOptions options_;
  const Time interval_;  // between pictures, at least
  const client::SequenceFacts facts_;
  std::unique_ptr<CodedOutput> output_;
  std::unique_ptr<capture::Screen> screen_;
  client::ScreenSession session_;
  ScreenReader reader_;
  client::MoveDetector detector_;
  client::Moves moves_;
  client::CodedFrame frame_;
  std::vector<uint8_t> rewritten_;  // its access unit, where it has parameter sets
  ProgressLine progress_;

  capture::ScreenSize size_{0, 0};
  client::Picture picture_{};  // being filled, of the session
  bool acquired_ = false;      // there is one
  client::Damage changed_;     // in it
  // Where moves left colours a trace off the screen's: all, those since the last payment, and those
  // to be read again now.
  client::Damage owed_, owedLately_, due_;
  Time nextPayment_ = Time::max();
  bool first_ = true;        // of its size
  Clock::time_point start_;  // of the recording: its first picture
  bool started_ = false;
  bool damaged_ = false;      // the screen has something to read
  Time nextPicture_{};        // not before
  Time lastFrame_{-1};        // time of the frame written last
  int64_t lastPicture_ = -1;  // that it shows
  Time lastKey_{};
  int32_t framesSinceStart_ = 0;  // of the service
  int64_t frames_ = 0;
  int64_t bytes_ = 0;
  int64_t macroblocks_ = 0;  // summed over the frames: all, changed, copied
  int64_t changedCount_ = 0;
  int64_t movedCount_ = 0;
  double encodeSeconds_ = 0;
  std::string problem_;
};

}  // namespace qora::tools
