// SPDX-License-Identifier: BSD-2-Clause
// qora/client/codec_client.h -- A parent's end of the codec service: starts it, sends it commands,
// takes its replies, ends it.
//
//     CodecClient client;
//     client.start({.servicePath = "/usr/libexec/qora/qora-codec", .codecRoot = "/opt/codec"});
//     client.attachSegment(segment.id());
//     client.addStream(settings);
//     client.encode(request, rectangles, copies);
//     client.readReply(reply);
//
// Only encode() is answered, and the answers come in the order of the calls. A command that the
// service refuses ends it: the next readReply() that waits for an answer returns -1 with errno
// EPIPE, as does a command that finds the service gone, and endText() tells why.
//
// Every call but readReply() without a timeout has an end, whatever the service does, and no reply
// makes us hold more than ServiceOptions::maxReplyBytes. A service that breaks the rules is killed
// at once; its end is known when the call returns:
//     EPIPE      it ended, or closed its replies
//     ETIMEDOUT  it took no command for ServiceOptions::commandTimeout
//     EPROTO     it sent what is no reply, one that nobody asked for, or a larger one than allowed
//
// In an event loop, watch replyDescriptor() for reading, and on each wake
//     if (client.process() == -1) ...                        // the service is gone: endText()
//     while (client.readReply(reply, 0) == 1) ...            // the frames that are whole
//     if (!client.wantsWrite()) client.tryEncode(next...);   // a picture that found no room
// None of these calls waits, but for up to 50 ms, once, for the end of a service that closed its
// replies, which nearly all do by ending. A service that hangs makes no wake: a loop that cares has
// a timer, and ends it with stop(0).
//
// Results: 1 or a count, 0 for "nothing there", -1 with errno. One thread at a time may use a
// client; several clients are independent. Nothing raises SIGPIPE or changes a signal's
// disposition.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <vector>

#include "qora/client/reply_queue.h"
#include "qora/client/service_process.h"
#include "qora/service/wire/limits.h"
#include "qora/service/wire/messages.h"

namespace qora::client {

// The largest command that can be sent at any time. The service's buffer ends at 1 MiB, and a
// command that it received together with earlier ones begins up to 64 KiB after the buffer's start.
inline constexpr int32_t kLargestCommand = service::kSafeMessageSize;

// How many rectangles an encode command has room for beside its copies: the limit for
// findChangedRectangles(). At least 1, which encode() refuses when the copies leave no room for it.
inline constexpr int32_t maxRectangles(int32_t copies) {
  const int64_t bytes = kLargestCommand - service::kEncodeFixedSize -
                        int64_t{std::max(copies, 0)} * service::kRegionCopySize;
  return static_cast<int32_t>(std::max<int64_t>(bytes / service::kRectangleSize, 1));
}

// The time the service spent in the encoder, from the reply's two clock readings.
inline constexpr uint32_t encodeMilliseconds(const service::ReplyFields& fields) {
  return fields.endTime - fields.startTime;
}

class CodecClient {
 public:
  CodecClient() = default;
  ~CodecClient() { stop(); }
  CodecClient(const CodecClient&) = delete;
  CodecClient& operator=(const CodecClient&) = delete;

  // Starts the service. -1: EBUSY when one runs already, what access(2) says when the program
  // cannot be run, EINVAL for options that exclude each other, or the system's. A service that
  // cannot load its encoder ends at once; the first reply tells.
  [[nodiscard]] int32_t start(const ServiceOptions& options);

  // The commands. A call returns when the command is in the pipe; while the pipe is full, replies
  // are taken in and kept, so that both sides can always go on.
  int32_t addStream(const service::AddStreamRequest& request);
  int32_t removeStream(uint8_t streamId);
  int32_t attachSegment(int32_t segmentId);
  int32_t removeSegment(int32_t segmentId);
  // Fills in the lengths of both lists itself. EMSGSIZE when they are too long together. An empty
  // list of rectangles has a meaning of its own, see nothingChanged().
  int32_t encode(service::EncodeRequest request, std::span<const service::Rectangle> rectangles,
                 std::span<const service::RegionCopy> copies);
  // The same without waiting. 0: there is no room and nothing was sent; wantsWrite() is true until
  // there is. 1: the command is on its way, the client keeps what the pipe did not take yet.
  int32_t tryEncode(service::EncodeRequest request, std::span<const service::Rectangle> rectangles,
                    std::span<const service::RegionCopy> copies);

  // The reply to the oldest encode() that has none yet. Waits for it for up to `timeout`
  // milliseconds, without end for -1, not at all for 0. 0: none is due, or not in time. -1: EPIPE,
  // EPROTO or ETIMEDOUT as above, once the replies that came before were read.
  int32_t readReply(Reply& reply, int32_t timeout = -1);
  // encode() calls whose reply was not read and can still come; none after the service's end.
  int32_t pendingReplies() const { return replies_.pending(); }

  // For an event loop: readable when process() has something to do. -1 without a service; it is
  // closed by the call that finds the service gone.
  int32_t replyDescriptor() const { return service_.wakeDescriptor(); }
  // Takes in what is there and sends what waits, without waiting. The replies that can be read, or
  // -1 as readReply(); those that came before can be read all the same.
  int32_t process();
  // Bytes or a tryEncode() wait for room in the pipe.
  bool wantsWrite() const { return !unsent_.empty() || roomWanted_; }

  // Ends the service: closes its input, drops replies that are still due, waits for its end for up
  // to `grace` milliseconds and kills it then. 1 when it ended in order, 0 when none was started,
  // -1 otherwise. No child is left in any case. The destructor does the same.
  int32_t stop(int32_t grace = 2000);

  // True from start() until the service's end is known.
  bool isRunning() const { return service_.isRunning(); }
  // How the last service ended, empty until that is known. "service ended with status 22: it
  // refused a command; its last line: Invalid message size 5 in context [A]."
  const std::string& endText() const { return service_.endText(); }
  // With ServiceOptions::keepLog: the last lines of its diagnostics, oldest first.
  const std::deque<std::string>& logLines() const { return service_.logTail().lines(); }

 private:
  using Clock = ReplyQueue::Clock;
  using Bytes = std::span<const uint8_t>;

  int32_t checkService();
  int32_t buildEncode(service::EncodeRequest& request,
                      std::span<const service::Rectangle> rectangles,
                      std::span<const service::RegionCopy> copies);
  int32_t send(Bytes bytes);
  int32_t sendUnsent();
  int32_t push(Bytes& bytes);
  int32_t waitForRoom(Clock::time_point deadline);
  int32_t waitForReply(Clock::time_point deadline);
  int32_t await(Clock::time_point deadline);
  int32_t receive();
  int32_t lose(int32_t error, const char* fault);
  int32_t serviceGone(int32_t otherwise) const;
  void watchRoom(bool wanted);
  void dropReplies(Clock::time_point deadline);

  ServiceProcess service_;
  ReplyQueue replies_;
  int32_t commandTimeout_ = -1;
  int32_t lostError_ = 0;         // why the service is gone
  std::vector<uint8_t> message_;  // the encode command being built
  Bytes unsent_;                  // the end of it that the pipe did not take yet
  bool roomWanted_ = false;       // a tryEncode() found none
  Clock::time_point idleCheck_;   // when we last looked for replies that nobody asked for
};

}  // namespace qora::client
