// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/stream_format.h"

#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "qora/client/region_copies.h"
#include "qora/service/wire/byte_order.h"

namespace qora::client {
namespace {

using service::readUint16;
using service::readUint32;
using service::writeUint16;
using service::writeUint32;

// A byte above 127, line ends of both kinds and an end of text: what a transfer as text spoils.
constexpr uint8_t kMagic[8] = {0x89, 'Q', 'O', 'R', 'A', '\r', '\n', 0x1A};
constexpr uint8_t kFrameMagic[4] = {'Q', 'F', 'R', 0xFE};

constexpr uint16_t kKeyFrameBit = 1;
constexpr uint16_t kEndBit = 2;

constexpr std::array<uint32_t, 256> makeChecksumTable() {
  std::array<uint32_t, 256> table{};
  for (uint32_t byte = 0; byte < 256; ++byte) {
    uint32_t value = byte;
    for (int32_t bit = 0; bit < 8; ++bit) {
      value = (value & 1) != 0 ? value >> 1 ^ 0xEDB88320U : value >> 1;
    }
    table[byte] = value;
  }
  return table;
}
constexpr std::array<uint32_t, 256> kChecksumTable = makeChecksumTable();

void writeInt64(int64_t value, uint8_t* bytes) {
  writeUint32(static_cast<uint32_t>(value), bytes, 0);
  writeUint32(static_cast<uint32_t>(value >> 32), bytes + 4, 0);
}
int64_t readInt64(const uint8_t* bytes) {
  return static_cast<int64_t>(uint64_t{readUint32(bytes + 4, 0)} << 32 | readUint32(bytes, 0));
}

// A frame's head as it stands in the bytes.
struct ReadHead {
  FrameHead head;
  size_t accessUnitBytes;
  size_t copies;
  uint32_t bodyChecksum;
  size_t bodyBytes() const { return accessUnitBytes + copies * service::kRegionCopySize; }
};

bool isFrame(const ReadHead& read) {
  return read.accessUnitBytes <= kMostAccessUnitBytes && read.copies <= kMostFrameCopies &&
         read.head.end == (read.accessUnitBytes == 0);
}

// Whether 32 bytes are an intact head.
bool parseFrameHead(const uint8_t* bytes, ReadHead& read) {
  if (std::memcmp(bytes, kFrameMagic, sizeof kFrameMagic) != 0) return false;
  if (checksum({bytes, kFrameHeadSize - 4}) != readUint32(bytes + 28, 0)) return false;
  const uint16_t flags = readUint16(bytes + 4, 0);
  read = {.head = {.time = readInt64(bytes + 8),
                   .width = readUint16(bytes + 16, 0),
                   .height = readUint16(bytes + 18, 0),
                   .keyFrame = (flags & kKeyFrameBit) != 0,
                   .end = (flags & kEndBit) != 0},
          .accessUnitBytes = readUint32(bytes + 20, 0),
          .copies = readUint16(bytes + 6, 0),
          .bodyChecksum = readUint32(bytes + 24, 0)};
  return isFrame(read);
}

int32_t writeAll(int32_t descriptor, std::span<iovec> pieces) {
  while (!pieces.empty()) {
    const ssize_t written = ::writev(descriptor, pieces.data(), static_cast<int>(pieces.size()));
    if (written == -1 && errno == EINTR) continue;
    if (written == -1) return -1;
    auto left = static_cast<size_t>(written);
    while (!pieces.empty() && left >= pieces.front().iov_len) {
      left -= pieces.front().iov_len;
      pieces = pieces.subspan(1);
    }
    if (pieces.empty()) break;
    pieces.front().iov_base = static_cast<uint8_t*>(pieces.front().iov_base) + left;
    pieces.front().iov_len -= left;
  }
  return 1;
}

iovec pieceOf(std::span<const uint8_t> bytes) {
  return {const_cast<uint8_t*>(bytes.data()), bytes.size()};
}

}  // namespace

uint32_t checksum(std::span<const uint8_t> bytes, uint32_t before) {
  uint32_t value = ~before;
  for (const uint8_t byte : bytes) value = kChecksumTable[(value ^ byte) & 0xFF] ^ value >> 8;
  return ~value;
}

std::array<uint8_t, kStreamHeaderSize> buildStreamHeader(const StreamHeader& header) {
  std::array<uint8_t, kStreamHeaderSize> bytes{};
  std::copy(std::begin(kMagic), std::end(kMagic), bytes.begin());
  writeUint16(kStreamVersion, &bytes[8], 0);
  writeUint16(header.width, &bytes[10], 0);
  writeUint16(header.height, &bytes[12], 0);
  writeUint32(header.ticksPerSecond, &bytes[16], 0);
  writeInt64(header.startTime, &bytes[20]);
  writeUint32(checksum(std::span(bytes).first(kStreamHeaderSize - 4)), &bytes[28], 0);
  return bytes;
}

std::array<uint8_t, kFrameHeadSize> buildFrameHead(const FrameHead& head, size_t accessUnitBytes,
                                                   size_t copies, uint32_t bodyChecksum) {
  std::array<uint8_t, kFrameHeadSize> bytes{};
  std::copy(std::begin(kFrameMagic), std::end(kFrameMagic), bytes.begin());
  const int32_t flags = (head.keyFrame ? kKeyFrameBit : 0) | (head.end ? kEndBit : 0);
  writeUint16(static_cast<uint16_t>(flags), &bytes[4], 0);
  writeUint16(static_cast<uint16_t>(copies), &bytes[6], 0);
  writeInt64(head.time, &bytes[8]);
  writeUint16(head.width, &bytes[16], 0);
  writeUint16(head.height, &bytes[18], 0);
  writeUint32(static_cast<uint32_t>(accessUnitBytes), &bytes[20], 0);
  writeUint32(bodyChecksum, &bytes[24], 0);
  writeUint32(checksum(std::span(bytes).first(kFrameHeadSize - 4)), &bytes[28], 0);
  return bytes;
}

int32_t writeStreamHeader(int32_t descriptor, const StreamHeader& header) {
  const auto bytes = buildStreamHeader(header);
  iovec piece = pieceOf(bytes);
  return writeAll(descriptor, {&piece, 1});
}

int32_t writeFrame(int32_t descriptor, const FrameHead& head, std::span<const uint8_t> accessUnit,
                   std::span<const service::RegionCopy> copies) {
  if (!isFrame({head, accessUnit.size(), copies.size(), 0})) {
    errno = EINVAL;
    return -1;
  }
  std::vector<uint8_t> entries(copies.size() * service::kRegionCopySize);
  for (size_t i = 0; i < copies.size(); ++i) {
    service::buildRegionCopy(copies[i], &entries[i * service::kRegionCopySize]);
  }
  const uint32_t bodyChecksum = checksum(entries, checksum(accessUnit));
  const auto headBytes = buildFrameHead(head, accessUnit.size(), copies.size(), bodyChecksum);
  iovec pieces[] = {pieceOf(headBytes), pieceOf(accessUnit), pieceOf(entries)};
  return writeAll(descriptor, pieces);
}

int32_t StreamReader::recognise(std::span<const uint8_t> bytes) {
  const size_t known = std::min(bytes.size(), sizeof kMagic);
  if (std::memcmp(bytes.data(), kMagic, known) != 0) return 0;
  return known == sizeof kMagic ? 1 : -1;
}

void StreamReader::feed(std::span<const uint8_t> bytes) {
  // What was taken is moved over only when it is most of the buffer.
  if (taken_ > buffer_.size() / 2) {
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<ptrdiff_t>(taken_));
    taken_ = 0;
  }
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
}

