// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/service_link.h"

#include <cerrno>
#include <utility>

#include "qora/base/error_text.h"

namespace qora::client {

int32_t ServiceLink::start(const ServiceOptions& options) {
  client_.stop();
  forget();
  if (client_.start(options) == -1) return -1;
  isUp_ = true;
  return 1;
}

int32_t ServiceLink::stop() {
  if (isAttached_ && isRunning()) client_.removeSegment(memory_.id());
  const int32_t result = client_.stop();
  forget();
  return result;
}

void ServiceLink::giveUp(int error, const std::string& problem) {
  client_.stop(0);
  noteLoss(error, problem);
}

// Nothing is in flight any more.
void ServiceLink::forget() {
  retired_.clear();
  framesAnswered_ = framesSent_;
  isAttached_ = isUp_ = false;
  lossError_ = 0;
}

void ServiceLink::setMemory(SharedSegment memory) {
  // A segment goes with its last user, so ours stays until the service must have attached it.
  if (isAttached_ && isAwaited(attachedAt_)) {
    retired_.push_back({.memory = std::move(memory_), .attachedAt = attachedAt_});
  }
  memory_ = std::move(memory);
  isAttached_ = false;
}

int32_t ServiceLink::attach() {
  if (isAttached_) return 1;
  const int32_t result = client_.attachSegment(memory_.id());
  isAttached_ = result == 1;
  attachedAt_ = framesSent_;
  return result;
}

void ServiceLink::addStream(const StreamSettings& settings) {
  if (!isRunning()) return;
  const bool hasBitrate = settings.rateControl == RateControl::encoder;
  const auto sideOf = [](int32_t side) { return static_cast<uint16_t>(side + side % 2); };
  bitrateMode_ = hasBitrate;
  note(client_.addStream({.flags = settings.startCodes ? service::kAnnexBFlag : uint8_t{0},
                          .streamId = static_cast<uint8_t>(settings.id),
                          .threads = static_cast<uint8_t>(settings.threads),
                          .bitrate = static_cast<uint16_t>(hasBitrate ? settings.bitrate : 0),
                          .qpMin = static_cast<uint8_t>(settings.lowestQuantizer),
                          .qpMax = static_cast<uint8_t>(settings.highestQuantizer),
                          .width = sideOf(settings.width),
                          .height = sideOf(settings.height)}));
}

void ServiceLink::removeStream(int32_t stream) {
  if (isRunning()) note(client_.removeStream(static_cast<uint8_t>(stream)));
}

int32_t ServiceLink::send(const service::EncodeRequest& request, RateControl control,
                          const std::vector<service::Rectangle>& rectangles,
                          std::span<const service::RegionCopy> copies) {
  int32_t result = attach();
  if (result == 1) {
    const bool hasBitrate = control == RateControl::encoder;
    result = client_.tryEncode(request, wireRectangles(hasBitrate, rectangles), copies);
  }
  note(result);
  if (result != 1) return 0;
  ++framesSent_;
  return 1;
}

// Outside its bitrate mode, which the stream added last decides for all, the service takes 1 off
// every offset; the encoders of constant quality are set up for that, those with a bitrate are not.
std::span<const service::Rectangle> ServiceLink::wireRectangles(
    bool hasBitrate, const std::vector<service::Rectangle>& rectangles) {
  if (hasBitrate == bitrateMode_) return rectangles;
  shifted_ = rectangles;
  for (service::Rectangle& rectangle : shifted_) {
    rectangle.quantizerOffset =
        static_cast<int8_t>(rectangle.quantizerOffset + (hasBitrate ? 1 : -1));
  }
  return shifted_;
}

int32_t ServiceLink::readReply(Reply& reply) {
  const int32_t result = client_.readReply(reply, 0);
  note(result);
  if (result != 1) return 0;
  ++framesAnswered_;
  while (!retired_.empty() && !isAwaited(retired_.front().attachedAt)) retired_.pop_front();
  return 1;
}

int32_t ServiceLink::process() {
  if (!isRunning()) return 0;
  const int32_t ready = client_.process();
  note(ready);
  return ready;
}

int ServiceLink::takeLoss(std::string& problem) {
  problem = lossText_;
  const int error = lossError_;
  forget();
  return error;
}

// The result of a call of the client: checks were made, so -1 means that the service is gone.
void ServiceLink::note(int32_t result) {
  if (result != -1) return;
  const int error = errno;
  noteLoss(error, endText().empty() ? qora::errorText(error) : endText());
}

void ServiceLink::noteLoss(int error, const std::string& problem) {
  if (!isUp_) return;
  isUp_ = false;
  lossError_ = error;
  lossText_ = problem;
}

}  // namespace qora::client
