// SPDX-License-Identifier: BSD-2-Clause
#include "benchmarks/pairs.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <utility>

#include "qora/base/logger.h"
#include "qora/base/string.h"
#include "qora/client/changed_rectangles.h"
#include "qora/service/macroblock_maps.h"
#include "qora/service/region_copy.h"
#include "qora/service/wire/messages.h"
#include "tests/support/copied_rows.h"

namespace qora::bench {
namespace {

using service::MacroblockRange;
using service::Rectangle;

constexpr int32_t kWidth = 1920, kHeight = 1080;

// One row: both bodies get the same state, which lives as long as they.
template <typename State, typename Ours, typename Floor>
void add(std::vector<Pair>& pairs, const std::shared_ptr<State>& state, const char* what,
         const char* against, double limit, const Ours& ours, const Floor& floor) {
  pairs.push_back({what, against, limit, [=] { ours(*state); }, [=] { floor(*state); }});
}

struct Maps {
  static constexpr int32_t kColumns = (kWidth + 15) / 16, kRows = (kHeight + 15) / 16;
  std::vector<uint8_t> info = std::vector<uint8_t>(kColumns * kRows);
  std::vector<float> quantizer = std::vector<float>(kColumns * kRows);
  service::MacroblockMaps maps{kColumns, kRows, info.data(), quantizer.data()};
  std::vector<uint8_t> list, copy;  // of rectangles
};

void clearRange(const MacroblockRange& range, Maps& m) {
  for (int32_t row = 0; row < range.rows; ++row) {
    const auto cell = static_cast<size_t>(range.row + row) * Maps::kColumns + range.column;
    const auto count = static_cast<size_t>(range.columns);
    memset(&m.info[cell], 0, count);
    memset(static_cast<void*>(&m.quantizer[cell]), 0, count * sizeof(float));
  }
  keep(m.info[0]);
}

void addFills(std::vector<Pair>& pairs) {
  constexpr std::pair<const char*, MacroblockRange> kCases[] = {
      {"map fill, whole picture", {0, 0, Maps::kColumns, Maps::kRows}},
      {"map fill, a window of 60x34", {17, 11, 60, 34}},
      {"map fill, a line of text 40x2", {3, 5, 40, 2}},
      {"map fill, a letter 2x2", {7, 9, 2, 2}},
  };
  for (const auto& [what, cells] : kCases) {
    const MacroblockRange range = cells;
    const auto ours = [range](Maps& m) {
      service::fillRange(range, -1.0F, m.maps);
      keep(m.info[0]);
    };
    const auto maps = std::make_shared<Maps>();
    add(pairs, maps, what, "memset of the same cells", 1.5, ours,
        [range](Maps& m) { clearRange(range, m); });
    add(pairs, maps, what, "the plain twin", 0, ours, [range](Maps& m) {
      service::fillRangePlainly(range, -1.0F, m.maps);
      keep(m.info[0]);
    });
  }
}

void addLists(std::vector<Pair>& pairs) {
  auto maps = std::make_shared<Maps>();
  maps->list.resize(1000 * service::kRectangleSize);
  maps->copy = maps->list;
  std::minstd_rand random(1);
  for (size_t at = 0; at < maps->list.size(); at += service::kRectangleSize) {
    service::buildRectangle({0, static_cast<uint16_t>(random() % kWidth),
                             static_cast<uint16_t>(random() % kHeight), 32, 32},
                            &maps->list[at]);
  }
  add(
      pairs, maps, "1000 rectangles parsed, covered and filled", "memcpy of the same bytes", 0,
      [](Maps& m) {
        for (size_t at = 0; at < m.list.size(); at += service::kRectangleSize) {
          keep(service::applyRectangle(service::parseRectangle(&m.list[at]), 0, m.maps));
        }
      },
      [](Maps& m) {
        memcpy(m.copy.data(), m.list.data(), m.list.size());
        keep(m.copy[0]);
      });
}

// Two pictures as an encoder keeps them, luma above interleaved chroma, with a border.
struct Pictures {
  static constexpr int32_t kStride = kWidth + 64;
  std::vector<uint8_t> bytes[2] = {std::vector<uint8_t>(kStride * kHeight * 2, 1),
                                   std::vector<uint8_t>(kStride* kHeight * 2, 2)};
  service::PlanarView view(int32_t index) {
    uint8_t* const luma = bytes[index].data();
    return {{luma, luma + kStride * kHeight}, {kStride, kStride}};
  }
};

void addCopies(std::vector<Pair>& pairs) {
  constexpr std::pair<const char*, service::RegionCopy> kCases[] = {
      {"region copy, scrolled 1920x1064", {0, 0, 16, 0, 0, 1920, 1064}},
      {"region copy, dragged 800x600", {0, 300, 200, 310, 207, 800, 600}},
      {"region copy, 320x200", {0, 301, 200, 317, 208, 320, 200}},
  };
  for (const auto& [what, region] : kCases) {
    const service::RegionCopy copy = region;
    add(
        pairs, std::make_shared<Pictures>(), what, "memcpy of the same rows", 1.2,
        [copy](Pictures& p) {
          service::copyRegion(copy, p.view(0), p.view(1));
          keep(p.bytes[1][0]);
        },
        [copy](Pictures& p) {
          const auto from = p.view(0), to = p.view(1);
          test::forCopiedRows(copy, [&](int plane, int fromX, int fromY, int x, int y, int bytes) {
            memcpy(to.plane[plane] + y * Pictures::kStride + x,
                   from.plane[plane] + fromY * Pictures::kStride + fromX, bytes);
          });
          keep(p.bytes[1][0]);
        });
  }
}

// Every byte once, as fast as it can be read: what counting cannot be faster than.
uint64_t readMemory(const std::vector<uint8_t>& data) {
  using Block = uint64_t __attribute__((vector_size(16), aligned(1)));
  const auto* blocks = reinterpret_cast<const Block*>(data.data());
  Block sums[4] = {};
  for (size_t block = 0; block + 4 <= data.size() / sizeof(Block); block += 4) {
    for (size_t lane = 0; lane < 4; ++lane) sums[lane] |= blocks[block + lane];
  }
  const Block all = sums[0] | sums[1] | sums[2] | sums[3];
  return all[0] | all[1];
}

void addCounting(std::vector<Pair>& pairs) {
  using Text = std::vector<uint8_t>;
  auto text = std::make_shared<Text>(4 << 20, 'x');
  for (size_t at = 0; at < text->size(); at += 61) (*text)[at] = '\n';
  // The count's own log line is measured by itself.
  const auto ours = [](Text& t) {
    const int32_t mode = std::exchange(logger().mode, 0);
    keep(string::countSeparators(t.data(), static_cast<int32_t>(t.size()), '\n'));
    logger().mode = mode;
  };
  add(pairs, text, "countSeparators, 4 MiB", "std::count", 1.0, ours,
      [](Text& t) { keep(std::count(t.begin(), t.end(), uint8_t{'\n'})); });
  add(pairs, text, "countSeparators, 4 MiB", "reading the memory", 1.2, ours,
      [](Text& t) { keep(readMemory(t)); });
}

// Two desktop pictures, the second with `changed` of a thousand macroblocks different. memcmp stops
// at the first difference, so it gets two that have none.
struct Desktop {
  std::vector<uint8_t> bytes[3];
  client::ChangedRectangles changes;

