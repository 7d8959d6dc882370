// SPDX-License-Identifier: BSD-2-Clause
// qora/client/service_link.h -- The service as a session has it: what it was told, the memory that
// it reads, and its end, which is kept until somebody asks.
//
// Calls to a service that does not run do nothing. One thread at a time.
#pragma once

#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <vector>

#include "qora/client/codec_client.h"
#include "qora/client/shared_segment.h"
#include "qora/client/stream_settings.h"
#include "qora/service/wire/messages.h"

namespace qora::client {

class ServiceLink {
 public:
  // Starts it anew, after ending one that runs. 1, or -1 with errno as CodecClient::start().
  [[nodiscard]] int32_t start(const ServiceOptions& options);
  // Ends it in order; the result is that of CodecClient::stop().
  int32_t stop();
  // Ends it at once, a loss with this error and text.
  void giveUp(int error, const std::string& problem);
  bool isRunning() const { return client_.isRunning(); }
  bool isUp() const { return isUp_; }  // started, and not known to be gone
  const std::string& endText() const { return client_.endText(); }

  // The memory of all pictures from now on. The service attaches it with the next frame.
  void setMemory(SharedSegment memory);
  void addStream(const StreamSettings& settings);
  void removeStream(int32_t stream);
  // A frame of a stream with that rate control. 1: it is on its way. 0: not now.
  int32_t send(const service::EncodeRequest& request, RateControl control,
               const std::vector<service::Rectangle>& rectangles,
               std::span<const service::RegionCopy> copies);
  // The reply to the oldest frame sent, without waiting. 0: it is not there.
  int32_t readReply(Reply& reply);
  // As CodecClient has them.
  int32_t process();
  int32_t pendingReplies() const { return client_.pendingReplies(); }
  int32_t replyDescriptor() const { return client_.replyDescriptor(); }

  // Why the service is gone, while nobody was told; 0: it is not.
  int lossError() const { return lossError_; }
  // Puts the loss into words and forgets it. The result is its error.
  int takeLoss(std::string& problem);

 private:
  struct Retired {
    SharedSegment memory;
    uint64_t attachedAt;
  };

  void forget();
  int32_t attach();
  bool isAwaited(uint64_t frame) const { return frame >= framesAnswered_; }
  std::span<const service::Rectangle> wireRectangles(
      bool hasBitrate, const std::vector<service::Rectangle>& rectangles);
  void note(int32_t result);
  void noteLoss(int error, const std::string& problem);

  CodecClient client_;
  SharedSegment memory_;
  bool isAttached_ = false;  // the service was told of the memory,
  uint64_t attachedAt_ = 0;  // before the frame of this number
  std::deque<Retired> retired_;
  uint64_t framesSent_ = 0;
  uint64_t framesAnswered_ = 0;
  bool isUp_ = false;
  bool bitrateMode_ = false;  // the service's flag: the stream added last has the encoder's bitrate
  int lossError_ = 0;
  std::string lossText_;
  std::vector<service::Rectangle> shifted_;
};

}  // namespace qora::client
