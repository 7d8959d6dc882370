// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/view/access_unit_splitter.h -- A byte stream of H.264 (Annex B) cut into access units.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace qora::tools {

class AccessUnitSplitter {
 public:
  void feed(std::span<const uint8_t> bytes);

  // The next whole one: 1, or 0 when more is needed. One is known to be whole when the next begins;
  // `isLast`: what is there is all of it.
  int32_t next(std::vector<uint8_t>& unit, bool isLast);

  // Whether a unit is a key frame.
  static bool isKeyFrame(std::span<const uint8_t> unit);

 private:
  bool beginsUnit(size_t header) const;
  void take(size_t size, std::vector<uint8_t>& unit);

  std::vector<uint8_t> buffer_;
  size_t searched_ = 0;    // bytes in which all start codes were seen
  bool hasSlice_ = false;  // among them
};

}  // namespace qora::tools
