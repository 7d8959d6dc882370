// tests/fuzz/copies_fuzzer.cc -- Region copies between and inside small pictures, byte by byte
// against a model. Buffers end where the pictures do.

#include "qora/service/region_copy.h"
#include "tests/fuzz/fuzz.h"

namespace {

using namespace qora;

constexpr int32_t kStride = 48;  // bytes of a row; the picture's rows fill it
constexpr int32_t kRows = 32;

struct Picture {
  std::vector<uint8_t> plane[2] = {std::vector<uint8_t>(kStride * kRows),
                                   std::vector<uint8_t>(kStride* kRows / 2)};
  service::PlanarView view() { return {{plane[0].data(), plane[1].data()}, {kStride, kStride}}; }
};

Picture makePattern() {
  Picture picture;
  for (auto& plane : picture.plane) {
    for (uint8_t& sample : plane) sample = static_cast<uint8_t>((&sample - plane.data()) * 7);
  }
  return picture;
}

// One plane's part: every row is taken whole before it is put down.
void copyPart(const std::vector<uint8_t>& from, int32_t fromX, int32_t fromY,
              std::vector<uint8_t>& to, int32_t toX, int32_t toY, int32_t bytes, int32_t rows) {
  for (int32_t row = 0; row < rows; ++row) {
    const auto start = from.begin() + (fromY + row) * kStride + fromX;
    const std::vector<uint8_t> taken(start, start + bytes);
    for (int32_t i = 0; i < bytes; ++i) {
      to[static_cast<size_t>((toY + row) * kStride + toX + i)] = taken[static_cast<size_t>(i)];
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  const bool samePicture = (in.byte() & 1) != 0;
  static const Picture pattern = makePattern();
  Picture first = pattern, second = pattern;
  second.plane[0].swap(second.plane[1]);
  second.plane[0].resize(first.plane[0].size());
  second.plane[1].resize(first.plane[1].size());
  Picture model = samePicture ? first : second;
  Picture& to = samePicture ? first : second;
  for (int32_t count = 0; in.left() > 0 && count < 8; ++count) {
    // Everything stays inside, with the two bytes and two rows that the flags may add.
    const uint16_t sourceX = in.byte() % (kStride - 4), sourceY = in.byte() % (kRows - 4);
    const uint16_t x = in.byte() % (kStride - 4), y = in.byte() % (kRows - 4);
    const uint16_t width = in.byte() % (kStride - 3 - std::max(sourceX, x));
    const uint16_t height = in.byte() % (kRows - 3 - std::max(sourceY, y));
    const uint8_t flags = in.byte();
    service::copyRegion({flags, sourceX, sourceY, x, y, width, height}, first.view(), to.view());

    const Picture& from = samePicture ? model : first;
    copyPart(from.plane[0], sourceX, sourceY, model.plane[0], x, y, width, height);
    copyPart(from.plane[1], (sourceX + ((flags & 4) != 0 ? 2 : 0)) / 2 * 2,
             (sourceY + ((flags & 2) != 0 ? 2 : 0)) / 2, model.plane[1], x / 2 * 2, y / 2,
             (width + 1) / 2 * 2, height / 2);
  }
  fuzz::require(to.plane[0] == model.plane[0], "luma differs");
  fuzz::require(to.plane[1] == model.plane[1], "chroma differs");
  return 0;
}
