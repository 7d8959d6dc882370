// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/serve/broadcast.h -- One screen to many viewers.
//
// All viewers share an encoder, and a frame's bytes. A viewer whose line carries much less than the
// others' gets a second, coarser stream, so that it holds nobody back: two encoders at most,
// however many watch. A stream goes at the pace of the slowest viewer that keeps up, by what the
// pages acknowledge; who falls behind waits for the next key frame. Nobody watches: nothing is
// read, compared or encoded.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "qora/client/screen_session.h"
#include "qora/tools/serve/pointer_watch.h"
#include "qora/tools/serve/reactor.h"
#include "qora/tools/serve/screen_input.h"
#include "qora/tools/serve/screen_lines.h"
#include "qora/tools/serve/serve_options.h"
#include "qora/tools/serve/tokens.h"
#include "qora/tools/serve/viewer_flow.h"
#include "qora/tools/serve/web_server.h"

namespace qora::serve {

class Broadcast final : public WebListener {
 public:
  Broadcast(const ServeOptions& options, const Tokens& tokens, Reactor& reactor);
  ~Broadcast();

  // 1, or -1 with a line of words in problem().
  [[nodiscard]] int32_t open();
  // Set when the screen is gone or cannot be served any more: the program ends.
  bool isOver() const { return lines_.isOver(); }
  const std::string& problem() const { return problem_.empty() ? lines_.problem() : problem_; }

  void opened(Connection& connection) override;
  void received(Connection& connection, std::string_view text) override;
  void closed(Connection& connection) override;

 private:
  // A frame on its way: how many viewers have not acknowledged it yet.
  struct Shared {
    int32_t line;
    int64_t bytes;
    int32_t waiting;
  };
  struct Viewer {
    Viewer(Connection& to, const ServeOptions& options);
    bool keepsUp() const { return !flow.isLate() && (frames.empty() || frames.front() != nullptr); }

    Connection& connection;
    ViewerFlow flow;
    std::deque<std::shared_ptr<Shared>> frames;  // unacknowledged; null: nobody waits for it
    int64_t openedAt;
    int64_t doneAt;     // a frame was acknowledged last, or sent with none on the way
    int64_t askedAt;    // for one that is no frame's; 0: not asked
    int64_t movedAt;    // to another line
    int32_t line = -1;  // -1: not let in yet
    bool mayControl = false;
    bool toldLate = false;
  };
  static constexpr int32_t kFast = 0;
  static constexpr int32_t kSlow = 1;

  void step();
  void takeFrames();
  void deliver(const client::CodedFrame& frame);
  void askForKeys(int64_t now);
  void watchPointer(int64_t now);
  void everySecond(int64_t now);
  void arrangeLines(int64_t now);
  void setRate(int32_t line);
  void moveTo(Viewer& viewer, int32_t line, int64_t now);
  void setTimer(int64_t now);

  Viewer* viewerOf(Connection& connection) { return static_cast<Viewer*>(connection.owner); }
  bool isWatched(int32_t line) const;
  ScreenLines::Watched watched() const;
  bool isAnyWatched() const { return isWatched(kFast) || isWatched(kSlow); }
  void letIn(Viewer& viewer, std::string_view token);
  void understand(Viewer& viewer, std::string_view word, std::string_view rest);
  bool control(Viewer& viewer, std::string_view word, std::string_view rest);
  void acknowledge(Viewer& viewer, int64_t count, int64_t now);
  void dropFrames(Viewer& viewer);
  void arrived(const std::shared_ptr<Shared>& frame);
  void askLine(Viewer& viewer, int64_t now);
  void tellLate(Viewer& viewer);
  void tellScreen(Viewer& viewer);
  void tellScreens();

  const ServeOptions& options_;
  const Tokens& tokens_;
  Reactor& reactor_;
  ScreenLines lines_;
  int32_t watchedReplies_ = -1;  // the service's descriptor that the reactor has
  ScreenInput input_;
  PointerWatch pointer_;
  bool hasPointer_ = false;
  Viewer* controller_ = nullptr;

  std::vector<std::unique_ptr<Viewer>> viewers_;
  int64_t nextPointer_ = 0;
  int64_t pointerMoved_ = 0;
  int64_t nextSecond_ = 0;
  std::string problem_;

  client::CodedFrame frame_;  // used again for every one
};

}  // namespace qora::serve
