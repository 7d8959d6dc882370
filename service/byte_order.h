// service/byte_order.h -- Integers to and from bytes, in either byte order. Unaligned is fine.
//
// Order arguments: 0 is little-endian, any other value big-endian.
#pragma once

#include <cstdint>

namespace qora::service {

// The order that native loads and stores are taken to have; 0 from start. Process-wide.
void setHostByteOrder(int32_t order);
int32_t hostByteOrder();

uint16_t readUint16(const uint8_t* bytes, int32_t order);
uint32_t readUint32(const uint8_t* bytes, int32_t order);

// Unlike the readers, a writer that is asked for little-endian always stores natively, whatever
// the host flag says. The asymmetry is intended.
void writeUint16(uint16_t value, uint8_t* bytes, int32_t order);
void writeUint32(uint32_t value, uint8_t* bytes, int32_t order);

}  // namespace qora::service
