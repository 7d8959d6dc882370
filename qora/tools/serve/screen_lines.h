// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/serve/screen_lines.h -- A live screen, coded for up to two lines of different width.
//
// What is drawn is read and compared once, whatever the lines. A service that dies is started
// again, later each time it does. Times are in microseconds, the reactor's; one thread.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "qora/capture/screen.h"
#include "qora/client/damage.h"
#include "qora/client/screen_session.h"
#include "qora/tools/serve/serve_options.h"

namespace qora::serve {

class ScreenLines {
 public:
  static constexpr int32_t kLines = 2;
  using Watched = std::array<bool, kLines>;  // lines with a viewer that wants pictures

  explicit ScreenLines(const ServeOptions& options) : options_(options) {}

  // Opens the screen, starts the service, and the first line. 1, or -1 with a line of words in
  // problem().
  [[nodiscard]] int32_t open();
  // Set when the screen is gone or cannot be coded any more.
  bool isOver() const { return over_; }
  const std::string& problem() const { return problem_; }
  const capture::ScreenSize& size() const { return size_; }

  // Of the screen, and of the service, which is another one after each start; -1: none.
  int32_t screenDescriptor() const { return screen_ == nullptr ? -1 : screen_->descriptor(); }
  int32_t replyDescriptor() const { return session_.replyDescriptor(); }

  // A line begins with a key frame of the whole screen. 1, or -1.
  [[nodiscard]] int32_t openLine(int32_t line);
  void closeLine(int32_t line);
  bool isOpen(int32_t line) const { return lines_[static_cast<size_t>(line)].open; }
  // At most one a second.
  void wantKey(int32_t line, int64_t now);
  void setRate(int32_t line, int64_t bytesASecond);
  void acknowledged(int32_t line, int64_t bytes, std::chrono::microseconds roundTrip) {
    session_.acknowledged(line, bytes, roundTrip);
  }

  // Starts a service that is due to be.
  void revive(int64_t now);
  // Takes in what was drawn. True when the screen has another size than before.
  bool takeDamage();
  // While nobody watches: takes in what the screen's server says, and leaves what was drawn there.
  void listen();
  // Sends the lines that are watched what they lack, at most as often as the options say.
  void encode(const Watched& watched, int64_t now);
  // 1: the next frame. 0: there is none.
  int32_t takeFrame(client::CodedFrame& frame);
  // When something is due, if nothing happens before.
  int64_t nextTime(const Watched& watched, int64_t now);

 private:
  // One encoder's stream, by its id.
  struct Line {
    bool open = false;
    client::Damage pending;  // drawn on and not encoded
    int64_t keyAt = 0;       // when a key frame was last asked for
    int64_t rate = 0;        // bytes a second, as the session was told
  };

  void end(const std::string& problem);
  int32_t startService();
  void serviceFailed(int64_t now);
  bool followSize();
  void encodeLines(std::span<const int32_t> lines);
  void encodeLine(int32_t line, const client::Picture& picture, const client::Damage& drawn);

  const ServeOptions& options_;
  std::unique_ptr<capture::Screen> screen_;
  client::ScreenSession session_;
  capture::ScreenSize size_{};
  std::array<Line, kLines> lines_;
  int64_t nextPicture_ = 0;
  int64_t restartAt_ = 0;  // 0: the service runs
  int64_t restartWait_ = 0;
  bool over_ = false;
  std::string problem_;

  // Used again for every picture.
  std::vector<capture::Area> areas_;
  std::vector<capture::Piece> pieces_;
  std::vector<service::Rectangle> rectangles_;
};

}  // namespace qora::serve
