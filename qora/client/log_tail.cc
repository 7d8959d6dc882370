// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/log_tail.h"

namespace qora::client {
namespace {

char printable(uint8_t byte) {
  return byte < ' ' || byte == 0x7F ? '?' : static_cast<char>(byte);
}

}  // namespace

void LogTail::clear() {
  lines_.clear();
  ended_ = true;
}

void LogTail::add(std::span<const uint8_t> bytes) {
  for (const uint8_t byte : bytes) {
    if (byte == '\n') {
      ended_ = true;
      continue;
    }
    if (ended_) lines_.emplace_back();
    if (lines_.size() > kLogLines) lines_.pop_front();
    ended_ = false;
    if (lines_.back().size() < kLogLineSize) lines_.back() += printable(byte);
  }
}

}  // namespace qora::client
