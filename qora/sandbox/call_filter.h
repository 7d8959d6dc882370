// SPDX-License-Identifier: BSD-2-Clause
// qora/sandbox/call_filter.h -- The system calls that the service needs, as a filter of the kernel.
//
// Everything else ends the process by SIGSYS at once: a refused call means that something is wrong,
// and a parent that sees the signal knows it. docs/sandbox.md lists the calls with their reasons.
#pragma once

#include <cstdint>

namespace qora::sandbox {

// The one program start that is allowed: execve with these very pointers.
struct ProgramStart {
  const char* path;
  char* const* arguments;    // null at the end
  char* const* environment;  // null at the end
};

// Puts the filter on this process and on all that it becomes; there is no way back. No privileges
// can be gained from then on either. 1, or -1 with errno. One thread, before any other is started.
[[nodiscard]] int32_t installCallFilter(const ProgramStart& start);

}  // namespace qora::sandbox