  explicit Desktop(int32_t changed) {
    std::minstd_rand random(7);
    bytes[0].resize(static_cast<size_t>(kWidth) * kHeight * 3 / 2);
    for (uint8_t& byte : bytes[0]) byte = static_cast<uint8_t>(random() >> 8);
    bytes[1] = bytes[2] = bytes[0];
    for (int32_t y = 0; y < kHeight; y += 16) {
      for (int32_t x = 0; x < kWidth; x += 16) {
        if (static_cast<int32_t>(random() % 1000) >= changed) continue;
        for (int32_t row = y; row < std::min(y + 16, kHeight); ++row) {
          for (int32_t i = 0; i < 16; ++i) bytes[1][row * kWidth + x + i] ^= 0x55;
        }
      }
    }
  }
  client::Picture picture(int32_t index) {
    uint8_t* const luma = bytes[index].data();
    uint8_t* const chroma = luma + kWidth * kHeight;
    constexpr int32_t kHalf = kWidth / 2;
    return {{luma, chroma, chroma + kHalf * kHeight / 2}, {kWidth, kHalf, kHalf}, kWidth, kHeight};
  }
};

void addSearches(std::vector<Pair>& pairs) {
  const struct {
    const char* what;
    int32_t changed;
    double limit;
  } cases[] = {
      {"changed rectangles, nothing changed", 0, 1.3},
      {"changed rectangles, 0.1 % changed", 1, 1.3},
      {"changed rectangles, 1 % changed", 10, 0},
      {"changed rectangles, 10 % changed", 100, 0},
      {"changed rectangles, all changed", 1000, 0},
  };
  for (const auto& c : cases) {
    add(
        pairs, std::make_shared<Desktop>(c.changed), c.what, "memcmp of two equal pictures",
        c.limit,
        [](Desktop& d) {
          keep(client::findChangedRectangles(d.picture(0), d.picture(1), 80000, d.changes));
        },
        [](Desktop& d) { keep(memcmp(d.bytes[0].data(), d.bytes[2].data(), d.bytes[0].size())); });
  }
}

}  // namespace

std::vector<Pair> microPairs() {
  std::vector<Pair> pairs;
  for (const auto addSome : {addFills, addLists, addCopies, addCounting, addSearches}) {
    addSome(pairs);
  }
  return pairs;
}

}  // namespace qora::bench
