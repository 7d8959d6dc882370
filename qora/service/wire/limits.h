// SPDX-License-Identifier: BSD-2-Clause
// qora/service/wire/limits.h -- How much the service's receive buffer holds, and so how large a
// message may be.
#pragma once

#include <cstdint>

namespace qora::service {

// The buffer begins with one step and grows by steps up to its end.
inline constexpr int32_t kBufferStep = 64 << 10;
inline constexpr int32_t kBufferEnd = 1 << 20;

// A message may begin anywhere in the first step, depending on what the parent wrote before it. One
// of this size fits wherever it begins; a larger one only at the very start.
inline constexpr int32_t kSafeMessageSize = kBufferEnd - kBufferStep;

}  // namespace qora::service
