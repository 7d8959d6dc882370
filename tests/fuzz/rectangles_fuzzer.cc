// tests/fuzz/rectangles_fuzzer.cc -- A list of rectangles into both maps, against a model that
// paints pixels. Both ways to fill a range are held against it.

#include "qora/service/macroblock_maps.h"
#include "tests/fuzz/fuzz.h"

namespace {

using namespace qora;
using fuzz::require;
using service::MacroblockMaps;
using service::MacroblockRange;
using service::Rectangle;

struct Maps {
  std::vector<uint8_t> info;
  std::vector<float> quantizer;
  MacroblockMaps view;
  Maps(int32_t columns, int32_t rows)
      : info(static_cast<size_t>(columns * rows + 1)),  // never a null pointer
        quantizer(info.size()),
        view{columns, rows, info.data(), quantizer.data()} {
    service::markAllUnchanged(view);
  }
  bool operator==(const Maps& other) const {
    return info == other.info && quantizer == other.quantizer;
  }
};

// First and last pixel of a side. An empty one that begins inside a macroblock counts as its pixel.
struct Side {
  int32_t first, last;
  Side(int32_t start, int32_t length)
      : first(start), last(start + (length == 0 && start % 16 != 0 ? 1 : length) - 1) {}
};

void paint(const Rectangle& rectangle, float value, Maps& maps) {
  const Side x(rectangle.x, rectangle.width);
  const Side y(rectangle.y, rectangle.height);
  for (int32_t row = y.first; row <= y.last && row < maps.view.rows * 16; ++row) {
    for (int32_t column = x.first; column <= x.last && column < maps.view.columns * 16; ++column) {
      const auto cell = static_cast<size_t>(row / 16 * maps.view.columns + column / 16);
      maps.info[cell] = 0;
      maps.quantizer[cell] = value;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  const uint8_t shape = in.byte();
  const int32_t bitrateMode = in.byte() & 1;
  Maps maps(shape & 7, shape >> 4 & 7);
  Maps plain(maps.view.columns, maps.view.rows);
  Maps model(maps.view.columns, maps.view.rows);
  for (int32_t count = 0; in.left() > 0 && count < 16; ++count) {
    const auto offset = static_cast<int8_t>(in.byte());
    // Mostly near the picture's edges; the wide values come from the high bits.
    const uint16_t x = in.word() & 0x81FF, y = in.word() & 0x81FF;
    const uint16_t width = in.word() & 0x81FF, height = in.word() & 0x81FF;
    const Rectangle rectangle = {offset, x, y, width, height};
    const float value = service::quantizerValue(offset, bitrateMode);
    require(value == static_cast<float>(offset + bitrateMode - 1), "the offset's value");
    MacroblockRange range;
    if (service::coverRectangle(rectangle, maps.view, range) == 1) {
      service::fillRange(range, value, maps.view);
      service::fillRangePlainly(range, value, plain.view);
    }
    paint(rectangle, value, model);
  }
  require(maps == model, "the maps are not what the pixels say");
  require(plain == model, "the plain way differs");
  return 0;
}
