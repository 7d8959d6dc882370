// SPDX-License-Identifier: BSD-2-Clause
// qora/client/stream_format.h -- A stream with moves in a file or a pipe: access units with what
// standard containers cannot hold, the copies that a viewer makes after each, and with their times.
//
// docs/stream_format.md has the bytes. Everything can be written and read in one pass, a file that
// was cut off anywhere plays up to there, and after damage reading goes on at the next intact
// frame. The writer and the reader own no descriptor. One thread at a time each.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "qora/service/wire/messages.h"

namespace qora::client {

inline constexpr int32_t kStreamVersion = 1;
inline constexpr int32_t kStreamHeaderSize = 32;
inline constexpr int32_t kFrameHeadSize = 32;
inline constexpr int32_t kMostAccessUnitBytes = 64 << 20;
inline constexpr int32_t kMostFrameCopies = 4096;

// What a file begins with.
struct StreamHeader {
  uint32_t ticksPerSecond = 1'000'000;  // of the frames' times
  uint16_t width = 0;                   // pixels, of the first picture; 0: not known yet
  uint16_t height = 0;
  int64_t startTime = 0;  // wall clock of time 0, microseconds since 1970; 0: not known
};

struct FrameHead {
  int64_t time = 0;       // ticks since the stream's start, rising
  uint16_t width = 0;     // pixels; another size than before: a new stream within the stream, whose
  uint16_t height = 0;    // first frame stands alone
  bool keyFrame = false;  // stands alone
  // Nothing is shown any more from this time on; there is no access unit. The last frame's duration
  // is known by it.
  bool end = false;
};

// One frame as it was read. Use the same record for every frame: its memory is kept.
struct StreamFrame {
  FrameHead head;
  std::vector<uint8_t> accessUnit;          // with start codes
  std::vector<service::RegionCopy> copies;  // each fits the picture, see region_copies.h
  // Something before it is missing: what is decoded is wrong until a frame stands alone.
  bool afterGap = false;
};

// Writes to a descriptor, waiting while it is full. Results: 1; -1 with errno: EINVAL when there is
// more than a frame may have, or write(2)'s, after which the stream is cut off. SIGPIPE is the
// caller's affair.
int32_t writeStreamHeader(int32_t descriptor, const StreamHeader& header);
int32_t writeFrame(int32_t descriptor, const FrameHead& head, std::span<const uint8_t> accessUnit,
                   std::span<const service::RegionCopy> copies);

class StreamReader {
 public:
  // Reads what the descriptor has, once: the bytes taken, 0 at its end, -1 with errno (EAGAIN when
  // it would block).
  int32_t fill(int32_t descriptor);
  // The same for bytes that came otherwise, and for their end.
  void feed(std::span<const uint8_t> bytes);
  void feedEnd() { ended_ = true; }

  // The next intact frame: 1; 0: feed more, or after the end: there is none. -1 with errno: EPROTO
  // when this is no stream with moves, ENOTSUP when it has another version. A header that was
  // damaged is taken to have the default values.
  int32_t next(StreamFrame& frame);

  // Whether the stream's header was read; it is by the time of the first frame.
  bool hasHeader() const { return hasHeader_; }
  const StreamHeader& header() const { return header_; }
  int64_t lostBytes() const { return lostBytes_; }  // damaged or cut off, so far

  // Whether bytes begin like a stream with moves: 1, 0 no, -1 too few to tell.
  static int32_t recognise(std::span<const uint8_t> bytes);

 private:
  std::span<const uint8_t> waiting() const { return std::span(buffer_).subspan(taken_); }
  int32_t takeHeader();
  int32_t takeFrame(size_t size, StreamFrame& frame);
  void drop(size_t bytes);
  void skipToHead();

  std::vector<uint8_t> buffer_;
  size_t taken_ = 0;
  StreamHeader header_;
  bool hasHeader_ = false;
  bool ended_ = false;
  bool gap_ = false;
  int64_t lostBytes_ = 0;
};

// The parts of the format.

// CRC-32 as in gzip and PNG; `before` continues an earlier one.
uint32_t checksum(std::span<const uint8_t> bytes, uint32_t before = 0);
std::array<uint8_t, kStreamHeaderSize> buildStreamHeader(const StreamHeader& header);
// `body` is the access unit and then the copies, 16 bytes each.
std::array<uint8_t, kFrameHeadSize> buildFrameHead(const FrameHead& head, size_t accessUnitBytes,
                                                   size_t copies, uint32_t bodyChecksum);

}  // namespace qora::client
