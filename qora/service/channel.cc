// SPDX-License-Identifier: BSD-2-Clause
#include "qora/service/channel.h"

#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <iterator>

#include "qora/base/keep_errno.h"
#include "qora/base/logger.h"
#include "qora/service/fatal.h"
#include "qora/service/wire/limits.h"
#include "qora/service/wire/messages.h"

namespace qora::service {
namespace {

ChannelState channel;

// One read of an empty buffer takes no more, however large the buffer has become.
constexpr int32_t kLargestRead = 64 << 10;

// A header that begins in the last bytes of the capacity is completed after it. The block has room
// for that, so the capacity and the growth lines do not depend on where the parent's writes end.
constexpr size_t kHeaderSlack = kHeaderSize - 1;

size_t blockSize(int64_t capacity) {
  return static_cast<size_t>(capacity) + kHeaderSlack;
}

// Capacity, declared size and the end of the body: what is largest, rounded up to the step. In 64
// bits, for a header may declare anything. The capacity has been rounded before.
int64_t capacityFor(int32_t size, int32_t bodyLength) {
  const int64_t end = int64_t{channel.offset} + bodyLength;
  return (std::max<int64_t>({channel.capacity, size, end}) + kBufferStep - 1) / kBufferStep *
         kBufferStep;
}

// Returns where `message` stands after the growth.
uint8_t* growBuffer(uint8_t* message, int64_t capacity) {
  if (capacity > kBufferEnd) fatalMessageSize(capacity, "B");
  const ptrdiff_t distance = message - channel.data;
  auto* data = static_cast<uint8_t*>(realloc(channel.data, blockSize(capacity)));
  if (data == nullptr) fatalAllocation(capacity, "B");
  channel.data = data;
  channel.capacity = static_cast<int32_t>(capacity);
  KeepErrno keep;
  logStream() << "CodecMain: WARNING! Reallocated buffer with size " << channel.capacity << ".\n";
  return data + distance;
}

// One read of at most `maximum` bytes when `wanted` is 0; else reads until exactly `wanted` are
// there. Returns the bytes read; -1 with errno from the read, EIO at end of input.
int32_t readChannel(int32_t descriptor, uint8_t* destination, int32_t maximum, int32_t wanted) {
  const int32_t limit = wanted > 0 ? wanted : maximum;
  int32_t total = 0;
  do {
    const ssize_t count = ::read(descriptor, destination + total, limit - total);
    if (count == -1) return -1;
    if (count == 0) {
      errno = EIO;
      return -1;
    }
    total += static_cast<int32_t>(count);
  } while (wanted > 0 && total < limit);
  return total;
}

// Takes `written` bytes off the front of the entries: whole entries are passed over, the next one
// is shortened. Returns how many entries were passed over.
size_t consumeWritten(iovec entries[], size_t count, size_t written) {
  size_t passed = 0;
  while (passed < count && written >= entries[passed].iov_len) {
    written -= entries[passed].iov_len;
    ++passed;
  }
  if (passed < count) {
    entries[passed].iov_base = static_cast<uint8_t*>(entries[passed].iov_base) + written;
    entries[passed].iov_len -= written;
  }
  return passed;
}

}  // namespace

ChannelState& channelState() {
  return channel;
}

void openChannel() {
  channel = {.input = STDIN_FILENO, .output = STDOUT_FILENO};
  channel.data = static_cast<uint8_t*>(malloc(blockSize(kBufferStep)));
  if (channel.data == nullptr) fatalAllocation(kBufferStep, "A");
  channel.capacity = kBufferStep;
}

void closeChannel() {
  free(channel.data);
  channel.data = nullptr;
}

int32_t nextMessage(uint8_t*& message) {
  assert(channel.data != nullptr);
  if (channel.available == 0) channel.offset = 0;
  while (channel.available < kHeaderSize) {
    const int32_t wanted = channel.available == 0 ? 0 : kHeaderSize - channel.available;
    const int32_t count = readChannel(
        channel.input, channel.data + channel.offset + channel.available, kLargestRead, wanted);
    if (count == -1) return -1;
    channel.available += count;
  }
  message = channel.data + channel.offset;
  channel.available -= kHeaderSize;
  channel.offset += kHeaderSize;
  return kHeaderSize;
}

int32_t completeMessage(uint8_t*& message, int32_t size, int32_t bodyLength) {
  assert(message >= channel.data && bodyLength >= 0);
  const int64_t capacity = capacityFor(size, bodyLength);
  if (capacity != channel.capacity) message = growBuffer(message, capacity);
  if (channel.available >= bodyLength) {
    channel.available -= bodyLength;
    channel.offset += bodyLength;
    return bodyLength;
  }
  const int32_t missing = bodyLength - channel.available;
  channel.offset += channel.available;
  channel.available = 0;
  const int32_t count = readChannel(channel.input, channel.data + channel.offset, 0, missing);
  if (count == -1) return -1;
  channel.offset += count;
  return count;
}

int32_t writeChannel(int32_t descriptor, const uint8_t* source, int32_t length) {
  assert(length >= 0);
  int32_t total = 0;
  while (total != length) {
    const ssize_t count = ::write(descriptor, source + total, length - total);
    if (count <= 0) return -1;
    total += static_cast<int32_t>(count);
  }
  return total;
}

int32_t writeChannelPair(int32_t descriptor, const uint8_t* first, int32_t firstLength,
                         const uint8_t* second, int32_t secondLength) {
  assert(firstLength >= 0 && secondLength >= 0);
  iovec entries[] = {
      {const_cast<uint8_t*>(first), static_cast<size_t>(firstLength)},
      {const_cast<uint8_t*>(second), static_cast<size_t>(secondLength)},
  };
  const int64_t length = int64_t{firstLength} + secondLength;
  int64_t total = 0;
  for (size_t done = 0; total != length;) {
    const ssize_t count =
        ::writev(descriptor, entries + done, static_cast<int>(std::size(entries) - done));
    if (count <= 0) return -1;
    total += count;
    done += consumeWritten(entries + done, std::size(entries) - done, count);
  }
  return static_cast<int32_t>(total);
}

}  // namespace qora::service
