// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/reply_queue.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>

namespace qora::client {
namespace {

constexpr size_t kReadSize = 256 << 10;  // what the pipe holds, so a usual frame is one read
constexpr size_t kSpareFrame = 1 << 20;  // memory of larger frames is given back
constexpr size_t kMarkSize = 5;          // size and type, the same in every reply

std::string hexadecimal(const uint8_t* bytes, size_t count) {
  std::string text;
  for (size_t i = 0; i < count; ++i) {
    char digits[4];
    std::snprintf(digits, sizeof digits, " %02x", bytes[i]);
    text += digits;
  }
  return text;
}

}  // namespace

void ReplyQueue::reset(uint32_t limit) {
  calls_.clear();
  spare_.clear();
  whole_ = 0;
  begun_ = false;
  held_ = 0;
  limit_ = limit;
  used_ = filled_ = 0;
  problem_.clear();
}

void ReplyQueue::expect(uint8_t streamId, Clock::time_point sent) {
  Call& call = calls_.emplace_back(Call{.streamId = streamId, .sent = sent, .frame = {}});
  if (spare_.empty()) return;
  call.frame = std::move(spare_.back());
  call.frame.clear();
  spare_.pop_back();
}

std::span<uint8_t> ReplyQueue::room() {
  // What is left over is less than a head.
  std::copy(bytes_.begin() + static_cast<ptrdiff_t>(used_),
            bytes_.begin() + static_cast<ptrdiff_t>(filled_), bytes_.begin());
  filled_ -= std::exchange(used_, 0);
  bytes_.resize(kReadSize + service::kReplyHeadSize);
  return std::span(bytes_).subspan(filled_);
}

int32_t ReplyQueue::accept(size_t count) {
  filled_ += count;
  while (begun_ || used_ < filled_) {
    if (!begun_) {
      if (const int32_t begun = beginReply(); begun != 1) return begun == 0 ? 1 : -1;
    }
    continueReply();
    if (begun_) break;  // the rest is still to come
  }
  return 1;
}

// 1: the head of the next reply was taken. 0: it is not whole yet.
int32_t ReplyQueue::beginReply() {
  if (whole_ == pending()) return refuse("a reply that nobody asked for");
  const uint8_t* head = bytes_.data() + used_;
  if (filled_ - used_ < service::kReplyHeadSize) return 0;
  const service::ReplyFields fields = service::parseReplyHead(head);
  // The empty reply with the same fields begins with the same size and type.
  if (!std::equal(head, head + kMarkSize, service::buildReplyHead(fields).begin())) {
    return refuse("what is no reply:" + hexadecimal(head, kMarkSize));
  }
  if (fields.frameSize > limit_ - held_) {
    return refuse("a reply of " + std::to_string(fields.frameSize) + " bytes, of " +
                  std::to_string(limit_ - held_) + " that may be held");
  }
  Call& call = calls_[static_cast<size_t>(whole_)];
  call.fields = fields;
  call.frame.reserve(fields.frameSize);
  held_ += fields.frameSize;
  used_ += service::kReplyHeadSize;
  begun_ = true;
  return 1;
}

void ReplyQueue::continueReply() {
  Call& call = calls_[static_cast<size_t>(whole_)];
  const size_t missing = call.fields.frameSize - call.frame.size();
  const size_t count = std::min(missing, filled_ - used_);
  const uint8_t* bytes = bytes_.data() + used_;
  call.frame.insert(call.frame.end(), bytes, bytes + count);
  used_ += count;
  if (count < missing) return;
  begun_ = false;
  ++whole_;
}

int32_t ReplyQueue::refuse(const std::string& problem) {
  problem_ = problem;
  used_ = filled_;
  errno = EPROTO;
  return -1;
}

int32_t ReplyQueue::take(Reply& reply) {
  if (whole_ == 0) return 0;
  Call& call = calls_.front();
  reply.streamId = call.streamId;
  reply.fields = call.fields;
  reply.frame.swap(call.frame);
  reply.roundTrip = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - call.sent);
  held_ -= reply.frame.size();
  if (call.frame.capacity() <= kSpareFrame) spare_.push_back(std::move(call.frame));
  calls_.pop_front();
  --whole_;
  return 1;
}

void ReplyQueue::dropUnanswered() {
  calls_.erase(calls_.begin() + whole_, calls_.end());
  begun_ = false;
}

}  // namespace qora::client
