// SPDX-License-Identifier: BSD-2-Clause
// tests/fuzz/copies_fuzzer.cc -- Region copies between and inside small pictures, byte by byte
// against a model. Buffers end where the pictures do.

#include <algorithm>
#include <cstring>
#include <numeric>

#include "qora/service/region_copy.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/copied_rows.h"

namespace {

using Picture = std::vector<uint8_t>;  // luma, then chroma
constexpr int kStride = 48;            // bytes of a row; the picture's rows fill it
constexpr int kRows = 32;

qora::service::PlanarView viewOf(Picture& picture) {
  return {{picture.data(), picture.data() + kStride * kRows}, {kStride, kStride}};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qora::fuzz::Input in{data, size};
  const bool inside = (in.byte() & 1) != 0;
  Picture first(kStride * kRows * 3 / 2), second(first);
  std::iota(first.begin(), first.end(), uint8_t{0});
  std::iota(second.begin(), second.end(), uint8_t{99});
  Picture& to = inside ? first : second;
  Picture model = to;
  while (in.left > 0) {
    // Everything stays inside, with the two bytes and two rows that the flags may add.
    const uint16_t sourceX = in.byte() % (kStride - 4), sourceY = in.byte() % (kRows - 4);
    const uint16_t x = in.byte() % (kStride - 4), y = in.byte() % (kRows - 4);
    const uint16_t width = in.byte() % (kStride - 3 - std::max(sourceX, x));
    const uint16_t height = in.byte() % (kRows - 3 - std::max(sourceY, y));
    const qora::service::RegionCopy copy = {in.byte(), sourceX, sourceY, x, y, width, height};
    qora::service::copyRegion(copy, viewOf(first), viewOf(to));
    const auto from = viewOf(inside ? model : first), target = viewOf(model);
    qora::test::forCopiedRows(copy, [&](int p, int fromX, int fromY, int toX, int toY, int bytes) {
      std::memmove(target.plane[p] + toY * kStride + toX, from.plane[p] + fromY * kStride + fromX,
                   bytes);
    });
  }
  qora::fuzz::require(to == model, "a copy differs");
  return 0;
}
