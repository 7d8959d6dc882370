// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/view/access_unit_splitter.h"

#include <algorithm>

namespace qora::tools {
namespace {

constexpr size_t kStartCode = 3;
constexpr int32_t kSlice = 1;
constexpr int32_t kKeySlice = 5;

int32_t unitType(uint8_t header) {
  return header & 31;
}
bool isSlice(int32_t type) {
  return type == kSlice || type == kKeySlice;
}
bool isStartCode(const uint8_t* bytes) {
  return bytes[0] == 0 && bytes[1] == 0 && bytes[2] == 1;
}

}  // namespace

void AccessUnitSplitter::feed(std::span<const uint8_t> bytes) {
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
}

// After a slice: parameter sets and the like, or a slice that begins at the first macroblock, whose
// number is coded as a single 1.
bool AccessUnitSplitter::beginsUnit(size_t header) const {
  const int32_t type = unitType(buffer_[header]);
  if (isSlice(type)) return (buffer_[header + 1] & 0x80) != 0;
  return (type >= 6 && type <= 9) || (type >= 14 && type <= 18);
}

int32_t AccessUnitSplitter::next(std::vector<uint8_t>& unit, bool isLast) {
  for (; searched_ + kStartCode + 1 < buffer_.size(); ++searched_) {
    if (!isStartCode(&buffer_[searched_])) continue;
    const size_t header = searched_ + kStartCode;
    if (hasSlice_ && beginsUnit(header)) {
      // The zero of a long start code belongs to what follows.
      take(buffer_[searched_ - 1] == 0 ? searched_ - 1 : searched_, unit);
      return 1;
    }
    hasSlice_ = hasSlice_ || isSlice(unitType(buffer_[header]));
  }
  if (!isLast || !hasSlice_) return 0;
  take(buffer_.size(), unit);
  return 1;
}

void AccessUnitSplitter::take(size_t size, std::vector<uint8_t>& unit) {
  const auto end = buffer_.begin() + static_cast<ptrdiff_t>(size);
  unit.assign(buffer_.begin(), end);
  buffer_.erase(buffer_.begin(), end);
  searched_ = 0;
  hasSlice_ = false;
}

bool AccessUnitSplitter::isKeyFrame(std::span<const uint8_t> unit) {
  for (size_t at = 0; at + kStartCode < unit.size(); ++at) {
    if (isStartCode(&unit[at]) && unitType(unit[at + kStartCode]) == kKeySlice) return true;
  }
  return false;
}

}  // namespace qora::tools
