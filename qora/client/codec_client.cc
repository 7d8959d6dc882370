// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/codec_client.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <iterator>

namespace qora::client {
namespace {

// A reply too many stays in front of all later ones, so it is enough to look now and then; a round
// trip without a pause stays one write and one read.
constexpr std::chrono::milliseconds kIdleCheckInterval{1};
// What a service does that ends by itself, which takes the kernel a moment more. One that lives on
// is killed for it.
constexpr char kEndOfReplies[] = "closed its replies";
constexpr std::chrono::milliseconds kLeavingTime{50};

}  // namespace

int32_t CodecClient::start(const ServiceOptions& options) {
  if (isRunning()) {
    errno = EBUSY;
    return -1;
  }
  if (service_.start(options) == -1) return -1;
  replies_.reset(options.maxReplyBytes);
  commandTimeout_ = options.commandTimeout;
  lostError_ = 0;
  unsent_ = {};
  roomWanted_ = false;
  idleCheck_ = Clock::now();
  return 1;
}

int32_t CodecClient::addStream(const service::AddStreamRequest& request) {
  return send(service::buildAddStream(request));
}

int32_t CodecClient::removeStream(uint8_t streamId) {
  return send(service::buildRemoveStream(streamId));
}

int32_t CodecClient::attachSegment(int32_t segmentId) {
  return send(service::buildSegmentMessage(service::CommandType::attachSegment, segmentId));
}

int32_t CodecClient::removeSegment(int32_t segmentId) {
  return send(service::buildSegmentMessage(service::CommandType::removeSegment, segmentId));
}

// -1 when there is no service to send to.
int32_t CodecClient::checkService() {
  if (!isRunning()) return serviceGone(EPIPE);
  const auto now = Clock::now();
  if (pendingReplies() > 0 || now - idleCheck_ < kIdleCheckInterval) return 1;
  idleCheck_ = now;
  return await(now) == -1 ? -1 : 1;
}

// Into message_, which must not hold unsent bytes.
int32_t CodecClient::buildEncode(service::EncodeRequest& request,
                                 std::span<const service::Rectangle> rectangles,
                                 std::span<const service::RegionCopy> copies) {
  const size_t rectangleBytes = rectangles.size() * service::kRectangleSize;
  const size_t copyBytes = copies.size() * service::kRegionCopySize;
  const size_t size = service::kEncodeFixedSize + rectangleBytes + copyBytes;
  if (size > static_cast<size_t>(kLargestCommand)) {
    errno = EMSGSIZE;
    return -1;
  }
  request.rectangleBytes = static_cast<uint32_t>(rectangleBytes);
  request.copyBytes = static_cast<uint32_t>(copyBytes);
  message_.resize(size);
  const auto head = service::buildEncodeHead(request);
  uint8_t* out = std::copy(head.begin(), head.end(), message_.data());
  for (const service::Rectangle& rectangle : rectangles) {
    service::buildRectangle(rectangle, out);
    out += service::kRectangleSize;
  }
  for (const service::RegionCopy& copy : copies) {
    service::buildRegionCopy(copy, out);
    out += service::kRegionCopySize;
  }
  return 1;
}

int32_t CodecClient::encode(service::EncodeRequest request,
                            std::span<const service::Rectangle> rectangles,
                            std::span<const service::RegionCopy> copies) {
  if (sendUnsent() == -1 || buildEncode(request, rectangles, copies) == -1) return -1;
  const auto called = Clock::now();
  if (send(message_) == -1) return -1;
  replies_.expect(request.streamId, called);
  return 1;
}

int32_t CodecClient::tryEncode(service::EncodeRequest request,
                               std::span<const service::Rectangle> rectangles,
                               std::span<const service::RegionCopy> copies) {
  if (checkService() == -1 || push(unsent_) == -1) return -1;
  if (unsent_.empty()) {
    if (buildEncode(request, rectangles, copies) == -1) return -1;
    Bytes rest = message_;
    if (push(rest) == -1) return -1;
    if (rest.size() < message_.size()) {
      unsent_ = rest;
      watchRoom(false);
      replies_.expect(request.streamId, Clock::now());
      return 1;
    }
  }
  watchRoom(true);
  return 0;
}

// All of it, after what is unsent; waits for room.
int32_t CodecClient::send(Bytes bytes) {
  if (checkService() == -1 || sendUnsent() == -1) return -1;
  const auto deadline = deadlineAfter(commandTimeout_);
  while (true) {
    const int32_t pushed = push(bytes);
    if (pushed != 0) return pushed;
    if (waitForRoom(deadline) == -1) return -1;
  }
}

int32_t CodecClient::sendUnsent() {
  const auto deadline = deadlineAfter(commandTimeout_);
  while (!unsent_.empty()) {
    if (waitForRoom(deadline) == -1) return -1;
  }
  return 1;
}

// Writes what the pipe takes now, and leaves the rest. 1: all of it.
int32_t CodecClient::push(Bytes& bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(service_.commands(), bytes.data(), bytes.size());
    if (written > 0) {
      bytes = bytes.subspan(static_cast<size_t>(written));
      service_.noteCommand();
    } else if (errno == EAGAIN) {
      return 0;
    } else if (errno != EINTR) {
      return lose(errno, "took no command");
    }
  }
  return 1;
}

