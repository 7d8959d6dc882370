#include "benchmarks/pairs.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <utility>

#include "qora/base/logger.h"
#include "qora/base/string.h"
#include "qora/client/changed_rectangles.h"
#include "qora/service/macroblock_maps.h"
#include "qora/service/region_copy.h"
#include "qora/service/wire/messages.h"

namespace qora::bench {
namespace {

using service::MacroblockMaps;
using service::MacroblockRange;
using service::Rectangle;

constexpr int32_t kWidth = 1920;
constexpr int32_t kHeight = 1080;

struct Maps {
  static constexpr int32_t kColumns = (kWidth + 15) / 16;
  static constexpr int32_t kRows = (kHeight + 15) / 16;
  std::vector<uint8_t> info = std::vector<uint8_t>(kColumns * kRows);
  std::vector<float> quantizer = std::vector<float>(kColumns * kRows);
  MacroblockMaps maps{kColumns, kRows, info.data(), quantizer.data()};
};

void clearRange(const MacroblockRange& range, MacroblockMaps& maps) {
  for (int32_t row = 0; row < range.rows; ++row) {
    const auto cell = static_cast<size_t>(range.row + row) * maps.columns + range.column;
    const auto count = static_cast<size_t>(range.columns);
    memset(maps.info + cell, 0, count);
    memset(static_cast<void*>(maps.quantizer + cell), 0, count * sizeof(float));
  }
}

void addFills(std::vector<Pair>& pairs) {
  const struct {
    const char* what;
    MacroblockRange range;
  } cases[] = {
      {"map fill, whole picture", {0, 0, Maps::kColumns, Maps::kRows}},
      {"map fill, a window of 60x34", {17, 11, 60, 34}},
      {"map fill, a line of text 40x2", {3, 5, 40, 2}},
      {"map fill, a letter 2x2", {7, 9, 2, 2}},
  };
  for (const auto& c : cases) {
    auto maps = std::make_shared<Maps>();
    const MacroblockRange range = c.range;
    const Body ours = [maps, range] {
      service::fillRange(range, -1.0F, maps->maps);
      keep(maps->info[0]);
    };
    pairs.push_back({c.what, "memset of the same cells", 1.5, ours, [maps, range] {
                       clearRange(range, maps->maps);
                       keep(maps->info[0]);
                     }});
    pairs.push_back({c.what, "the plain twin", 0, ours, [maps, range] {
                       service::fillRangePlainly(range, -1.0F, maps->maps);
                       keep(maps->info[0]);
                     }});
  }
}

struct RectangleList {
  std::vector<uint8_t> bytes, copy;
  explicit RectangleList(int32_t count)
      : bytes(static_cast<size_t>(count) * service::kRectangleSize), copy(bytes.size()) {
    std::minstd_rand random(1);
    for (size_t at = 0; at < bytes.size(); at += service::kRectangleSize) {
      const Rectangle rectangle = {0, static_cast<uint16_t>(random() % kWidth),
                                   static_cast<uint16_t>(random() % kHeight), 32, 32};
      service::buildRectangle(rectangle, &bytes[at]);
    }
  }
};

void addLists(std::vector<Pair>& pairs) {
  auto list = std::make_shared<RectangleList>(1000);
  auto maps = std::make_shared<Maps>();
  const Body copyList = [list] {
    memcpy(list->copy.data(), list->bytes.data(), list->bytes.size());
    keep(list->copy[0]);
  };
  pairs.push_back({"1000 rectangles parsed", "memcpy of the same bytes", 0,
                   [list] {
                     for (size_t at = 0; at < list->bytes.size(); at += service::kRectangleSize) {
                       keep(service::parseRectangle(&list->bytes[at]));
                     }
                   },
                   copyList});
  pairs.push_back({"1000 rectangles parsed and covered", "memcpy of the same bytes", 0,
                   [list, maps] {
                     for (size_t at = 0; at < list->bytes.size(); at += service::kRectangleSize) {
                       MacroblockRange range;
                       const Rectangle rectangle = service::parseRectangle(&list->bytes[at]);
                       keep(service::coverRectangle(rectangle, maps->maps, range));
                       keep(range);
                     }
                   },
                   copyList});
  pairs.push_back(
      {"1000 rectangles parsed, covered and filled", "memcpy of the same bytes", 0,
       [list, maps] {
         for (size_t at = 0; at < list->bytes.size(); at += service::kRectangleSize) {
           keep(service::applyRectangle(service::parseRectangle(&list->bytes[at]), 0, maps->maps));
         }
       },
       copyList});
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

void copyRows(const service::RegionCopy& copy, const service::PlanarView& from,
              const service::PlanarView& to) {
  for (int32_t plane = 0; plane < 2; ++plane) {
    const uint8_t* source =
        from.plane[plane] + (copy.sourceY >> plane) * from.stride[plane] + copy.sourceX;
    uint8_t* destination =
        to.plane[plane] + (copy.destinationY >> plane) * to.stride[plane] + copy.destinationX;
    for (int32_t row = 0; row < copy.height >> plane; ++row) {
      memcpy(destination, source, copy.width);
      source += from.stride[plane];
      destination += to.stride[plane];
    }
  }
}

void addCopies(std::vector<Pair>& pairs) {
  const struct {
    const char* what;
    service::RegionCopy copy;
  } cases[] = {
      {"region copy, scrolled 1920x1064", {0, 0, 16, 0, 0, 1920, 1064}},
      {"region copy, dragged 800x600", {0, 300, 200, 310, 207, 800, 600}},
      {"region copy, 320x200", {0, 301, 200, 317, 208, 320, 200}},
  };
  for (const auto& c : cases) {
    auto pictures = std::make_shared<Pictures>();
    const service::RegionCopy copy = c.copy;
    const size_t bytes = static_cast<size_t>(copy.width) * copy.height * 3 / 2;
    const Body ours = [pictures, copy] {
      service::copyRegion(copy, pictures->view(0), pictures->view(1));
      keep(pictures->bytes[1][0]);
    };
    pairs.push_back({c.what, "memcpy of the same rows", 1.2, ours, [pictures, copy] {
                       copyRows(copy, pictures->view(0), pictures->view(1));
                       keep(pictures->bytes[1][0]);
                     }});
    pairs.push_back({c.what, "one memcpy of as many bytes", 0, ours, [pictures, bytes] {
                       memcpy(pictures->bytes[1].data(), pictures->bytes[0].data(), bytes);
                       keep(pictures->bytes[1][0]);
                     }});
  }
}

// Every byte once, as fast as it can be read: what counting cannot be faster than.
uint64_t readAll(const uint8_t* data, size_t size) {
  using Block = uint64_t __attribute__((vector_size(16), aligned(1)));
  const auto* blocks = reinterpret_cast<const Block*>(data);
  Block sums[4] = {};
  for (size_t block = 0; block + 4 <= size / sizeof(Block); block += 4) {
    for (size_t lane = 0; lane < 4; ++lane) sums[lane] |= blocks[block + lane];
  }
  const Block all = sums[0] | sums[1] | sums[2] | sums[3];
  return all[0] | all[1];
}

void addCounting(std::vector<Pair>& pairs) {
  constexpr size_t kSize = 4 << 20;
  auto text = std::make_shared<std::vector<uint8_t>>(kSize, 'x');
  for (size_t at = 0; at < kSize; at += 61) (*text)[at] = '\n';
  // The count's own log line is measured by itself.
  const Body ours = [text] {
    const int32_t mode = std::exchange(logger().mode, 0);
    keep(string::countSeparators(text->data(), static_cast<int32_t>(kSize), '\n'));
    logger().mode = mode;
  };
  pairs.push_back({"countSeparators, 4 MiB", "std::count", 1.0, ours,
                   [text] { keep(std::count(text->begin(), text->end(), uint8_t{'\n'})); }});
  pairs.push_back({"countSeparators, 4 MiB", "reading the memory", 1.2, ours,
                   [text] { keep(readAll(text->data(), text->size())); }});
}

// Two desktop pictures, the second with `changed` of a thousand macroblocks different.
struct Desktop {
  std::vector<uint8_t> bytes[2];
  client::ChangedRectangles changes;

  explicit Desktop(int32_t changed) {
    std::minstd_rand random(7);
    bytes[0].resize(static_cast<size_t>(kWidth) * kHeight * 3 / 2);
    for (uint8_t& byte : bytes[0]) byte = static_cast<uint8_t>(random() >> 8);
    bytes[1] = bytes[0];
    for (int32_t y = 0; y < kHeight; y += 16) {
      for (int32_t x = 0; x < kWidth; x += 16) {
        if (static_cast<int32_t>(random() % 1000) >= changed) continue;
        for (int32_t row = y; row < std::min(y + 16, kHeight); ++row) {
          for (int32_t byte = 0; byte < 16; ++byte) {
            bytes[1][static_cast<size_t>(row) * kWidth + x + byte] ^= 0x55;
          }
        }
      }
    }
  }
  client::Picture picture(int32_t index) {
    uint8_t* const luma = bytes[index].data();
    uint8_t* const chroma = luma + kWidth * kHeight;
    return {{luma, chroma, chroma + kWidth * kHeight / 4},
            {kWidth, kWidth / 2, kWidth / 2},
            kWidth,
            kHeight};
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
  // memcmp stops at the first difference, so it gets two pictures that have none.
  auto equal = std::make_shared<Desktop>(0);
  for (const auto& c : cases) {
    auto desktop = std::make_shared<Desktop>(c.changed);
    pairs.push_back(
        {c.what, "memcmp of two equal pictures", c.limit,
         [desktop] {
           keep(client::findChangedRectangles(desktop->picture(0), desktop->picture(1), 80000,
                                              desktop->changes));
         },
         [equal] {
           keep(memcmp(equal->bytes[0].data(), equal->bytes[1].data(), equal->bytes[0].size()));
         }});
  }
}

void addMessages(std::vector<Pair>& pairs) {
  auto message = std::make_shared<std::array<uint8_t, service::kEncodeFixedSize>>();
  auto copy = std::make_shared<std::array<uint8_t, service::kEncodeFixedSize>>();
  const Body copyMessage = [message, copy] {
    memcpy(copy->data(), message->data(), message->size());
    keep((*copy)[0]);
  };
  pairs.push_back({"encode command parsed", "memcpy of its bytes", 0,
                   [message] { keep(service::parseEncodeRequest(message->data())); }, copyMessage});
  auto fields = std::make_shared<service::ReplyFields>(service::ReplyFields{1, 20, 4096, 77, 78});
  pairs.push_back({"reply head built", "memcpy of 44 bytes", 0,
                   [fields] { keep(service::buildReplyHead(*fields)); }, copyMessage});
}

void addLogLine(std::vector<Pair>& pairs) {
  auto nowhere = std::make_shared<std::ofstream>("/dev/null");
  auto file = std::shared_ptr<FILE>(fopen("/dev/null", "w"), fclose);
  pairs.push_back({"log line", "the same text by fprintf and fflush", 0,
                   [nowhere] {
                     std::ostream* const before = std::exchange(logger().log.stream, nowhere.get());
                     logStream() << "CodecFrame: WARNING! Skipping invalid rectangle [" << 1 << ","
                                 << 2 << "," << 3 << "," << 4 << "].\n";
                     logger().log.stream = before;
                   },
                   [file] {
                     fprintf(file.get(),
                             "%d %d %02d:%02d:%02d %07.3f CodecFrame: WARNING! Skipping invalid "
                             "rectangle [%d,%d,%d,%d].\n",
                             4711, 4711, 9, 5, 3, 12.345, 1, 2, 3, 4);
                     fflush(file.get());
                   }});
}

}  // namespace

std::vector<Pair> microPairs() {
  std::vector<Pair> pairs;
  addFills(pairs);
  addLists(pairs);
  addCopies(pairs);
  addCounting(pairs);
  addSearches(pairs);
  addMessages(pairs);
  addLogLine(pairs);
  return pairs;
}

}  // namespace qora::bench
