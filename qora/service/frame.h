// SPDX-License-Identifier: BSD-2-Clause
// qora/service/frame.h -- Encodes one frame of a stream and replies with it.
#pragma once

#include <cstdint>

namespace qora::service {

// Handler: one picture in the segment becomes one access unit on the channel, after its reply
// head. Returns the bytes of the access unit; -1 when the service is to end, with a log line unless
// the channel failed; errno is set when the channel, the segment's memory or the encoder set it. A
// message whose lists do not add up to its size ends the process.
int32_t encodeFrame(uint8_t* message, int32_t size);

}  // namespace qora::service
