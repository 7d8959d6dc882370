// SPDX-License-Identifier: BSD-2-Clause
// qora/client/reply_queue.h -- Encode calls that wait for their replies, and the bytes of the
// replies as they come. Knows no descriptor.
//
// Replies are matched by order: the service answers every encode once, and nothing else. So any
// byte belongs to the oldest call that has no whole reply yet, and bytes without such a call are an
// error.
//
// Results: 1, 0 for "nothing there", -1 with errno. One thread at a time.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <vector>

#include "qora/service/wire/messages.h"

namespace qora::client {

// The answer to one encode. Use the same record for every frame: its memory is kept.
struct Reply {
  uint8_t streamId = 0;
  service::ReplyFields fields{};
  std::vector<uint8_t> frame;             // the coded bytes
  std::chrono::microseconds roundTrip{};  // from the call of encode until the reply was taken
};

class ReplyQueue {
 public:
  using Clock = std::chrono::steady_clock;

  // Empties the queue. The frames that it holds at one time may have `limit` bytes together.
  void reset(uint32_t limit);
  void expect(uint8_t streamId, Clock::time_point sent);

  int32_t pending() const { return static_cast<int32_t>(calls_.size()); }
  int32_t whole() const { return whole_; }  // of those, the ones whose reply can be taken

  // Where the next bytes are to be read to: at least a pipe's content, valid until the next call.
  std::span<uint8_t> room();
  // `count` bytes were read to room(). -1: EPROTO, problem() says what they are; whole replies that
  // came before can still be taken.
  int32_t accept(size_t count);
  // The oldest reply, when it is whole.
  int32_t take(Reply& reply);
  // Nobody will answer any more: forgets the calls whose reply is not whole.
  void dropUnanswered();

  // "a reply that nobody asked for"
  const std::string& problem() const { return problem_; }

 private:
  struct Call {
    uint8_t streamId;
    Clock::time_point sent;
    service::ReplyFields fields{};
    std::vector<uint8_t> frame;
  };

  int32_t beginReply();
  void continueReply();
  int32_t refuse(const std::string& problem);

  std::deque<Call> calls_;  // the first `whole_` have their reply; the next one's may have begun
  int32_t whole_ = 0;
  bool begun_ = false;          // its head was taken
  uint64_t held_ = 0;           // bytes of all frames in calls_, announced ones too
  uint64_t limit_ = 0;          // for held_
  std::vector<uint8_t> bytes_;  // [used_, filled_) came and is not used yet
  size_t used_ = 0;
  size_t filled_ = 0;
  std::vector<std::vector<uint8_t>> spare_;  // memory for frames to come
  std::string problem_;
};

}  // namespace qora::client