// The service reads no command while it waits for room for a reply, so replies are taken in too.
int32_t CodecClient::waitForRoom(Clock::time_point deadline) {
  const bool wanted = std::exchange(roomWanted_, true);
  const int32_t ready = await(deadline);
  watchRoom(wanted && isRunning());
  if (ready != 0 || Clock::now() < deadline) return ready == -1 ? -1 : 1;
  const std::string time = std::to_string(commandTimeout_) + " milliseconds";
  return lose(ETIMEDOUT, ("took no command for " + time).c_str());
}

// Waits until something can be done, and does it once: bytes taken in, log lines kept, unsent bytes
// written. 1, or 0 when there was nothing by the deadline or a signal came.
int32_t CodecClient::await(Clock::time_point deadline) {
  pollfd ends[] = {{service_.replies(), POLLIN, 0},
                   {service_.log(), POLLIN, 0},
                   {wantsWrite() ? service_.commands() : -1, POLLOUT, 0}};
  const int ready = ::poll(ends, std::size(ends), pollTimeout(deadline));
  if (ready == -1) return errno == EINTR ? 0 : lose(errno, "cannot be waited for");
  if (ends[1].revents != 0) service_.readLog();
  if (ends[2].revents != 0) {
    if (push(unsent_) == -1) return -1;
    watchRoom(false);
  }
  if (ends[0].revents != 0 && receive() == -1) return -1;
  return ready > 0 ? 1 : 0;
}

// One read, which waits for the service. 1, or 0 when a signal came first.
int32_t CodecClient::receive() {
  const std::span<uint8_t> room = replies_.room();
  const ssize_t count = ::read(service_.replies(), room.data(), room.size());
  if (count == -1 && errno == EINTR) return 0;
  if (count <= 0) return lose(count == 0 ? EPIPE : errno, kEndOfReplies);
  if (replies_.accept(static_cast<size_t>(count)) == 1) return 1;
  return lose(EPROTO, ("sent " + replies_.problem()).c_str());
}

// As await(), in one system call where that is enough.
int32_t CodecClient::waitForReply(Clock::time_point deadline) {
  const bool onlyReplies = service_.log() == -1 && !wantsWrite();
  return onlyReplies && deadline == Clock::time_point::max() ? receive() : await(deadline);
}

int32_t CodecClient::readReply(Reply& reply, int32_t timeout) {
  if (replies_.take(reply) == 1) return 1;
  const auto deadline = deadlineAfter(timeout);
  while (isRunning() && pendingReplies() > 0) {
    const int32_t came = waitForReply(deadline);
    if (replies_.take(reply) == 1) return 1;
    if (came != -1 && Clock::now() >= deadline) return 0;
  }
  return serviceGone(0);
}

int32_t CodecClient::process() {
  if (!isRunning()) return serviceGone(EPIPE);
  return await(Clock::now()) == -1 ? -1 : replies_.whole();
}

// -1 with what ended the service. When nothing did, -1 with `otherwise`, or 0 when that is 0.
int32_t CodecClient::serviceGone(int32_t otherwise) const {
  const int32_t error = lostError_ != 0 ? lostError_ : otherwise;
  if (error == 0) return 0;
  errno = error;
  return -1;
}

// Ends a service that cannot be talked to any more. Replies that came can still be read.
int32_t CodecClient::lose(int32_t error, const char* fault) {
  const bool leaving = fault == kEndOfReplies;
  service_.finish(Clock::now() + (leaving ? kLeavingTime : kLeavingTime.zero()), fault, !leaving);
  unsent_ = {};
  roomWanted_ = false;
  replies_.dropUnanswered();
  lostError_ = error;
  errno = error;
  return -1;
}

void CodecClient::watchRoom(bool wanted) {
  roomWanted_ = wanted;
  service_.watchRoom(wantsWrite());
}

int32_t CodecClient::stop(int32_t grace) {
  const auto deadline = deadlineAfter(std::max(grace, 0));
  while (!unsent_.empty() && Clock::now() < deadline) await(deadline);
  if (isRunning()) {
    service_.closeInput();
    dropReplies(deadline);
    service_.finish(deadline, "did not end in time", false);
  }
  replies_.reset(0);
  unsent_ = {};
  roomWanted_ = false;
  lostError_ = 0;
  if (endText().empty()) return 0;
  return service_.endedInOrder() ? 1 : -1;
}

// A service in the middle of a reply ends in order only when somebody takes the rest.
void CodecClient::dropReplies(Clock::time_point deadline) {
  uint8_t dropped[64 << 10];
  while (Clock::now() < deadline) {
    pollfd ends[] = {{service_.replies(), POLLIN, 0}, {service_.log(), POLLIN, 0}};
    if (::poll(ends, std::size(ends), pollTimeout(deadline)) <= 0) continue;
    if (ends[1].revents != 0) service_.readLog();
    if (ends[0].revents != 0 && ::read(service_.replies(), dropped, sizeof dropped) == 0) return;
  }
}

}  // namespace qora::client
