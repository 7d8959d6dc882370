// SPDX-License-Identifier: BSD-2-Clause
// qora/base/descriptor.h -- A file descriptor that is closed with its owner.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <utility>

#include "qora/base/keep_errno.h"

namespace qora {

class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int32_t fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    reset(std::exchange(other.fd_, -1));
    return *this;
  }
  ~Descriptor() { reset(); }

  int32_t get() const { return fd_; }  // -1: none
  void reset(int32_t fd = -1) {
    const KeepErrno keep;
    if (fd_ != -1) ::close(fd_);
    fd_ = fd;
  }

 private:
  int32_t fd_ = -1;
};

}  // namespace qora