int32_t StreamReader::fill(int32_t descriptor) {
  uint8_t bytes[64 << 10];
  ssize_t count;
  do {
    count = ::read(descriptor, bytes, sizeof bytes);
  } while (count == -1 && errno == EINTR);
  if (count > 0) feed({bytes, static_cast<size_t>(count)});
  if (count == 0) feedEnd();
  return static_cast<int32_t>(count);
}

int32_t StreamReader::takeHeader() {
  const auto bytes = waiting();
  if (recognise(bytes) == 0) {
    errno = EPROTO;
    return -1;
  }
  if (bytes.size() < kStreamHeaderSize) return 0;
  const bool intact = checksum(bytes.first(kStreamHeaderSize - 4)) == readUint32(&bytes[28], 0);
  if (intact && readUint16(&bytes[8], 0) != kStreamVersion) {
    errno = ENOTSUP;
    return -1;
  }
  hasHeader_ = true;
  // The frames can do without a damaged one, and are looked for.
  if (!intact) {
    drop(sizeof kMagic);
    return 1;
  }
  header_ = {.ticksPerSecond = readUint32(&bytes[16], 0),
             .width = readUint16(&bytes[10], 0),
             .height = readUint16(&bytes[12], 0),
             .startTime = readInt64(&bytes[20])};
  taken_ += kStreamHeaderSize;
  return 1;
}

int32_t StreamReader::next(StreamFrame& frame) {
  const int32_t begun = hasHeader_ ? 1 : takeHeader();
  if (begun != 1) return begun;
  while (waiting().size() >= kFrameHeadSize) {
    ReadHead read;
    if (parseFrameHead(waiting().data(), read)) {
      const size_t size = kFrameHeadSize + read.bodyBytes();
      if (waiting().size() >= size && takeFrame(size, frame) == 1) return 1;
      // The rest of it is to come, unless some of its bytes are missing.
      if (waiting().size() < size && !ended_) return 0;
    }
    skipToHead();
  }
  if (ended_) drop(waiting().size());
  return 0;
}

int32_t StreamReader::takeFrame(size_t size, StreamFrame& frame) {
  const auto body = waiting().first(size).subspan(kFrameHeadSize);
  ReadHead read;
  parseFrameHead(waiting().data(), read);
  if (checksum(body) != read.bodyChecksum) return 0;
  frame.copies.resize(read.copies);
  const uint8_t* entry = body.data() + read.accessUnitBytes;
  for (service::RegionCopy& copy : frame.copies) {
    copy = service::parseRegionCopy(entry);
    entry += service::kRegionCopySize;
    if (!fits(copy, read.head.width, read.head.height)) return 0;
  }
  frame.head = read.head;
  frame.accessUnit.assign(body.begin(),
                          body.begin() + static_cast<ptrdiff_t>(read.accessUnitBytes));
  frame.afterGap = std::exchange(gap_, false);
  taken_ += size;
  return 1;
}

void StreamReader::drop(size_t bytes) {
  gap_ = gap_ || bytes > 0;
  lostBytes_ += static_cast<int64_t>(bytes);
  taken_ += bytes;
}

void StreamReader::skipToHead() {
  const auto rest = waiting().subspan(1);
  const auto found =
      std::search(rest.begin(), rest.end(), std::begin(kFrameMagic), std::end(kFrameMagic));
  // The last bytes may be a magic's beginning.
  const auto skipped = found != rest.end() ? found - rest.begin() : std::ssize(rest) - 3;
  drop(static_cast<size_t>(skipped) + 1);
}

}  // namespace qora::client
