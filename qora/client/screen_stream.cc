// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/screen_stream.h"

#include <algorithm>
#include <utility>

#include "qora/client/changed_rectangles.h"
#include "qora/client/move_detector.h"
#include "qora/client/region_copies.h"
#include "qora/client/shown_picture.h"

namespace qora::client {
namespace {

// Beside the frames in flight: the present picture, the one sent last, and one to fill.
constexpr int32_t kCellsBeside = 3;
constexpr int64_t kBytesPerKilobit = 125;
// The encoder's own rate control has made a picture sharp when a frame's quantizer is no higher, or
// will not any more after so many frames.
constexpr int32_t kSharpQuantizer = 20;
constexpr int32_t kMostSharpenings = 50;
// What copies go to is listed so far up: whatever changed, next to no byte is spent.
constexpr int32_t kSkippingOffset = 100;

service::Rectangle rectangleOf(const Area& area, int32_t offset) {
  return {.quantizerOffset = static_cast<int8_t>(offset),
          .x = static_cast<uint16_t>(area.x),
          .y = static_cast<uint16_t>(area.y),
          .width = static_cast<uint16_t>(area.width),
          .height = static_cast<uint16_t>(area.height)};
}

}  // namespace

void ScreenStream::begin(const StreamSettings& settings) {
  settings_ = settings;
  cells_.resize(settings.width, settings.height, settings.framesInFlight + kCellsBeside);
  changed_.resize(cells_.codedWidth(), cells_.codedHeight());
  coarse_ = change_ = changed_;
  present_ = sent_ = -1;
  presentNumber_ = -1;
  lastFrame_ = {};
  ready_ = keyFrameWanted_ = false;
  startAnew();
  setBitrate(settings.bitrate);
  setQuality(settings.quality);
}

void ScreenStream::startAnew() {
  if (std::exchange(ready_, false)) cells_.drop(frame_.cell);
  control_.reset(cells_.codedWidth(), cells_.codedHeight());
  anew_ = true;
  silent_ = false;
}

void ScreenStream::setBitrate(int32_t bitrate) {
  settings_.bitrate = bitrate;
  control_.setRate(bitrate * kBytesPerKilobit);
  silent_ = false;
}

void ScreenStream::setQuality(int32_t offset) {
  settings_.quality = offset;
  control_.setQuality(offset);
  silent_ = false;
}

void ScreenStream::give(int32_t cell, const Damage& changed,
                        std::span<const service::RegionCopy> copies, Time now) {
  // Copies move what the encoder has, which is the picture before only if that was sent.
  const bool canCopy = changed_.isEmpty() && !anew_ && !keyFrameWanted_;
  change_.clear();
  changed.forEachRun([this](int32_t row, int32_t first, int32_t end) {
    change_.add({first * kMacroblockSize, row * kMacroblockSize, (end - first) * kMacroblockSize,
                 kMacroblockSize});
  });
  for (const service::RegionCopy& copy : copies) change_.add(destinationOf(copy));
  changed_.add(change_);
  copies = copies.first(canCopy ? std::min(copies.size(), size_t{kMostCopies}) : 0);
  copies_.assign(copies.begin(), copies.end());
  cells_.makePresent(cell, change_);
  if (present_ != -1) cells_.drop(present_);
  present_ = cell;
  ++presentNumber_;
  presentTime_ = now;
}

// Whether there may be a frame for the present picture now.
bool ScreenStream::isDue(Time now, Time interval) {
  nextTime_ = kNever;
  if (present_ == -1) return false;
  if (anew_ || keyFrameWanted_ || !changed_.isEmpty()) return true;
  if (silent_) return false;
  if (now - lastFrame_ >= interval) return true;
  nextTime_ = lastFrame_ + interval;
  return false;
}

int32_t ScreenStream::plan(Time now, Time interval) {
  if (ready_) return 1;
  if (!isDue(now, interval)) return 0;
  if (settings_.rateControl == RateControl::encoder) {
    plan_.step = planForEncoder();
  } else {
    const Picture before = sent_ == -1 ? Picture{} : cells_.coded(sent_);
    control_.plan(now, changed_, cells_.coded(present_), sent_ == -1 ? nullptr : &before, copies_,
                  keyFrameWanted_, plan_);
  }
  copies_.clear();
  silent_ = plan_.step == QualityStep::silent;
  if (plan_.step == QualityStep::wait) nextTime_ = plan_.until;
  if (plan_.step != QualityStep::encode) return 0;
  changed_.clear();
  anew_ = false;
  if (plan_.keyFrame) keyFrameWanted_ = false;
  const int32_t before = sent_;
  cells_.hold(present_);
  sent_ = present_;
  sentNumber_ = presentNumber_;
  sentTime_ = presentTime_;
  prepare(showsBefore(before) ? before : sent_, now);
  if (before != -1) cells_.drop(before);
  frame_.isRepeat = false;
  return 1;
}

// Where copies go to, the encoder is best shown what was there before. The picture sent before has
// that, and what else it lacks is known; unless the service still reads it.
bool ScreenStream::showsBefore(int32_t before) {
  if (plan_.copies.empty() || settings_.rateControl != RateControl::quality ||
      !cells_.isHeldOnce(before)) {
    return false;
  }
  showWithoutCopies(cells_.coded(sent_), cells_.coded(before), plan_.rectangles, plan_.copies);
  return true;
}

// What changed and what is not sharp yet is listed: the encoder alone decides on quantizers, so it
// has to see a still picture again for as long as its first, coarse frame can be bettered.
QualityStep ScreenStream::planForEncoder() {
  plan_.rectangles.clear();
  plan_.copies.clear();
  plan_.keyFrame = keyFrameWanted_;
  plan_.keeping = 0;
  if (anew_ || keyFrameWanted_) {
    changed_.addAll();
    copies_.clear();
  }
  if (!changed_.isEmpty()) sharpenings_ = 0;
  coarse_.add(changed_);
  if (coarse_.isEmpty() || ++sharpenings_ > kMostSharpenings) return QualityStep::silent;
  change_ = coarse_;
  Damage moved(change_.width(), change_.height());
  for (const service::RegionCopy& copy : copies_) moved.add(wholeMacroblocks(copy));
  change_.subtract(moved);
  change_.list(plan_.rectangles);
  for (const service::RegionCopy& copy : copies_) {
    plan_.rectangles.push_back(rectangleOf(wholeMacroblocks(copy), kSkippingOffset));
    plan_.copies.push_back(copy);
  }
  return QualityStep::encode;
}

int32_t ScreenStream::planRepeat(Time now) {
  if (ready_ || sent_ == -1 || anew_) return 0;
  plan_.rectangles.clear();
  plan_.copies.clear();
  plan_.keyFrame = false;
  plan_.keeping = 0;
  if (settings_.rateControl == RateControl::quality) {
    control_.planRepeat(plan_);
  } else if (!coarse_.isEmpty() && ++sharpenings_ <= kMostSharpenings) {
    coarse_.list(plan_.rectangles);
  }
  if (plan_.rectangles.empty()) plan_.rectangles.push_back(nothingChanged());
  prepare(sent_, now);
  frame_.isRepeat = true;
  return 1;
}

// The plan becomes the frame to send.
void ScreenStream::prepare(int32_t cell, Time now) {
  cells_.hold(cell);
  frame_.cell = cell;
  frame_.picture = sentNumber_;
  frame_.pictureTime = sentTime_;
  frame_.keyFrame = plan_.keyFrame;
  frame_.keeping = plan_.keeping;
  frame_.rectangles.swap(plan_.rectangles);
  frame_.copies.swap(plan_.copies);
  ready_ = true;
  lastFrame_ = now;
}

PlannedFrame ScreenStream::takeFrame() {
  ready_ = false;
  return std::move(frame_);
}

void ScreenStream::encoded(const PlannedFrame& frame, int64_t bytes, bool keyFrame,
                           int32_t quantizer, Time now) {
  cells_.drop(frame.cell);
  if (settings_.rateControl == RateControl::quality) {
    if (!frame.isRepeat) control_.encoded(now, bytes, keyFrame);
    silent_ = false;
  } else if (frame.picture == sentNumber_ && quantizer != -1 &&
             quantizer <= std::max(kSharpQuantizer, settings_.lowestQuantizer)) {
    coarse_.clear();
  }
}

}  // namespace qora::client
