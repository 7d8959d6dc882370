// SPDX-License-Identifier: BSD-2-Clause
// qora/client/picture.h -- An I420 picture in memory that somebody else owns.
#pragma once

#include <cstdint>

namespace qora::client {

// Planes are Y, U, V; the chroma planes have half the width and height, rounded up.
struct Picture {
  uint8_t* plane[3];
  int32_t stride[3];  // bytes from one row to the next
  int32_t width;      // pixels
  int32_t height;
};

inline constexpr int32_t planeWidth(const Picture& picture, int32_t plane) {
  return plane == 0 ? picture.width : (picture.width + 1) / 2;
}
inline constexpr int32_t planeHeight(const Picture& picture, int32_t plane) {
  return plane == 0 ? picture.height : (picture.height + 1) / 2;
}

}  // namespace qora::client
