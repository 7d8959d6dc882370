// SPDX-License-Identifier: BSD-2-Clause
#include "qora/encoder/stream.h"

namespace qora::encoder {

int32_t& bitrateMode() {
  static int32_t mode = 0;
  return mode;
}

}  // namespace qora::encoder
