// SPDX-License-Identifier: BSD-2-Clause
// qora/service/wire/byte_order.h -- Integers to and from bytes, in either byte order. Unaligned is
// fine.
//
// Order arguments: 0 is little-endian, any other value big-endian. A rectangle list is thousands of
// these calls, so what happens on every machine of today is inline.
#pragma once

#include <cstdint>
#include <cstring>

namespace qora::service {

namespace detail {

extern int32_t hostOrder;

uint16_t readBytewise16(const uint8_t* bytes, int32_t order);
uint32_t readBytewise32(const uint8_t* bytes, int32_t order);

}  // namespace detail

// The order that native loads and stores are taken to have; 0 from start. Process-wide.
void setHostByteOrder(int32_t order);
inline int32_t hostByteOrder() {
  return detail::hostOrder;
}

inline uint16_t readUint16(const uint8_t* bytes, int32_t order) {
  if (order != hostByteOrder()) return detail::readBytewise16(bytes, order);
  uint16_t value;
  memcpy(&value, bytes, sizeof value);
  return value;
}

inline uint32_t readUint32(const uint8_t* bytes, int32_t order) {
  if (order != hostByteOrder()) return detail::readBytewise32(bytes, order);
  uint32_t value;
  memcpy(&value, bytes, sizeof value);
  return value;
}

// Unlike the readers, a writer that is asked for little-endian always stores natively, whatever the
// host flag says. Kept: who sets the flag to big-endian gets native stores for order 0.
inline void writeUint16(uint16_t value, uint8_t* bytes, int32_t order) {
  if (order != hostByteOrder() && order != 0) value = __builtin_bswap16(value);
  memcpy(bytes, &value, sizeof value);
}

inline void writeUint32(uint32_t value, uint8_t* bytes, int32_t order) {
  if (order != hostByteOrder() && order != 0) value = __builtin_bswap32(value);
  memcpy(bytes, &value, sizeof value);
}

}  // namespace qora::service
