// SPDX-License-Identifier: BSD-2-Clause
// qora/base/keep_errno.h -- errno outlives a log line or a clean-up.
#pragma once

#include <cerrno>
#include <cstdint>

namespace qora {

// Gives errno back at the end of its scope the value that it had at the beginning.
struct KeepErrno {
  const int value = errno;
  KeepErrno() = default;
  KeepErrno(const KeepErrno&) = delete;
  KeepErrno& operator=(const KeepErrno&) = delete;
  ~KeepErrno() { errno = value; }
};

// Returns what `operation` does. errno stays as it was unless that is -1.
template <typename Operation>
int32_t keepErrnoUnlessFailed(Operation operation) {
  const int error = errno;
  const int32_t result = operation();
  if (result != -1) errno = error;
  return result;
}

}  // namespace qora
