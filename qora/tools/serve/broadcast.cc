// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/serve/broadcast.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "qora/client/convert.h"
#include "qora/client/sequence_parameters.h"
#include "qora/client/stream_format.h"
#include "qora/tools/numbers.h"
#include "qora/tools/service_paths.h"

namespace qora::serve {
namespace {

using Time = ViewerFlow::Time;

// Times are in microseconds.
constexpr int64_t kSecond = 1'000'000;
constexpr int64_t kKeyInterval = kSecond;       // between key frames that viewers ask for
constexpr int64_t kStalled = kSecond;           // without a word from a viewer: no one waits for it
constexpr int64_t kMoveInterval = 5 * kSecond;  // a viewer stays on a line for so long
constexpr int64_t kStartRate = 4'000'000 / 8;
constexpr int64_t kMovingPointer = 30'000;
constexpr int64_t kStillPointer = 100'000;
constexpr int64_t kFirstRestart = 250'000;
constexpr int64_t kLongestRestart = 8 * kSecond;

std::string_view textOf(std::span<const uint8_t> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// Where the picture is another than before: what was coded and a macroblock around it, because the
// decoder smooths its edges. The whole of a key frame; 0 0 0 0 where nothing was coded.
std::array<int32_t, 4> drawnBox(const client::CodedFrame& frame, const capture::ScreenSize& size) {
  if (frame.keyFrame) return {0, 0, size.width, size.height};
  int32_t left = size.width, top = size.height, right = 0, bottom = 0;
  const auto keeping = static_cast<size_t>(frame.keeping);
  for (const service::Rectangle& coded : std::span(frame.rectangles).subspan(keeping)) {
    left = std::min<int32_t>(left, coded.x);
    top = std::min<int32_t>(top, coded.y);
    right = std::max(right, coded.x + coded.width);
    bottom = std::max(bottom, coded.y + coded.height);
  }
  if (right == 0) return {};
  left = std::max(left - client::kMacroblockSize, 0);
  top = std::max(top - client::kMacroblockSize, 0);
  right = std::min(right + client::kMacroblockSize, size.width);
  bottom = std::min(bottom + client::kMacroblockSize, size.height);
  return {left, top, right - left, bottom - top};
}

// `body` is the access unit; the box is appended to it.
SharedMessage frameMessage(const client::CodedFrame& frame, std::vector<uint8_t>& body,
                           const capture::ScreenSize& size) {
  const size_t unitBytes = body.size();
  for (const int32_t number : drawnBox(frame, size)) {
    body.push_back(static_cast<uint8_t>(number));
    body.push_back(static_cast<uint8_t>(number >> 8));
  }
  client::FrameHead head;
  head.time = frame.pictureTime.count();
  head.width = static_cast<uint16_t>(size.width);
  head.height = static_cast<uint16_t>(size.height);
  head.keyFrame = frame.keyFrame;
  const auto bytes = client::buildFrameHead(head, unitBytes, 0, client::checksum(body));
  return std::make_shared<const Message>(true, textOf(bytes), textOf(body));
}

int64_t bytesASecond(int64_t kilobits) {
  return kilobits * 125;
}

}  // namespace

Broadcast::Viewer::Viewer(Connection& to, const ServeOptions& options)
    : connection(to),
      flow(options.fps, client::LinkRate(std::min(kStartRate, bytesASecond(options.maxRate)),
                                         bytesASecond(options.maxRate))),
      openedAt(Reactor::now()),
      heardAt(openedAt),
      askedAt(0),
      movedAt(openedAt) {}

Broadcast::Broadcast(const ServeOptions& options, const Tokens& tokens, Reactor& reactor)
    : options_(options), tokens_(tokens), reactor_(reactor) {}

Broadcast::~Broadcast() {
  if (screen_ != nullptr) reactor_.unwatch(screen_->descriptor());
  if (watchedReplies_ != -1) reactor_.unwatch(watchedReplies_);
}

int32_t Broadcast::open() {
  capture::ScreenOptions options = options_.screen;
  options.pointer = false;  // it is sent apart
  screen_ = capture::openScreen(options, problem_);
  if (screen_ == nullptr) return -1;
  const char* const display =
      options_.screen.display.empty() ? nullptr : options_.screen.display.c_str();
  if (options_.control && input_.open(display, problem_) == -1) return -1;
  hasPointer_ = pointer_.open(options_.screen.display) == 1;

  const std::string folder = tools::programFolder();
  client::SessionOptions session;
  session.service.servicePath =
      options_.service.empty() ? tools::findService(folder) : options_.service;
  session.service.codecRoot = options_.codecRoot;
  if (session.service.codecRoot.empty() && std::getenv("QORA_SYSTEM") == nullptr) {
    session.service.codecRoot = tools::findCodecRoot(folder);
  }
  if (options_.sandbox) {
    session.service.sandboxPath = tools::sandboxBeside(session.service.servicePath);
  }
  session.frameInterval = std::chrono::microseconds(kSecond / options_.fps);
  if (session_.start(session) == -1) {
    problem_ = "cannot start the service: " + session_.errorText();
    return -1;
  }
  size_ = screen_->size();
  if (openLine(kFast) == -1) return -1;
  reactor_.onTimer([this] { step(); });
  if (reactor_.watch(screen_->descriptor(), [this] { step(); }) == -1) {
    problem_ = "cannot watch the screen";
    return -1;
  }
  step();
  return over_ ? -1 : 1;
}

int32_t Broadcast::openLine(int32_t line) {
  Line& opened = lines_[static_cast<size_t>(line)];
  if (session_.addStream({.id = line,
                          .width = size_.width,
                          .height = size_.height,
                          .quality = options_.quality,
                          .threads = options_.threads}) == -1) {
    problem_ = session_.errorText();
    return -1;
  }
  opened.open = true;
  opened.pending.resize(size_.width, size_.height);
  opened.pending.addAll();
  opened.keyAt = 0;
  return 1;
}

void Broadcast::end(const std::string& problem) {
  over_ = true;
  problem_ = problem;
}

// Everything that is due. Called whenever something may be.
void Broadcast::step() {
  if (over_) return;
  const int64_t now = Reactor::now();
  if (restartAt_ != 0 && now >= restartAt_) restartService(now);
  takeFrames();
  if (watching() > 0) {
    takeDamage();
    if (over_) return;
    askForKeys(now);
    encodeReady(now);
    takeFrames();
    watchPointer(now);
  }
  if (now >= nextSecond_) everySecond(now);
  if (session_.replyDescriptor() != watchedReplies_) {
    if (watchedReplies_ != -1) reactor_.unwatch(watchedReplies_);
    watchedReplies_ = session_.replyDescriptor();
    if (watchedReplies_ != -1) reactor_.watch(watchedReplies_, [this] { step(); });
  }
  setTimer(now);
}

void Broadcast::takeDamage() {
  const int32_t happened = screen_->dispatch();
  if (happened == -1) return end(screen_->problem());
  if (happened == 0) return;
  followSize();
  areas_.clear();
  if (screen_->takeDamage(areas_) == -1) return end(screen_->problem());
  for (Line& line : lines_) {
    for (const capture::Area& area : areas_) {
      if (line.open) line.pending.add({area.x, area.y, area.width, area.height});
    }
  }
}

void Broadcast::followSize() {
  if (screen_->size() == size_) return;
  size_ = screen_->size();
  for (int32_t line = 0; line < 2; ++line) {
    Line& resized = lines_[static_cast<size_t>(line)];
    if (!resized.open) continue;
    if (session_.resize(line, size_.width, size_.height) == -1) return end(session_.errorText());
    resized.pending.resize(size_.width, size_.height);
    resized.pending.addAll();
  }
  for (const auto& viewer : viewers_) {
    if (viewer->line != -1) tellScreen(*viewer);
  }
}

void Broadcast::encodeReady(int64_t now) {
  if (now < nextPicture_) return;
  int32_t ready[2];
  size_t count = 0;
  for (int32_t line = 0; line < 2; ++line) {
    const Line& one = lines_[static_cast<size_t>(line)];
    if (one.open && !one.pending.isEmpty() && isWatched(line)) ready[count++] = line;
  }
  if (count == 0) return;
  nextPicture_ = now + kSecond / options_.fps;
  encodeLines({ready, count});
}

// What was drawn on is read once and converted for each line.
void Broadcast::encodeLines(std::span<const int32_t> lines) {
  client::Damage wanted(size_.width, size_.height);
  std::array<client::Picture, 2> pictures;
  std::array<bool, 2> acquired{};
  for (const int32_t line : lines) {
    const auto index = static_cast<size_t>(line);
    acquired[index] = session_.acquire(line, pictures[index], true) == 1;
    if (acquired[index]) wanted.add(lines_[index].pending);
  }
  if (wanted.isEmpty()) return;
  wanted.list(rectangles_, 64);
  areas_.clear();
  for (const service::Rectangle& rectangle : rectangles_) {
    areas_.push_back({rectangle.x, rectangle.y, rectangle.width, rectangle.height});
  }
  const int32_t read = screen_->read(areas_, pieces_);
  if (read == -1) end(screen_->problem());
  for (const int32_t line : lines) {
    const auto index = static_cast<size_t>(line);
    if (!acquired[index]) continue;
    if (read != 1) {
      session_.release(line, pictures[index]);
      continue;
    }
    for (const capture::Piece& piece : pieces_) {
      client::convertPiece({piece.pixels, piece.stride, piece.area.width, piece.area.height},
                           piece.area.x, piece.area.y, pictures[index], client::SampleRange::full);
    }
    // Drawn on need not mean changed.
    client::Damage changed = wanted;
    if (session_.refineChanges(line, pictures[index], changed) == -1 ||
        session_.encodeDamage(line, pictures[index], changed) == -1) {
      session_.release(line, pictures[index]);
      std::fprintf(stderr, "qora-serve: %s\n", session_.errorText().c_str());
    }
    lines_[index].pending.clear();
  }
  if (read == 1) screen_->release();
}

void Broadcast::takeFrames() {
  if (restartAt_ != 0) return;
  int32_t result;
  while ((result = session_.readFrame(frame_, 0)) == 1) {
    restartWait_ = 0;
    deliver(frame_);
  }
  if (result != -1) return;
  std::fprintf(stderr, "qora-serve: %s\n", session_.errorText().c_str());
  restartWait_ = std::clamp(restartWait_ * 2, kFirstRestart, kLongestRestart);
  restartAt_ = Reactor::now() + restartWait_;
}

void Broadcast::restartService(int64_t now) {
  restartAt_ = 0;
  if (session_.restart() == 1) return;
  std::fprintf(stderr, "qora-serve: %s\n", session_.errorText().c_str());
  restartWait_ = std::clamp(restartWait_ * 2, kFirstRestart, kLongestRestart);
  restartAt_ = now + restartWait_;
}

void Broadcast::deliver(const client::CodedFrame& frame) {
  // Browsers guess the colours of a stream that does not say.
  if (client::rewriteSequenceParameters(frame.bytes, client::NalFraming::startCodes,
                                        {.fullRange = true}, rewritten_) != 1) {
    rewritten_ = frame.bytes;
  }
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
    if (message == nullptr) message = frameMessage(frame, rewritten_, size_);
    if (viewer->frames.empty()) viewer->heardAt = now;
    viewer->frames.push_back(shared);
    ++shared->waiting;
    viewer->connection.send(message);
  }
  shared->bytes = static_cast<int64_t>(frame.bytes.size());
  if (shared->waiting == 0) session_.acknowledged(frame.stream, shared->bytes, {});
}

void Broadcast::askForKeys(int64_t now) {
  for (const auto& viewer : viewers_) {
    if (viewer->line == -1 || !viewer->flow.wantsKey()) continue;
    Line& line = lines_[static_cast<size_t>(viewer->line)];
    if (now - line.keyAt < kKeyInterval) continue;
    line.keyAt = now;
    session_.requestKeyFrame(viewer->line);
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
  viewer.heardAt = now;
  const int64_t done = before - viewer.flow.link().unacknowledged();
  if (done == 0) {
    if (viewer.askedAt != 0) viewer.flow.link().probed(Time(now), Time(now - viewer.askedAt));
    viewer.askedAt = 0;
    return;
  }
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
  session_.acknowledged(frame->line, frame->bytes, std::chrono::microseconds(shortest));
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
  viewer.connection.send("screen " + std::to_string(size_.width) + " " +
                         std::to_string(size_.height) + (viewer.mayControl ? " control" : " view"));
}

bool Broadcast::isWatched(int32_t line) const {
  return std::any_of(viewers_.begin(), viewers_.end(), [&](const auto& viewer) {
    return viewer->line == line && !viewer->flow.isPaused();
  });
}

int32_t Broadcast::watching() const {
  return static_cast<int32_t>(isWatched(kFast)) + static_cast<int32_t>(isWatched(kSlow));
}

// --- Lines -------------------------------------------------------------------------------------

void Broadcast::everySecond(int64_t now) {
  nextSecond_ = now + kSecond;
  for (const auto& viewer : viewers_) {
    if (viewer->line == -1 && now - viewer->openedAt > WebServer::kLoginTime) {
      viewer->connection.cut("it did not log in");
    }
    if (viewer->line == -1) continue;
    if (!viewer->frames.empty() && now - viewer->heardAt > kStalled) {
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
  Line& slow = lines_[kSlow];
  const bool used = std::any_of(viewers_.begin(), viewers_.end(),
                                [](const auto& viewer) { return viewer->line == kSlow; });
  if (slow.open && !used && session_.removeStream(kSlow) != -1) slow.open = false;
  for (const int32_t line : {kFast, kSlow}) setRate(line);
}

void Broadcast::moveTo(Viewer& viewer, int32_t line, int64_t now) {
  if (!lines_[static_cast<size_t>(line)].open && openLine(line) == -1) return;
  dropFrames(viewer);
  viewer.line = line;
  viewer.movedAt = now;
  viewer.flow.needKey();
}

// A stream has what its slowest viewer takes; those that are behind do not count among others.
void Broadcast::setRate(int32_t line) {
  Line& set = lines_[static_cast<size_t>(line)];
  if (!set.open) return;
  const int64_t most = bytesASecond(options_.maxRate);
  int64_t ofAll = most;
  int64_t inTime = INT64_MAX;
  for (const auto& viewer : viewers_) {
    if (viewer->line != line) continue;
    ofAll = std::min(ofAll, viewer->flow.link().rate());
    if (!viewer->flow.isLate()) inTime = std::min(inTime, viewer->flow.link().rate());
  }
  const int64_t rate = inTime == INT64_MAX ? ofAll : std::min(most, inTime);
  if (rate == set.rate) return;
  set.rate = rate;
  session_.setBitrate(line, static_cast<int32_t>(rate / 125));
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
  const auto atMost = [&next](int64_t time) { next = std::min(next, time); };
  const auto after = [&](int32_t milliseconds) {
    if (milliseconds >= 0) atMost(now + int64_t{milliseconds} * 1000);
  };
  if (restartAt_ != 0) atMost(restartAt_);
  after(session_.timeout());
  if (!viewers_.empty()) atMost(nextSecond_);
  if (watching() > 0) {
    after(screen_->nextLook());
    if (hasPointer_) atMost(nextPointer_);
    const bool pending = std::any_of(lines_.begin(), lines_.end(), [](const Line& line) {
      return line.open && !line.pending.isEmpty();
    });
    // Reading pixels takes events in as well: the descriptor would stay silent about them.
    const bool drawn = !over_ && screen_->dispatch() != 0;
    if (pending || drawn) atMost(std::max(nextPicture_, now + 1000));
  }
  reactor_.callAt(next);
}

}  // namespace qora::serve
