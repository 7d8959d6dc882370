// SPDX-License-Identifier: BSD-2-Clause
#include "qora/service/wire/byte_order.h"

namespace qora::service {
namespace {

template <typename Value>
Value readBytewise(const uint8_t* bytes, int32_t order) {
  Value value = 0;
  for (size_t i = 0; i < sizeof value; ++i) {
    const size_t place = order != 0 ? sizeof value - 1 - i : i;
    value = static_cast<Value>(value | static_cast<Value>(bytes[i]) << (8 * place));
  }
  return value;
}

}  // namespace

namespace detail {

int32_t hostOrder = 0;

uint16_t readBytewise16(const uint8_t* bytes, int32_t order) {
  return readBytewise<uint16_t>(bytes, order);
}

uint32_t readBytewise32(const uint8_t* bytes, int32_t order) {
  return readBytewise<uint32_t>(bytes, order);
}

}  // namespace detail

void setHostByteOrder(int32_t order) {
  detail::hostOrder = order;
}

}  // namespace qora::service
