// SPDX-License-Identifier: BSD-2-Clause
// qora/service/channel.h -- The command channel: framed messages in, replies out.
//
// Handlers work on bytes inside the receive buffer; nothing is copied. The buffer may move when it
// grows, so a pointer into it is good only until the next call that can grow it. It is never
// compacted: the offset moves forward and returns to 0 when the next header is read while nothing
// is held. One thread. Reads and writes that a signal interrupts are not repeated.
#pragma once

#include <cstdint>

namespace qora::service {

// All zero until openChannel(). Unread: data[offset, offset + available).
struct ChannelState {
  int32_t input = 0;        // descriptor the commands come from
  int32_t output = 0;       // descriptor the replies go to
  uint8_t* data = nullptr;  // owned malloc block of `capacity` bytes and some slack, see .cc
  int32_t capacity = 0;     // bytes; a multiple of kBufferStep up to kBufferEnd; only ever grows
  int32_t available = 0;    // unread bytes
  int32_t offset = 0;       // index of the first unread byte; past the body of the message in hand
};

ChannelState& channelState();

// Descriptors 0 and 1, an empty buffer of one step. Ends the process if that cannot be had. The
// operations on messages below need it open.
void openChannel();
// Frees the buffer.
void closeChannel();

// Takes the next header, from bytes already held where they suffice; the offset then points at the
// body. Returns 6 with `message` at the header; -1 with errno from the read, EIO at end of input.
[[nodiscard]] int32_t nextMessage(uint8_t*& message);

// Makes a whole message contiguous and marks its body read.
//   message     in: its header inside the buffer. out: the same header, moved if the buffer grew.
//   size        bytes of the message as its header declares them, header included; a capacity to
//               reach, no more. Negative asks for nothing.
//   bodyLength  bytes the handler needs after the header; not negative.
// Returns the body bytes taken from the buffer or read just now; -1 with errno from the read (EIO:
// end of input). Ends the process if the buffer would have to pass kBufferEnd.
[[nodiscard]] int32_t completeMessage(uint8_t*& message, int32_t size, int32_t bodyLength);

// Writes it all; `length` is not negative. Returns the length; -1 when a write gives 0 or fails.
[[nodiscard]] int32_t writeChannel(int32_t descriptor, const uint8_t* source, int32_t length);

// Writes both blocks, first before second, with as few gathered writes as the descriptor allows.
// Returns the sum of the lengths, which are not negative; -1 when a write gives 0 or fails.
[[nodiscard]] int32_t writeChannelPair(int32_t descriptor, const uint8_t* first,
                                       int32_t firstLength, const uint8_t* second,
                                       int32_t secondLength);

}  // namespace qora::service
