// SPDX-License-Identifier: BSD-2-Clause
// qora/client/shared_segment.h -- A System V segment that nobody has to clean up.
//
// It is marked for removal before create() returns: the kernel keeps it for as long as anybody has
// it attached, lets the service attach it all the same, and frees it when both sides have let go or
// died, however that comes.
#pragma once

#include <cstdint>
#include <utility>

namespace qora::client {

class SharedSegment {
 public:
  SharedSegment() = default;
  ~SharedSegment() { remove(); }
  SharedSegment(SharedSegment&& other) noexcept { swap(other); }
  SharedSegment& operator=(SharedSegment&& other) noexcept {
    swap(other);
    return *this;
  }

  // Makes one, zero-filled, and attaches it; an earlier one is removed. 1, or -1 with errno:
  // EOVERFLOW above 4 GiB, whose offsets the commands cannot name, or the system's.
  [[nodiscard]] int32_t create(uint64_t bytes);
  // Lets go of the memory. The service keeps what it has attached.
  void remove();

  int32_t id() const { return id_; }             // -1: none
  uint8_t* address() const { return address_; }  // null: none

 private:
  void swap(SharedSegment& other) noexcept {
    std::swap(id_, other.id_);
    std::swap(address_, other.address_);
  }

  int32_t id_ = -1;
  uint8_t* address_ = nullptr;
};

}  // namespace qora::client
