// tests/fuzz/changes_fuzzer.cc -- Two pictures -> rectangles: every changed pixel lies in one of
// them, and while the exact list is short enough no macroblock is listed twice or without a change.

#include "qora/client/changed_rectangles.h"

#include "tests/fuzz/fuzz.h"

namespace {

using namespace qora;

struct Picture {
  std::vector<uint8_t> samples;
  client::Picture view;
  Picture(int32_t width, int32_t height) : view{{}, {width, width, width}, width, height} {
    const int32_t luma = width * height;
    const int32_t chroma = width * ((height + 1) / 2);
    samples.resize(static_cast<size_t>(luma + 2 * chroma));
    view.plane[0] = samples.data();
    view.plane[1] = samples.data() + luma;
    view.plane[2] = samples.data() + luma + chroma;
  }
  Picture(const Picture&) = delete;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  const int32_t width = 2 + in.byte() % 56;
  const int32_t height = 2 + in.byte() % 40;
  const int32_t limit = 1 + in.byte() % 24;
  const Picture before(width, height);
  Picture after(width, height);
  const int32_t columns = (width + 15) / 16;
  std::vector<uint8_t> expected(static_cast<size_t>(columns * ((height + 15) / 16)));
  int32_t macroblocks = 0;
  while (in.left() > 0) {
    const int32_t plane = in.byte() % 3;
    const int32_t x = in.byte() % client::planeWidth(after.view, plane);
    const int32_t y = in.byte() % client::planeHeight(after.view, plane);
    after.view.plane[plane][y * after.view.stride[plane] + x] ^= 0x40 | in.byte();
    const int32_t side = plane == 0 ? 16 : 8;
    // A sample that is changed back is no change; count at the end.
    expected[static_cast<size_t>(y / side * columns + x / side)] = 2;
  }
  for (int32_t plane = 0; plane < 3; ++plane) {
    const int32_t side = plane == 0 ? 16 : 8;
    for (int32_t y = 0; y < client::planeHeight(after.view, plane); ++y) {
      for (int32_t x = 0; x < client::planeWidth(after.view, plane); ++x) {
        uint8_t& cell = expected[static_cast<size_t>(y / side * columns + x / side)];
        if (cell != 2 || after.view.plane[plane][y * after.view.stride[plane] + x] == 0) continue;
        cell = 1;
        ++macroblocks;
      }
    }
  }
  for (uint8_t& cell : expected) cell = cell == 1 ? 1 : 0;

  client::ChangedRectangles changes;
  const int32_t found = client::findChangedRectangles(before.view, after.view, limit, changes);
  fuzz::require(found == macroblocks && changes.map == expected, "the map of changes");
  fuzz::require(static_cast<int32_t>(changes.list.size()) <= limit, "more rectangles than allowed");
  std::vector<uint8_t> covered(expected.size());
  bool aligned = true;
  for (const service::Rectangle& rectangle : changes.list) {
    fuzz::require(rectangle.width > 0 && rectangle.height > 0 &&
                      rectangle.x + rectangle.width <= width &&
                      rectangle.y + rectangle.height <= height,
                  "a rectangle that is empty or outside");
    aligned = aligned && rectangle.x % 16 == 0 && rectangle.y % 16 == 0;
    for (int32_t y = rectangle.y; y < rectangle.y + rectangle.height; y += 16) {
      for (int32_t x = rectangle.x; x < rectangle.x + rectangle.width; x += 16) {
        ++covered[static_cast<size_t>(y / 16 * columns + x / 16)];
      }
    }
  }
  fuzz::require(aligned, "a rectangle that begins inside a macroblock");
  for (size_t cell = 0; cell < covered.size(); ++cell) {
    fuzz::require(covered[cell] <= 1, "a macroblock is listed twice");
    fuzz::require(expected[cell] == 0 || covered[cell] == 1, "a change is not listed");
  }
  return 0;
}
