// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/screen_session.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "qora/base/error_text.h"

namespace qora::client {
namespace {

std::string streamText(int32_t stream) {
  return "stream " + std::to_string(stream);
}

// Rounded up, so that a wait does not end just before its time.
int32_t millisecondsUntil(std::chrono::microseconds left) {
  const int64_t rounded = (left.count() + 999) / 1000;
  return static_cast<int32_t>(std::clamp<int64_t>(rounded, 0, 3'600'000));
}

// The shorter wait, as poll(2) takes it.
int32_t shorter(int32_t one, int32_t other) {
  return one == -1 ? other : other == -1 ? one : std::min(one, other);
}

}  // namespace

int32_t ScreenSession::refuse(int error, const std::string& problem) {
  errorText_ = problem;
  errno = error;
  return -1;
}

int32_t ScreenSession::checkStream(int32_t stream) {
  if (stream < 0 || stream >= service::kStreamCount) {
    return refuse(EINVAL, streamText(stream) + " is not from 0 to 7");
  }
  if (streams_[static_cast<size_t>(stream)]) return 1;
  return refuse(ENOENT, streamText(stream) + " is not in use");
}

int32_t ScreenSession::checkNothingAcquired() {
  for (const Slot& slot : streams_) {
    if (slot && slot->cells().acquired() > 0) {
      return refuse(EBUSY, "a picture of " + streamText(slot->settings().id) + " is acquired");
    }
  }
  return 1;
}

ScreenSession::Time ScreenSession::now() const {
  if (options_.clock) return options_.clock();
  return std::chrono::duration_cast<Time>(Clock::now().time_since_epoch());
}

int32_t ScreenSession::start(const SessionOptions& options) {
  if (isRunning()) return refuse(EBUSY, "the service runs already");
  options_ = options;
  return restart();
}

int32_t ScreenSession::restart() {
  startAnew();
  if (service_.start(options_.service) == -1) {
    const int error = errno;
    std::string what = options_.service.servicePath;
    if (!options_.service.sandboxPath.empty()) what += " with " + options_.service.sandboxPath;
    return refuse(error, "cannot start the service " + what + ": " + qora::errorText(error));
  }
  for (const Slot& slot : streams_) {
    if (slot) service_.addStream(slot->settings());
  }
  sendAllDue();
  return 1;
}

int32_t ScreenSession::stop() {
  for (const Slot& slot : streams_) {
    if (slot) service_.removeStream(slot->settings().id);
  }
  const int32_t result = service_.stop();
  startAnew();
  return result == -1 ? refuse(EPIPE, service_.endText()) : result;
}

// Nothing is in flight any more and no encoder knows anything.
void ScreenSession::startAnew() {
  for (const Sent& sent : sent_) {
    if (sent.isCurrent) streams_[static_cast<size_t>(sent.stream)]->cells().drop(sent.frame.cell);
  }
  sent_.clear();
  for (Slot& slot : streams_) {
    if (slot) slot->startAnew();
  }
}

int32_t ScreenSession::addStream(const StreamSettings& settings) {
  std::string problem;
  if (settings.id < 0 || settings.id >= service::kStreamCount) return checkStream(settings.id);
  if (streams_[static_cast<size_t>(settings.id)]) {
    return refuse(EBUSY, streamText(settings.id) + " is in use");
  }
  if (checkSettings(settings, problem) == -1) return refuse(EINVAL, problem);
  if (checkNothingAcquired() == -1 || layOut(settings) == -1) return -1;
  service_.addStream(settings);
  return 1;
}

// A segment with room for all streams, this one as it is to be. The service attaches it with the
// next frame.
int32_t ScreenSession::layOut(const StreamSettings& settings) {
  Slot& changed = streams_[static_cast<size_t>(settings.id)];
  ScreenStream fresh;
  fresh.begin(settings);
  uint64_t bytes = fresh.cells().bytes();
  for (const Slot& slot : streams_) {
    if (slot && &slot != &changed) bytes += slot->cells().bytes();
  }
  SharedSegment segment;
  if (segment.create(bytes) == -1) {
    const int error = errno;
    return refuse(error, "no shared memory of " + std::to_string(bytes) +
                             " bytes for the pictures: " + qora::errorText(error));
  }
  outdate(settings.id, true);
  changed = std::move(fresh);
  uint64_t start = 0;
  for (Slot& slot : streams_) {
    if (!slot) continue;
    slot->cells().moveTo(segment.address(), start);
    start += slot->cells().bytes();
  }
  service_.setMemory(std::move(segment));
  return 1;
}

// Frames in flight belong to a stream that is no longer as it was.
void ScreenSession::outdate(int32_t stream, bool isWanted) {
  for (Sent& sent : sent_) {
    if (sent.stream != stream) continue;
    sent.isCurrent = false;
    sent.isWanted &= isWanted;
  }
}

int32_t ScreenSession::removeStream(int32_t stream) {
  if (checkStream(stream) == -1 || checkNothingAcquired() == -1) return -1;
  service_.removeStream(stream);
  outdate(stream, false);
  streams_[static_cast<size_t>(stream)].reset();
  return 1;
}

int32_t ScreenSession::resize(int32_t stream, int32_t width, int32_t height) {
  if (checkStream(stream) == -1) return -1;
  StreamSettings changed = streams_[static_cast<size_t>(stream)]->settings();
  changed.width = width;
  changed.height = height;
  std::string problem;
  if (checkSettings(changed, problem) == -1) return refuse(EINVAL, problem);
  if (checkNothingAcquired() == -1 || layOut(changed) == -1) return -1;
  service_.removeStream(stream);
  service_.addStream(changed);
  return 1;
}

int32_t ScreenSession::setBitrate(int32_t stream, int32_t bitrate) {
  if (checkStream(stream) == -1) return -1;
  ScreenStream& changed = *streams_[static_cast<size_t>(stream)];
  std::string problem;
  const RateControl control = changed.settings().rateControl;
  if (checkBitrate(control, bitrate, problem) == -1) return refuse(EINVAL, problem);
  if (bitrate == changed.settings().bitrate) return 1;
  changed.setBitrate(bitrate);
  if (control == RateControl::encoder && isRunning()) {
    service_.removeStream(stream);
    service_.addStream(changed.settings());
    changed.startAnew();
  }
  sendDue(stream);
  return 1;
}

int32_t ScreenSession::setQuality(int32_t stream, int32_t offset) {
  if (checkStream(stream) == -1) return -1;
  ScreenStream& changed = *streams_[static_cast<size_t>(stream)];
  std::string problem;
  if (changed.settings().rateControl == RateControl::encoder) {
    return refuse(ENOTSUP, streamText(stream) + " has the encoder's own rate control");
  }
  if (checkQuality(offset, problem) == -1) return refuse(EINVAL, problem);
  changed.setQuality(offset);
  sendDue(stream);
  return 1;
}

int32_t ScreenSession::requestKeyFrame(int32_t stream) {
  if (checkStream(stream) == -1) return -1;
  streams_[static_cast<size_t>(stream)]->requestKeyFrame();
  sendDue(stream);
  return 1;
}

int32_t ScreenSession::acknowledged(int32_t stream, int64_t bytes, Time roundTrip) {
  if (checkStream(stream) == -1) return -1;
  if (bytes < 0 || roundTrip.count() < 0) return refuse(EINVAL, "less than nothing arrived");
  streams_[static_cast<size_t>(stream)]->acknowledged(bytes, roundTrip);
  return 1;
}

const StreamSettings* ScreenSession::settings(int32_t stream) const {
  if (stream < 0 || stream >= service::kStreamCount) return nullptr;
  const Slot& slot = streams_[static_cast<size_t>(stream)];
  return slot ? &slot->settings() : nullptr;
}

int32_t ScreenSession::acquire(int32_t stream, Picture& picture, bool latest) {
  if (checkStream(stream) == -1) return -1;
  ScreenStream& screen = *streams_[static_cast<size_t>(stream)];
  const int32_t cell = screen.cells().acquire();
  if (cell == -1) return 0;
  if (latest) screen.cells().bringUpToDate(cell, screen.present());
  picture = screen.cells().picture(cell);
  return 1;
}

int32_t ScreenSession::bringUpToDate(int32_t stream, const Picture& picture, const Damage& drawn) {
  const int32_t cell = acquiredCell(stream, picture);
  if (cell == -1 || checkDamage(drawn, picture) == -1) return -1;
  ScreenStream& screen = *streams_[static_cast<size_t>(stream)];
  screen.cells().bringUpToDate(cell, screen.present(), &drawn);
  return 1;
}

// The cell that the caller fills, or -1.
int32_t ScreenSession::acquiredCell(int32_t stream, const Picture& picture) {
  if (checkStream(stream) == -1) return -1;
  const int32_t cell = streams_[static_cast<size_t>(stream)]->cells().find(picture);
  if (cell != -1) return cell;
  return refuse(EINVAL, "the picture is not one that was acquired for " + streamText(stream));
}

int32_t ScreenSession::checkDamage(const Damage& changed, const Picture& picture) {
  if (changed.width() == picture.width && changed.height() == picture.height) return 1;
  return refuse(EINVAL, "the damage is that of a picture of another size");
}

int32_t ScreenSession::release(int32_t stream, const Picture& picture) {
  const int32_t cell = acquiredCell(stream, picture);
  if (cell == -1) return -1;
  PictureCells& cells = streams_[static_cast<size_t>(stream)]->cells();
  cells.noteFilled(cell);
  cells.forget(cell);
  cells.drop(cell);
  return 1;
}

int32_t ScreenSession::findChanges(int32_t stream, const Picture& picture, Damage& changed) {
  if (acquiredCell(stream, picture) == -1) return -1;
  changed.resize(picture.width, picture.height);
  changed.addAll();
  return refineChanges(stream, picture, changed);
}

int32_t ScreenSession::refineChanges(int32_t stream, const Picture& picture, Damage& changed) {
  if (acquiredCell(stream, picture) == -1 || checkDamage(changed, picture) == -1) return -1;
  const ScreenStream& screen = *streams_[static_cast<size_t>(stream)];
  if (screen.present() != -1) {
    return changed.refine(screen.cells().picture(screen.present()), picture);
  }
  changed.addAll();
  return changed.count();
}

int32_t ScreenSession::present(int32_t stream, Picture& picture) {
  if (checkStream(stream) == -1) return -1;
  const ScreenStream& screen = *streams_[static_cast<size_t>(stream)];
  if (screen.present() == -1) return 0;
  picture = screen.cells().picture(screen.present());
  return 1;
}

int32_t ScreenSession::encode(int32_t stream, const Picture& picture, std::span<const Area> changed,
                              std::span<const service::RegionCopy> copies) {
  const int32_t cell = acquiredCell(stream, picture);
  if (cell == -1) return -1;
  std::string problem;
  if (checkAreas(changed, picture.width, picture.height, problem) == -1) {
    return refuse(EINVAL, problem);
  }
  given_.resize(picture.width, picture.height);
  for (const Area& area : changed) given_.add(area);
  return give(stream, cell, given_, copies);
}

int32_t ScreenSession::encodeDamage(int32_t stream, const Picture& picture, const Damage& changed,
                                    std::span<const service::RegionCopy> copies) {
  const int32_t cell = acquiredCell(stream, picture);
  if (cell == -1) return -1;
  if (checkDamage(changed, picture) == -1) return -1;
  return give(stream, cell, changed, copies);
}

int32_t ScreenSession::give(int32_t stream, int32_t cell, const Damage& changed,
                            std::span<const service::RegionCopy> copies) {
  ScreenStream& screen = *streams_[static_cast<size_t>(stream)];
  PictureCells& cells = screen.cells();
  std::string problem;
  if (checkCopies(copies, cells.codedWidth(), cells.codedHeight(), problem) == -1) {
    return refuse(EINVAL, problem);
  }
  cells.noteFilled(cell);
  cells.repeatEdges(cell);
  screen.give(cell, changed, copies, now());
  return sendDue(stream);
}

int32_t ScreenSession::repeat(int32_t stream) {
  if (checkStream(stream) == -1) return -1;
  ScreenStream& screen = *streams_[static_cast<size_t>(stream)];
  if (!canSend(screen)) return 0;
  return screen.planRepeat(now()) == 1 ? send(screen) : 0;
}

bool ScreenSession::canSend(const ScreenStream& screen) const {
  const auto own = [&](const Sent& sent) {
    return sent.isCurrent && sent.stream == screen.settings().id;
  };
  return service_.isUp() &&
         std::count_if(sent_.begin(), sent_.end(), own) < screen.settings().framesInFlight;
}

// Sends what the stream has to send now. 1 when that was something.
int32_t ScreenSession::sendDue(int32_t stream) {
  Slot& slot = streams_[static_cast<size_t>(stream)];
  int32_t result = 0;
  while (slot && canSend(*slot) && slot->plan(now(), options_.frameInterval) == 1 &&
         send(*slot) == 1) {
    result = 1;
  }
  return result;
}

// Sends the frame that the stream has planned. 0: not now.
int32_t ScreenSession::send(ScreenStream& screen) {
  const PlannedFrame& frame = screen.frame();
  service::EncodeRequest request{};
  request.streamId = static_cast<uint8_t>(screen.settings().id);
  request.invalidate = frame.keyFrame ? 1 : 0;
  screen.cells().place(frame.cell, request);
  const auto at = Clock::now();
  if (service_.send(request, screen.settings().rateControl, frame.rectangles, frame.copies) != 1) {
    return 0;
  }
  sent_.push_back({.stream = screen.settings().id,
                   .isCurrent = true,
                   .isWanted = true,
                   .at = at,
                   .frame = screen.takeFrame()});
  return 1;
}

// What the service wrote: the reply to the frame sent first. 0: it is not there.
int32_t ScreenSession::takeFrame(CodedFrame& frame) {
  while (true) {
    if (service_.readReply(reply_) != 1 || sent_.empty()) return 0;
    Sent sent = std::move(sent_.front());
    sent_.pop_front();
    const int32_t quantizer =
        reply_.fields.quantizer == service::kUnknownQuantizer ? -1 : reply_.fields.quantizer;
    const bool keyFrame = reply_.fields.keyFrame != 0;
    if (sent.isCurrent) {
      streams_[static_cast<size_t>(sent.stream)]->encoded(
          sent.frame, static_cast<int64_t>(reply_.frame.size()), keyFrame, quantizer, now());
    }
    if (!sent.isWanted) continue;
    frame.stream = sent.stream;
    frame.keyFrame = keyFrame;
    frame.bytes.swap(reply_.frame);
    frame.quantizer = quantizer;
    frame.encodeMilliseconds = encodeMilliseconds(reply_.fields);
    frame.roundTrip = reply_.roundTrip;
    frame.picture = sent.frame.picture;
    frame.pictureTime = sent.frame.pictureTime;
    frame.rectangles = std::move(sent.frame.rectangles);
    frame.keeping = sent.frame.keeping;
    frame.copies = std::move(sent.frame.copies);
    return 1;
  }
}

int32_t ScreenSession::readFrame(CodedFrame& frame, int32_t timeout) {
  const auto deadline = deadlineAfter(timeout);
  while (true) {
    if (takeFrame(frame) == 1) {
      sendAllDue();
      return 1;
    }
    const int32_t ready = process();
    if (ready == -1) return -1;
    if (ready > 0) continue;
    // Without a service a parent's loop keeps its pace all the same.
    const bool isOver = timeout < 0 ? sent_.empty() : Clock::now() >= deadline;
    if (isOver) return 0;
    pollfd wake = {replyDescriptor(), POLLIN, 0};
    ::poll(&wake, 1, shorter(this->timeout(), pollTimeout(deadline)));
  }
}

int32_t ScreenSession::process() {
  const int32_t ready = service_.process();
  checkReplyTime();
  sendAllDue();
  if (service_.lossError() == 0) return ready;
  // What it answered before its end can still be read.
  return service_.pendingReplies() > 0 ? service_.pendingReplies() : tellLoss();
}

void ScreenSession::sendAllDue() {
  for (int32_t stream = 0; stream < service::kStreamCount; ++stream) sendDue(stream);
}

int32_t ScreenSession::timeout() const {
  if (service_.lossError() != 0) return 0;
  if (!isRunning()) return -1;
  int32_t result = -1;
  const Time present = now();
  for (const Slot& slot : streams_) {
    if (!slot || slot->nextTime() == ScreenStream::kNever || !canSend(*slot)) continue;
    result = shorter(result, millisecondsUntil(slot->nextTime() - present));
  }
  if (sent_.empty() || options_.replyTimeout.count() == 0) return result;
  const auto left = sent_.front().at + options_.replyTimeout - Clock::now();
  return shorter(result, millisecondsUntil(std::chrono::duration_cast<Time>(left)));
}

void ScreenSession::checkReplyTime() {
  if (sent_.empty() || options_.replyTimeout.count() == 0 || !isRunning()) return;
  if (Clock::now() - sent_.front().at < options_.replyTimeout) return;
  service_.giveUp(ETIMEDOUT, "the service did not answer for " +
                                 std::to_string(options_.replyTimeout.count()) + " milliseconds");
}

int32_t ScreenSession::tellLoss() {
  std::string problem;
  const int error = service_.takeLoss(problem);
  startAnew();
  return refuse(error, problem);
}

}  // namespace qora::client
