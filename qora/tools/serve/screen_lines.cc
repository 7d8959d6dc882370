// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/serve/screen_lines.h"

#include <algorithm>
#include <cstdio>

#include "qora/client/convert.h"
#include "qora/tools/serve/reactor.h"

namespace qora::serve {
namespace {

constexpr int64_t kSecond = 1'000'000;
constexpr int64_t kKeyInterval = kSecond;  // between key frames that viewers ask for
constexpr int64_t kFirstRestart = 250'000;
constexpr int64_t kLongestRestart = 8 * kSecond;

}  // namespace

int32_t ScreenLines::open() {
  capture::ScreenOptions options = options_.screen;
  options.pointer = false;  // it is sent apart
  screen_ = capture::openScreen(options, problem_);
  if (screen_ == nullptr || startService() == -1) return -1;
  size_ = screen_->size();
  return openLine(0);
}

int32_t ScreenLines::startService() {
  client::SessionOptions session;
  if (tools::findService(options_.service, session.service, problem_) == -1) return -1;
  session.frameInterval = std::chrono::microseconds(kSecond / options_.fps);
  if (session_.start(session) == 1) return 1;
  problem_ = "cannot start the service: " + session_.errorText();
  return -1;
}

void ScreenLines::end(const std::string& problem) {
  over_ = true;
  problem_ = problem;
}

int32_t ScreenLines::openLine(int32_t line) {
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

void ScreenLines::closeLine(int32_t line) {
  Line& closed = lines_[static_cast<size_t>(line)];
  if (closed.open && session_.removeStream(line) != -1) closed.open = false;
}

void ScreenLines::wantKey(int32_t line, int64_t now) {
  Line& wanted = lines_[static_cast<size_t>(line)];
  if (now - wanted.keyAt < kKeyInterval) return;
  wanted.keyAt = now;
  session_.requestKeyFrame(line);
}

void ScreenLines::setRate(int32_t line, int64_t bytesASecond) {
  Line& set = lines_[static_cast<size_t>(line)];
  if (!set.open || bytesASecond == set.rate) return;
  set.rate = bytesASecond;
  session_.setBitrate(line, static_cast<int32_t>(bytesASecond / 125));
}

bool ScreenLines::takeDamage() {
  const int32_t happened = screen_->dispatch();
  if (happened == -1) end(screen_->problem());
  if (happened <= 0) return false;
  const bool isResized = followSize();
  areas_.clear();
  if (!over_ && screen_->takeDamage(areas_) == -1) end(screen_->problem());
  for (Line& line : lines_) {
    for (const capture::Area& area : areas_) {
      if (line.open) line.pending.add({area.x, area.y, area.width, area.height});
    }
  }
  return isResized;
}

void ScreenLines::listen() {
  if (screen_->dispatch() == -1) end(screen_->problem());
}

bool ScreenLines::followSize() {
  if (screen_->size() == size_) return false;
  size_ = screen_->size();
  for (int32_t line = 0; line < kLines; ++line) {
    Line& resized = lines_[static_cast<size_t>(line)];
    if (!resized.open) continue;
    if (session_.resize(line, size_.width, size_.height) == -1) end(session_.errorText());
    resized.pending.resize(size_.width, size_.height);
    resized.pending.addAll();
  }
  return true;
}

void ScreenLines::encode(const Watched& watched, int64_t now) {
  if (now < nextPicture_) return;
  int32_t ready[kLines];
  size_t count = 0;
  for (int32_t line = 0; line < kLines; ++line) {
    const auto index = static_cast<size_t>(line);
    const Line& one = lines_[index];
    if (one.open && !one.pending.isEmpty() && watched[index]) ready[count++] = line;
  }
  if (count == 0) return;
  nextPicture_ = now + kSecond / options_.fps;
  encodeLines({ready, count});
}

// What was drawn on is read once and converted for each line.
void ScreenLines::encodeLines(std::span<const int32_t> lines) {
  client::Damage wanted(size_.width, size_.height);
  std::array<client::Picture, kLines> pictures;
  std::array<bool, kLines> acquired{};
  for (const int32_t line : lines) {
    const auto index = static_cast<size_t>(line);
    acquired[index] = session_.acquire(line, pictures[index]) == 1;
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
    if (read == 1) {
      encodeLine(line, pictures[index], wanted);
    } else {
      session_.release(line, pictures[index]);
    }
  }
  if (read == 1) screen_->release();
}

void ScreenLines::encodeLine(int32_t line, const client::Picture& picture,
                             const client::Damage& drawn) {
  const client::Damage none(drawn.width(), drawn.height());
  session_.bringUpToDate(line, picture, capture::isAll(areas_, pieces_) ? drawn : none);
  for (const capture::Piece& piece : pieces_) {
    client::convertPiece({piece.pixels, piece.stride, piece.area.width, piece.area.height},
                         piece.area.x, piece.area.y, picture, client::SampleRange::full);
  }
  // Drawn on need not mean changed.
  client::Damage changed = drawn;
  if (session_.refineChanges(line, picture, changed) == -1 ||
      session_.encodeDamage(line, picture, changed) == -1) {
    session_.release(line, picture);
    std::fprintf(stderr, "qora-serve: %s\n", session_.errorText().c_str());
  }
  lines_[static_cast<size_t>(line)].pending.clear();
}

int32_t ScreenLines::takeFrame(client::CodedFrame& frame) {
  if (restartAt_ != 0) return 0;
  const int32_t result = session_.readFrame(frame, 0);
  if (result == 1) restartWait_ = 0;
  if (result == -1) serviceFailed(Reactor::now());
  return result == 1 ? 1 : 0;
}

void ScreenLines::serviceFailed(int64_t now) {
  std::fprintf(stderr, "qora-serve: %s\n", session_.errorText().c_str());
  restartWait_ = std::clamp(restartWait_ * 2, kFirstRestart, kLongestRestart);
  restartAt_ = now + restartWait_;
}

void ScreenLines::revive(int64_t now) {
  if (restartAt_ == 0 || now < restartAt_) return;
  restartAt_ = 0;
  if (session_.restart() == -1) serviceFailed(now);
}

int64_t ScreenLines::nextTime(const Watched& watched, int64_t now) {
  int64_t next = INT64_MAX;
  const auto atMost = [&next](int64_t time) { next = std::min(next, time); };
  const auto after = [&](int32_t milliseconds) {
    if (milliseconds >= 0) atMost(now + int64_t{milliseconds} * 1000);
  };
  if (restartAt_ != 0) atMost(restartAt_);
  after(session_.timeout());
  if (std::find(watched.begin(), watched.end(), true) == watched.end()) return next;
  after(screen_->nextLook());
  const bool pending = std::any_of(lines_.begin(), lines_.end(), [](const Line& line) {
    return line.open && !line.pending.isEmpty();
  });
  // Reading pixels takes events in as well: the descriptor would stay silent about them.
  const bool drawn = !over_ && screen_->dispatch() != 0;
  if (pending || drawn) atMost(std::max(nextPicture_, now + 1000));
  return next;
}

}  // namespace qora::serve
