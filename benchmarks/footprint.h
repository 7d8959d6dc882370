// SPDX-License-Identifier: BSD-2-Clause
// benchmarks/footprint.h -- What starting costs, and memory.
#pragma once

#include "benchmarks/side_by_side.h"

namespace qora::bench {

// Milliseconds from nothing to the first coded frame: the service started, a segment attached, a
// stream added, a picture encoded; and the encoder opened and called in a fresh process.
double firstReplyOfService(const StreamShape& shape);
double firstFrameInProcess(const StreamShape& shape);

// MiB after a few frames that would be free without the process, so no shared pictures and no code
// that others run as well: of the service, and what the same streams add to a process of their own.
double memoryOfService(const StreamShape& shape);
double memoryInProcess(const StreamShape& shape);

}  // namespace qora::bench
