// qora/service/channel.h -- The command channel: framed messages in, replies out.
//
// Handlers work on bytes inside the receive buffer; nothing is copied. The buffer may move when it
// grows, so a pointer into it is good only until the next call that can grow it. It is never
// compacted: the offset moves forward and returns to 0 when the next header is read while nothing
// is held. One thread. Reads and writes that a signal interrupts are not repeated.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>

namespace qora::service {

inline constexpr int32_t kCapacityStep = 65536;
inline constexpr int32_t kMaxCapacity = 1048576;

// All zero until openChannel(). Unread: data[offset, offset + available).
struct ChannelState {
  int32_t input = 0;        // descriptor the commands come from
  int32_t output = 0;       // descriptor the replies go to
  uint8_t* data = nullptr;  // owned malloc block of `capacity` bytes and a little slack, see .cc
  int32_t capacity = 0;     // bytes; a multiple of 64 KiB, at most 1 MiB; only ever grows
  int32_t available = 0;    // unread bytes
  int32_t offset = 0;       // index of the first unread byte; past the body of the message in hand
};

ChannelState& channelState();

// Descriptors 0 and 1, an empty buffer of 64 KiB. Ends the process if that cannot be had.
void openChannel();
// Frees the buffer.
void closeChannel();

// One read of at most `maximum` bytes when `wanted` is 0; else reads until exactly `wanted` are
// there. Returns the bytes read; -1 with errno from the read, EIO at end of input.
[[nodiscard]] int32_t readChannel(int32_t descriptor, uint8_t* destination, int32_t maximum,
                                  int32_t wanted);

// Takes the next header, from bytes already held where they suffice; the offset then points at the
// body. Returns 6 with `message` at the header; -1 with errno from the read.
[[nodiscard]] int32_t nextMessage(uint8_t*& message);

// Makes a whole message contiguous and marks its body read.
//   message     in: its header inside the buffer. out: the same header, moved if the buffer grew.
//   size        bytes of the message as its header declares them, header included; a capacity to
//               reach, no more. Negative asks for nothing.
//   bodyLength  bytes the handler needs behind the header; not negative.
// Returns the body bytes taken from the buffer or read just now; -1 with errno from the read (EIO:
// end of input). Ends the process if the buffer would have to pass 1 MiB.
[[nodiscard]] int32_t completeMessage(uint8_t*& message, int32_t size, int32_t bodyLength);

// Writes it all. Returns the length; -1 when a write gives 0 or fails.
[[nodiscard]] int32_t writeChannel(int32_t descriptor, const uint8_t* source, int32_t length);

// Writes both blocks, first before second, with as few gathered writes as the descriptor allows.
// Returns the sum of the lengths; -1 when a write gives 0 or fails.
[[nodiscard]] int32_t writeChannelPair(int32_t descriptor, const uint8_t* first,
                                       int32_t firstLength, const uint8_t* second,
                                       int32_t secondLength);

// The capacity that a message makes the buffer have, rounded up to the step; the present one when
// it suffices. Pure, and wide enough for whatever a header may declare.
int64_t capacityFor(const ChannelState& channel, int32_t size, int32_t bodyLength);

// Takes `written` bytes off the front of the entries: whole entries are passed over, the next one
// is shortened. Returns how many entries were passed over.
size_t consumeWritten(iovec entries[], size_t count, size_t written);

}  // namespace qora::service
