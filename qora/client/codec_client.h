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
// EPIPE, as does a command that finds the pipe full, and endText() tells why. Nothing here raises
// SIGPIPE, and no signal's disposition is changed.
//
// Results: 1, 0 for "nothing there", -1 with errno. One thread at a time may use a client.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <vector>

#include "qora/base/descriptor.h"
#include "qora/service/wire/limits.h"
#include "qora/service/wire/messages.h"

namespace qora::client {

// The largest command that can be sent at any time. The service's buffer ends at 1 MiB, and a
// command that it received together with earlier ones begins up to 64 KiB behind the buffer's
// start.
inline constexpr int32_t kLargestCommand = service::kSafeMessageSize;

// How many rectangles an encode command has room for beside its copies: the limit for
// findChangedRectangles().
inline constexpr int32_t maxRectangles(int32_t copies) {
  return (kLargestCommand - service::kEncodeFixedSize - copies * service::kRegionCopySize) /
         service::kRectangleSize;
}

struct ServiceOptions {
  std::string servicePath;       // the program, not searched for
  std::string codecRoot;         // the service's QORA_SYSTEM; empty: as in our own environment
  int32_t errorDescriptor = -1;  // where its diagnostics go; -1: our standard error
  std::string sandboxPath = {};  // qora-sandbox, which is to run it; empty: it runs freely
};

// The answer to one encode(). Use the same record for every frame: its memory is kept.
struct Reply {
  uint8_t streamId = 0;
  service::ReplyFields fields{};
  std::vector<uint8_t> frame;             // the coded bytes
  std::chrono::microseconds roundTrip{};  // from the call of encode() until the reply was taken
};

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
  // cannot be run, or the system's. A service that cannot load its encoder ends at once; the first
  // reply tells.
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

  // The reply to the oldest encode() that has none yet. Waits for it for up to `timeout`
  // milliseconds, without end for -1. 0: none is due, or not in time. -1: EPIPE when the service
  // ended before it, EPROTO when what came is no reply.
  int32_t readReply(Reply& reply, int32_t timeout = -1);
  // encode() calls that have no reply yet.
  int32_t pendingReplies() const { return static_cast<int32_t>(pending_.size()); }

  // Ends the service: closes its input, drops replies that are still due, waits for its end for up
  // to `grace` milliseconds and kills it then. 1 when it ended with status 0, 0 when none was
  // started, -1 otherwise. No child is left in any case. The destructor does the same.
  int32_t stop(int32_t grace = 2000);

  // True from start() until the service's end is known.
  bool isRunning() const { return process_ != -1; }
  // How the last service ended, empty until that is known.
  const std::string& endText() const { return endText_; }

 private:
  using Clock = std::chrono::steady_clock;

  struct PendingEncode {
    uint8_t streamId;
    Clock::time_point sent;
  };

  int32_t send(const uint8_t* bytes, size_t size);
  int32_t waitForRoom();
  int32_t receiveSome();
  int32_t takeReply(Reply& reply);
  int32_t waitForReply(Clock::time_point deadline) const;
  int32_t channelLost(int32_t error);
  void closeCommands();
  void drainReplies(Clock::time_point deadline);
  void collectEnd(Clock::time_point deadline);

  pid_t process_ = -1;
  Descriptor commands_;  // non-blocking
  // The service's end as well: with a reader in our own process a write raises no SIGPIPE, whatever
  // became of the service. The end of the replies tells that.
  Descriptor commandReader_;
  Descriptor replies_;
  std::vector<uint8_t> message_;   // the encode command being built
  std::vector<uint8_t> received_;  // reply bytes: [taken_, filled_) are not used yet
  size_t taken_ = 0;
  size_t filled_ = 0;
  std::deque<PendingEncode> pending_;
  int32_t exitedWithZero_ = 0;
  std::string endText_;
};

}  // namespace qora::client
