// qora/base/keep_errno.h -- errno outlives a log line or a clean-up.
#pragma once

#include <cerrno>

namespace qora {

// Gives errno back at the end of its scope the value that it had at the beginning.
struct KeepErrno {
  const int value = errno;
  KeepErrno() = default;
  KeepErrno(const KeepErrno&) = delete;
  KeepErrno& operator=(const KeepErrno&) = delete;
  ~KeepErrno() { errno = value; }
};

}  // namespace qora
