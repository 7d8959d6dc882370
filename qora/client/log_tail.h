// SPDX-License-Identifier: BSD-2-Clause
// qora/client/log_tail.h -- The last lines of a log. Bounded whatever comes; bytes that would steer
// a terminal become '?'. One thread at a time.
#pragma once

#include <cstdint>
#include <deque>
#include <span>
#include <string>

namespace qora::client {

inline constexpr size_t kLogLines = 16;
inline constexpr size_t kLogLineSize = 512;  // bytes of a line that are kept

class LogTail {
 public:
  void clear();
  void add(std::span<const uint8_t> bytes);
  // Oldest first, without their newlines. The last one may not have ended yet.
  const std::deque<std::string>& lines() const { return lines_; }

 private:
  std::deque<std::string> lines_;
  bool ended_ = true;  // the last line has its newline
};

}  // namespace qora::client
