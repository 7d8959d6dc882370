// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/view/stream_input.h -- Coded frames with their times out of a stream with moves or a
// plain H.264 stream, from a file or a pipe.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "qora/base/descriptor.h"
#include "qora/client/stream_format.h"
#include "qora/tools/view/access_unit_splitter.h"

namespace qora::tools {

class StreamInput {
 public:
  // What became of asking for a frame.
  enum class Next {
    frame,
    notYet,  // nothing came in time
    end,
    failed,  // problem() says why
  };

  // Opens `path`, "-" for standard input. A plain stream has no times: it has `framesASecond`.
  // 1, or -1 with problem().
  [[nodiscard]] int32_t open(const std::string& path, int32_t framesASecond);

  // A pipe, a socket or a terminal: what comes is to be shown at once.
  bool isLive() const { return live_; }

  // The next frame; its head has the time in microseconds since the first. Waits for it for up to
  // `timeout` milliseconds, -1: as long as it takes. A plain stream's frame is known to be whole
  // when the next one begins or, when live, nothing comes for a
  // moment; ask again then.
  Next next(client::StreamFrame& frame, int32_t timeout);

  // After the first frame: whether frames carry times, and can have copies.
  bool isTimed() const { return kind_ == Kind::timed; }
  int64_t lostBytes() const { return reader_.lostBytes(); }
  const std::string& name() const { return name_; }
  const std::string& problem() const { return problem_; }

 private:
  using Clock = std::chrono::steady_clock;
  enum class Kind { unknown, timed, plain };

  int32_t fail(const std::string& problem);
  int32_t fill(int32_t timeout);
  void recognise();
  int32_t take(client::StreamFrame& frame);
  int32_t takePlain(client::StreamFrame& frame);
  void setTime(client::StreamFrame& frame);

  Descriptor input_;
  std::string name_;
  bool live_ = false;
  bool ended_ = false;
  Clock::time_point lastInput_{};
  Kind kind_ = Kind::unknown;
  std::vector<uint8_t> begin_;  // what came before the kind was known
  std::vector<uint8_t> chunk_;
  client::StreamReader reader_;
  AccessUnitSplitter splitter_;
  int32_t framesASecond_ = 25;
  int64_t frames_ = 0;
  int64_t firstTime_ = 0;  // of the stream, its ticks
  std::string problem_;
};

}  // namespace qora::tools
