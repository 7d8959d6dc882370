// SPDX-License-Identifier: BSD-2-Clause
// tests/fuzz/rectangles_fuzzer.cc -- A list of rectangles into both maps, against a model that asks
// of each macroblock whether a rectangle touches it.

#include "qora/service/macroblock_maps.h"
#include "tests/fuzz/fuzz.h"

namespace {

// Whether the side of a rectangle touches that of a cell. An empty side that begins inside a
// macroblock counts as one pixel.
bool touches(int start, int length, int cell) {
  const int end = start + (length == 0 && start % 16 != 0 ? 1 : length);
  return start < cell * 16 + 16 && end > cell * 16;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qora::fuzz::Input in{data, size};
  const int shape = in.byte(), mode = in.byte() & 1;
  const int columns = shape & 7, rows = shape >> 4 & 7, cells = columns * rows;
  std::vector<uint8_t> info(cells + 1), expectedInfo(cells + 1, 1);  // never a null pointer
  std::vector<float> quantizer(cells + 1), expectedQuantizer(cells + 1);
  qora::service::MacroblockMaps maps = {columns, rows, info.data(), quantizer.data()};
  info[cells] = 1;
  qora::service::markAllUnchanged(maps);
  while (in.left > 0) {
    const auto offset = static_cast<int8_t>(in.byte());
    uint16_t side[4];  // mostly near the picture's edges; the wide values come from the high bit
    for (uint16_t& value : side) value = in.byte() | (in.byte() & 0x81) << 8;
    const auto [x, y, width, height] = side;
    qora::service::applyRectangle({offset, x, y, width, height}, mode, maps);
    for (int cell = 0; cell < cells; ++cell) {
      if (!touches(x, width, cell % columns) || !touches(y, height, cell / columns)) {
        continue;
      }
      expectedInfo[cell] = 0;
      expectedQuantizer[cell] = static_cast<float>(offset + mode - 1);
    }
  }
  qora::fuzz::require(info == expectedInfo && quantizer == expectedQuantizer, "the maps differ");
  return 0;
}
