// SPDX-License-Identifier: BSD-2-Clause
// qora/service/streams.h -- The table of encoder streams, and the commands that fill and empty a
// slot.
#pragma once

#include <array>
#include <cstdint>

#include "qora/encoder/stream.h"
#include "qora/service/wire/messages.h"

namespace qora::service {

using StreamTable = std::array<encoder::EncoderStream, kStreamCount>;

// Eight slots by stream id, all zero at start. Encoders still open at exit are not closed.
StreamTable& streamTable();

// Handler: opens an encoder in a slot. 1; -1 for an unreadable body, or after a log line, and then
// what was done so far stays. A slot that is in use is filled again, its old encoder and maps are
// abandoned.
int32_t addStream(uint8_t* message, int32_t size);

// Handler: closes the slot's encoder and frees its maps. 1; 0 after a warning when the slot holds
// no encoder; -1 for an unreadable body, or after a log line for an invalid id.
int32_t removeStream(uint8_t* message, int32_t size);

}  // namespace qora::service
