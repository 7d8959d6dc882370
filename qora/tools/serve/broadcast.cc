// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/serve/broadcast.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "qora/tools/numbers.h"
#include "qora/tools/serve/frame_message.h"

namespace qora::serve {
namespace {

using Time = ViewerFlow::Time;

// Times are in microseconds.
constexpr int64_t kSecond = 1'000'000;
constexpr int64_t kStalled = kSecond;           // no frame is acknowledged: no one waits for it
constexpr int64_t kMoveInterval = 5 * kSecond;  // a viewer stays on a line for so long
constexpr int64_t kStartRate = 4'000'000 / 8;
constexpr int64_t kMovingPointer = 30'000;
constexpr int64_t kStillPointer = 100'000;

int64_t bytesASecond(int64_t kilobits) {
  return kilobits * 125;
}

}  // namespace

Broadcast::Viewer::Viewer(Connection& to, const ServeOptions& options)
    : connection(to),
      flow(options.fps, client::LinkRate(std::min(kStartRate, bytesASecond(options.maxRate)),
                                         bytesASecond(options.maxRate))),
      openedAt(Reactor::now()),
      doneAt(openedAt),
      askedAt(0),
      movedAt(openedAt) {}

Broadcast::Broadcast(const ServeOptions& options, const Tokens& tokens, Reactor& reactor)
    : options_(options), tokens_(tokens), reactor_(reactor), lines_(options) {}

Broadcast::~Broadcast() {
  if (lines_.screenDescriptor() != -1) reactor_.unwatch(lines_.screenDescriptor());
  if (watchedReplies_ != -1) reactor_.unwatch(watchedReplies_);
}

int32_t Broadcast::open() {
  if (lines_.open() == -1) return -1;
  const char* const display =
      options_.screen.display.empty() ? nullptr : options_.screen.display.c_str();
  if (options_.control && input_.open(display, problem_) == -1) return -1;
  hasPointer_ = pointer_.open(options_.screen.display) == 1;
  reactor_.onTimer([this] { step(); });
  if (reactor_.watch(lines_.screenDescriptor(), [this] { step(); }) == -1) {
    problem_ = "cannot watch the screen";
    return -1;
  }
  step();
  return isOver() ? -1 : 1;
}

// Everything that is due. Called whenever something may be.
void Broadcast::step() {
  if (isOver()) return;
  const int64_t now = Reactor::now();
  lines_.revive(now);
  takeFrames();
  if (isAnyWatched()) {
    if (lines_.takeDamage()) tellScreens();
    if (isOver()) return;
    askForKeys(now);
    lines_.encode(watched(), now);
    takeFrames();
    watchPointer(now);
  } else {
    lines_.listen();
    if (isOver()) return;
  }
  if (now >= nextSecond_) everySecond(now);
  if (lines_.replyDescriptor() != watchedReplies_) {
    if (watchedReplies_ != -1) reactor_.unwatch(watchedReplies_);
    watchedReplies_ = lines_.replyDescriptor();
    if (watchedReplies_ != -1) reactor_.watch(watchedReplies_, [this] { step(); });
  }
  setTimer(now);
}

void Broadcast::takeFrames() {
  while (lines_.takeFrame(frame_) == 1) deliver(frame_);
}

void Broadcast::deliver(const client::CodedFrame& frame) {
  SharedMessage message;
  const auto shared = std::make_shared<Shared>();
  shared->line = frame.stream;
  const int64_t now = Reactor::now();
  for (const auto& viewer : viewers_) {
    if (viewer->line != frame.stream) continue;
    const auto bytes = static_cast<int64_t>(frame.bytes.size());
    if (!viewer->flow.offer(frame.keyFrame, bytes, Time(now))) {
      dropFrames(*viewer);
      tellLate(*viewer);
      continue;
    }
    if (message == nullptr) message = frameMessage(frame, lines_.size());
    if (viewer->frames.empty()) viewer->doneAt = now;
    viewer->frames.push_back(shared);
    ++shared->waiting;
    viewer->connection.send(message);
  }
  shared->bytes = static_cast<int64_t>(frame.bytes.size());
  if (shared->waiting == 0) lines_.acknowledged(frame.stream, shared->bytes, {});
}

void Broadcast::askForKeys(int64_t now) {
  for (const auto& viewer : viewers_) {
    if (viewer->line != -1 && viewer->flow.wantsKey()) lines_.wantKey(viewer->line, now);
  }
}

// --- Viewers -----------------------------------------------------------------------------------

void Broadcast::opened(Connection& connection) {
  viewers_.push_back(std::make_unique<Viewer>(connection, options_));
  connection.owner = viewers_.back().get();
  setTimer(Reactor::now());
}

void Broadcast::closed(Connection& connection) {
  Viewer* const viewer = viewerOf(connection);
  dropFrames(*viewer);
  if (controller_ == viewer) {
    input_.releaseAll();
    controller_ = nullptr;
  }
  std::erase_if(viewers_, [&](const auto& one) { return one.get() == viewer; });
  step();
}

void Broadcast::received(Connection& connection, std::string_view text) {
  Viewer& viewer = *viewerOf(connection);
  const size_t space = std::min(text.find(' '), text.size());
  const std::string_view rest = text.substr(std::min(space + 1, text.size()));
  if (viewer.line == -1) {
    if (text.substr(0, space) != "token") return connection.cut("it did not log in");
    return letIn(viewer, rest);
  }
  understand(viewer, text.substr(0, space), rest);
}

void Broadcast::letIn(Viewer& viewer, std::string_view token) {
  viewer.mayControl = options_.control && matchesToken(tokens_.control, token);
  if (!viewer.mayControl && !matchesToken(tokens_.view, token)) {
    viewer.connection.send("refused");
    std::fprintf(stderr, "qora-serve: %s has a wrong token\n", viewer.connection.peer().c_str());
    viewer.openedAt = 0;  // the next round of everySecond() ends it
    return;
  }
  viewer.line = kFast;
  tellScreen(viewer);
  askLine(viewer, Reactor::now());
  if (!pointer_.shape().empty()) {
    viewer.connection.send(pointer_.shape());
    viewer.connection.send(pointer_.place());
  }
  step();
}

void Broadcast::understand(Viewer& viewer, std::string_view word, std::string_view rest) {
  int32_t count = 0;
  if (word == "ack" && tools::parseNumber(rest, 0, INT32_MAX, count) == 1) {
    acknowledge(viewer, count, Reactor::now());
  } else if (word == "key" && rest.empty()) {
    viewer.flow.needKey();
  } else if ((word == "pause" || word == "resume") && rest.empty()) {
    viewer.flow.pause(word == "pause");
  } else if (!viewer.mayControl || !control(viewer, word, rest)) {
    return viewer.connection.cut("a message that makes no sense");
  }
  step();
}

bool Broadcast::control(Viewer& viewer, std::string_view word, std::string_view rest) {
  int32_t x = 0;
  int32_t y = 0;
  // Who presses something takes over from whoever did before.
  const bool takesOver = word == "button" || word == "press" || word == "text";
  if (takesOver && controller_ != &viewer) {
    input_.releaseAll();
    controller_ = &viewer;
  }
  const bool holds = controller_ == nullptr || controller_ == &viewer;
  if (word == "move" && tools::parsePair(rest, ' ', 0, 65535, x, y) == 1) {
    if (holds) input_.move(x, y);
  } else if (word == "button" && tools::parsePair(rest, ' ', 0, ScreenInput::kButtons, x, y) == 1) {
    input_.button(x, y != 0);
  } else if (word == "wheel" && tools::parseNumber(rest, -20, 20, x) == 1) {
    if (holds) input_.wheel(x);
  } else if (word == "press" || word == "release") {
    if (holds) input_.key(rest, word == "press");
  } else if (word == "text") {
    input_.text(rest);
  } else {
    return false;
  }
  return true;
}

void Broadcast::acknowledge(Viewer& viewer, int64_t count, int64_t now) {
  const auto before = static_cast<int64_t>(viewer.frames.size());
  if (viewer.flow.acknowledged(count, Time(now)) == -1) {
    return viewer.connection.cut("it acknowledges what it was not sent");
  }
  const int64_t done = before - viewer.flow.link().unacknowledged();
  if (done == 0) {
    if (viewer.askedAt != 0) viewer.flow.link().probed(Time(now), Time(now - viewer.askedAt));
    viewer.askedAt = 0;
    return;
  }
  viewer.doneAt = now;
  for (int64_t left = done; left > 0; --left) {
    arrived(viewer.frames.front());
    viewer.frames.pop_front();
  }
  setRate(viewer.line);
  tellLate(viewer);
}

void Broadcast::arrived(const std::shared_ptr<Shared>& frame) {
  if (frame == nullptr || --frame->waiting > 0) return;
  int64_t shortest = 0;
  for (const auto& viewer : viewers_) {
    if (viewer->line != frame->line || viewer->flow.link().roundTrip().count() == -1) continue;
    shortest = std::max(shortest, viewer->flow.link().leastRoundTrip().count());
  }
  lines_.acknowledged(frame->line, frame->bytes, std::chrono::microseconds(shortest));
}

// Nobody waits for what a viewer has not acknowledged, so it holds no one back.
void Broadcast::dropFrames(Viewer& viewer) {
  for (auto& frame : viewer.frames) arrived(std::exchange(frame, nullptr));
}

void Broadcast::tellLate(Viewer& viewer) {
  if (viewer.toldLate == viewer.flow.isLate()) return;
  viewer.toldLate = viewer.flow.isLate();
  viewer.connection.send(viewer.toldLate ? "late 1" : "late 0");
}

void Broadcast::tellScreen(Viewer& viewer) {
  const capture::ScreenSize& size = lines_.size();
  viewer.connection.send("screen " + std::to_string(size.width) + " " +
                         std::to_string(size.height) + (viewer.mayControl ? " control" : " view"));
}

void Broadcast::tellScreens() {
  for (const auto& viewer : viewers_) {
    if (viewer->line != -1) tellScreen(*viewer);
  }
}

bool Broadcast::isWatched(int32_t line) const {
  return std::any_of(viewers_.begin(), viewers_.end(), [&](const auto& viewer) {
    return viewer->line == line && !viewer->flow.isPaused();
  });
}

ScreenLines::Watched Broadcast::watched() const {
  return {isWatched(kFast), isWatched(kSlow)};
}

// --- Lines -------------------------------------------------------------------------------------

void Broadcast::everySecond(int64_t now) {
  nextSecond_ = now + kSecond;
  for (const auto& viewer : viewers_) {
    if (viewer->line == -1 && now - viewer->openedAt > WebServer::kLoginTime) {
      viewer->connection.cut("it did not log in");
    }
    if (viewer->line == -1) continue;
    if (!viewer->frames.empty() && now - viewer->doneAt > kStalled) {
      viewer->flow.needKey();
      dropFrames(*viewer);
      tellLate(*viewer);
    }
    askLine(*viewer, now);
  }
  arrangeLines(now);
}

// The page answers at once, also when there is no picture.
void Broadcast::askLine(Viewer& viewer, int64_t now) {
  if (viewer.askedAt != 0) return;
  viewer.askedAt = now;
  const int64_t delay = std::max<int64_t>(viewer.flow.link().roundTrip().count(), 0) / 1000;
  viewer.connection.send(std::string("line ").append(std::to_string(delay)));
}

// A viewer with less than half of what the best one has goes to the slow line, and comes back when
// it has nearly as much as the slowest of the fast.
void Broadcast::arrangeLines(int64_t now) {
  int64_t best = 0;
  int64_t slowestFast = INT64_MAX;
  for (const auto& viewer : viewers_) {
    if (viewer->line == -1) continue;
    best = std::max(best, viewer->flow.link().rate());
    if (viewer->line == kFast) slowestFast = std::min(slowestFast, viewer->flow.link().rate());
  }
  for (const auto& viewer : viewers_) {
    const int64_t rate = viewer->flow.link().rate();
    if (viewer->line == kFast && rate < best / 2 && now - viewer->movedAt > kSecond) {
      moveTo(*viewer, kSlow, now);
    } else if (viewer->line == kSlow && now - viewer->movedAt > kMoveInterval &&
               (!isWatched(kFast) || rate > slowestFast * 9 / 10)) {
      moveTo(*viewer, kFast, now);
    }
  }
  const bool used = std::any_of(viewers_.begin(), viewers_.end(),
                                [](const auto& viewer) { return viewer->line == kSlow; });
  if (!used) lines_.closeLine(kSlow);
  for (const int32_t line : {kFast, kSlow}) setRate(line);
}

void Broadcast::moveTo(Viewer& viewer, int32_t line, int64_t now) {
  if (!lines_.isOpen(line) && lines_.openLine(line) == -1) return;
  dropFrames(viewer);
  viewer.line = line;
  viewer.movedAt = now;
  viewer.flow.needKey();
}

// A stream has what its slowest viewer takes; those that are behind do not count among others.
void Broadcast::setRate(int32_t line) {
  const int64_t most = bytesASecond(options_.maxRate);
  int64_t ofAll = most;
  int64_t inTime = INT64_MAX;
  for (const auto& viewer : viewers_) {
    if (viewer->line != line) continue;
    ofAll = std::min(ofAll, viewer->flow.link().rate());
    if (viewer->keepsUp()) inTime = std::min(inTime, viewer->flow.link().rate());
  }
  lines_.setRate(line, inTime == INT64_MAX ? ofAll : std::min(most, inTime));
}

void Broadcast::watchPointer(int64_t now) {
  if (!hasPointer_ || now < nextPointer_) return;
  if (pointer_.look() == 1) {
    pointerMoved_ = now;
    for (const auto& viewer : viewers_) {
      // A line that is full gets the place later: only the last one counts.
      if (viewer->line == -1 || (!pointer_.hasNewShape() && viewer->connection.waiting() > 2)) {
        continue;
      }
      if (pointer_.hasNewShape()) viewer->connection.send(pointer_.shape());
      viewer->connection.send(pointer_.place());
    }
  }
  nextPointer_ = now + (now - pointerMoved_ < kSecond ? kMovingPointer : kStillPointer);
}

void Broadcast::setTimer(int64_t now) {
  int64_t next = now + 3600 * kSecond;
  next = std::min(next, lines_.nextTime(watched(), now));
  if (!viewers_.empty()) next = std::min(next, nextSecond_);
  if (isAnyWatched() && hasPointer_) next = std::min(next, nextPointer_);
  reactor_.callAt(next);
}

}  // namespace qora::serve
