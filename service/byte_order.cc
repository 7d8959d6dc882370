#include "service/byte_order.h"

#include <cstring>

namespace qora::service {
namespace {

int32_t hostOrder = 0;

template <typename Value>
Value readValue(const uint8_t* bytes, int32_t order) {
  Value value = 0;
  if (order == hostOrder) {
    memcpy(&value, bytes, sizeof value);
    return value;
  }
  for (size_t i = 0; i < sizeof value; ++i) {
    const size_t place = order != 0 ? sizeof value - 1 - i : i;
    value = static_cast<Value>(value | static_cast<Value>(bytes[i]) << (8 * place));
  }
  return value;
}

uint16_t swapped(uint16_t value) {
  return __builtin_bswap16(value);
}
uint32_t swapped(uint32_t value) {
  return __builtin_bswap32(value);
}

template <typename Value>
void writeValue(Value value, uint8_t* bytes, int32_t order) {
  if (order != hostOrder && order != 0) value = swapped(value);
  memcpy(bytes, &value, sizeof value);
}

}  // namespace

void setHostByteOrder(int32_t order) {
  hostOrder = order;
}
int32_t hostByteOrder() {
  return hostOrder;
}

uint16_t readUint16(const uint8_t* bytes, int32_t order) {
  return readValue<uint16_t>(bytes, order);
}

uint32_t readUint32(const uint8_t* bytes, int32_t order) {
  return readValue<uint32_t>(bytes, order);
}

void writeUint16(uint16_t value, uint8_t* bytes, int32_t order) {
  writeValue(value, bytes, order);
}

void writeUint32(uint32_t value, uint8_t* bytes, int32_t order) {
  writeValue(value, bytes, order);
}

}  // namespace qora::service
