// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/view/stream_input.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "qora/base/error_text.h"

namespace qora::tools {
namespace {

constexpr size_t kChunk = 1 << 18;
constexpr std::chrono::milliseconds kIdle{20};  // after which a live frame is taken to be whole
constexpr double kLongest = 1e15;               // a damaged time must not overflow, microseconds
constexpr size_t kLongestCode = 16;             // bytes in which a plain stream has begun

// Zeros and a one.
bool isPlain(std::span<const uint8_t> bytes) {
  const size_t end = std::min(bytes.size(), kLongestCode);
  size_t zeros = 0;
  while (zeros < end && bytes[zeros] == 0) ++zeros;
  return zeros >= 2 && zeros < end && bytes[zeros] == 1;
}

}  // namespace

int32_t StreamInput::fail(const std::string& problem) {
  problem_ = name_ + ": " + problem;
  return -1;
}

int32_t StreamInput::open(const std::string& path, int32_t framesASecond) {
  name_ = path == "-" ? "standard input" : path;
  framesASecond_ = framesASecond;
  input_.reset(path == "-" ? ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                           : ::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status;
  if (input_.get() == -1 || ::fstat(input_.get(), &status) == -1) return fail(errorText(errno));
  if (S_ISDIR(status.st_mode)) return fail(errorText(EISDIR));
  live_ = !S_ISREG(status.st_mode);
  return 1;
}

StreamInput::Next StreamInput::next(client::StreamFrame& frame, int32_t timeout) {
  for (;;) {
    const int32_t taken = take(frame);
    if (taken == -1) return Next::failed;
    if (taken == 1) return Next::frame;
    if (ended_) return Next::end;
    const int32_t filled = fill(timeout);
    if (filled != 1) return filled == 0 ? Next::notYet : Next::failed;
  }
}

// 1, 0 when nothing came in time, or -1.
int32_t StreamInput::fill(int32_t timeout) {
  pollfd waiting{input_.get(), POLLIN, 0};
  const int ready = ::poll(&waiting, 1, timeout);
  if (ready == 0 || (ready == -1 && errno == EINTR)) return 0;
  chunk_.resize(kChunk);
  const ssize_t count = ::read(input_.get(), chunk_.data(), chunk_.size());
  if (count == -1) return errno == EINTR || errno == EAGAIN ? 0 : fail(errorText(errno));
  ended_ = count == 0;
  lastInput_ = Clock::now();
  const std::span<const uint8_t> bytes(chunk_.data(), static_cast<size_t>(count));
  if (kind_ == Kind::unknown) begin_.insert(begin_.end(), bytes.begin(), bytes.end());
  if (kind_ == Kind::plain) splitter_.feed(bytes);
  if (kind_ == Kind::timed) reader_.feed(bytes);
  recognise();
  if (ended_) reader_.feedEnd();
  return 1;
}

// What is not a plain stream is left to the other reader, which knows what to do with damage.
void StreamInput::recognise() {
  if (kind_ != Kind::unknown || (begin_.size() < kLongestCode && !ended_)) return;
  kind_ = isPlain(begin_) ? Kind::plain : Kind::timed;
  if (kind_ == Kind::plain) splitter_.feed(begin_);
  if (kind_ == Kind::timed) reader_.feed(begin_);
  begin_.clear();
}

int32_t StreamInput::take(client::StreamFrame& frame) {
  if (kind_ == Kind::unknown) return 0;
  if (kind_ == Kind::plain) return takePlain(frame);
  const int32_t taken = reader_.next(frame);
  if (taken == -1) {
    return fail(errno == ENOTSUP ? "a stream with moves of another version"
                                 : "neither a stream with moves nor H.264 with start codes");
  }
  if (taken == 1) setTime(frame);
  return taken;
}

int32_t StreamInput::takePlain(client::StreamFrame& frame) {
  const bool isLast = ended_ || (live_ && Clock::now() - lastInput_ >= kIdle);
  if (splitter_.next(frame.accessUnit, isLast) == 0) return 0;
  frame.head = {};
  frame.head.keyFrame = AccessUnitSplitter::isKeyFrame(frame.accessUnit);
  frame.head.time = frames_++ * 1'000'000 / framesASecond_;
  frame.copies.clear();
  frame.afterGap = false;
  return 1;
}

void StreamInput::setTime(client::StreamFrame& frame) {
  if (frames_++ == 0) firstTime_ = frame.head.time;
  const double ticks = static_cast<double>(frame.head.time) - static_cast<double>(firstTime_);
  const uint32_t rate = std::max(reader_.header().ticksPerSecond, 1U);
  frame.head.time = static_cast<int64_t>(std::clamp(ticks * 1e6 / rate, 0.0, kLongest));
}

}  // namespace qora::tools
