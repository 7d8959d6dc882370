// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/interrupt.h -- A program that finishes its frame when it is told to stop.
//
// A terminal sends SIGINT to the whole process group. A child started between the two calls ignores
// it for its whole life and is ended by its parent in order. Process-wide.
#pragma once

#include <cstdint>

namespace qora::tools {

// From here on SIGINT and SIGTERM do nothing.
void ignoreInterrupts();
// From here on the first one is only noted and ends a wait with EINTR; the next one ends the
// process. A signal that was ignored when ignoreInterrupts() was called stays so.
void noteInterrupts();
bool wasInterrupted();
// Readable from the first one on, for a program that waits for other things as well; -1 before
// noteInterrupts().
int32_t interruptDescriptor();

}  // namespace qora::tools
