// tests/fuzz/copies_fuzzer.cc -- Region copies between and inside small pictures, byte by byte
// against a model. Buffers end where the pictures do.

#include <algorithm>
#include <cstring>
#include <numeric>

#include "qora/service/region_copy.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/copied_rows.h"

namespace {

constexpr int kStride = 48;  // bytes of a row; the picture's rows fill it
constexpr int kRows = 32;

struct Picture {
  std::vector<uint8_t> plane[2] = {std::vector<uint8_t>(kStride * kRows),
                                   std::vector<uint8_t>(kStride* kRows / 2)};
  explicit Picture(uint8_t first) {
    for (auto& bytes : plane) std::iota(bytes.begin(), bytes.end(), first);
  }
  qora::service::PlanarView view() {
    return {{plane[0].data(), plane[1].data()}, {kStride, kStride}};
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qora::fuzz::Input in{data, size};
  Picture first(1), second(99);
  Picture model = (in.byte() & 1) != 0 ? first : second;
  Picture& to = (size > 0 && (data[0] & 1) != 0) ? first : second;
  Picture& modelFrom = &to == &first ? model : first;
  while (in.left > 0) {
    // Everything stays inside, with the two bytes and two rows that the flags may add.
    const uint16_t sourceX = in.byte() % (kStride - 4), sourceY = in.byte() % (kRows - 4);
    const uint16_t x = in.byte() % (kStride - 4), y = in.byte() % (kRows - 4);
    const uint16_t width = in.byte() % (kStride - 3 - std::max(sourceX, x));
    const uint16_t height = in.byte() % (kRows - 3 - std::max(sourceY, y));
    const qora::service::RegionCopy copy = {in.byte(), sourceX, sourceY, x, y, width, height};
    qora::service::copyRegion(copy, first.view(), to.view());
    qora::test::forCopiedRows(copy, [&](int p, int fromX, int fromY, int toX, int toY, int bytes) {
      std::memmove(&model.plane[p][toY * kStride + toX],
                   &modelFrom.plane[p][fromY * kStride + fromX], bytes);
    });
  }
  qora::fuzz::require(to.plane[0] == model.plane[0], "luma differs");
  qora::fuzz::require(to.plane[1] == model.plane[1], "chroma differs");
  return 0;
}
