#include "client/changed_rectangles.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "client/codec_client.h"

namespace qora::client {
namespace {

using Map = std::vector<uint8_t>;

// Noise, or the pixels of another picture in rows of another length with noise behind them.
struct GeneratedPicture : Picture {
  GeneratedPicture(int32_t w, int32_t h, int32_t padding, std::mt19937& random,
                   const Picture* pixels = nullptr)
      : Picture{.plane = {}, .stride = {}, .width = w, .height = h} {
    for (int32_t p = 0; p < 3; ++p) {
      stride[p] = planeWidth(*this, p) + padding;
      bytes[p].resize(static_cast<size_t>(stride[p] * planeHeight(*this, p)));
      for (uint8_t& byte : bytes[p]) byte = static_cast<uint8_t>(random());
      plane[p] = bytes[p].data();
      for (int32_t y = 0; pixels != nullptr && y < planeHeight(*this, p); ++y) {
        std::copy_n(pixels->plane[p] + y * pixels->stride[p], planeWidth(*this, p),
                    plane[p] + y * stride[p]);
      }
    }
  }
  std::vector<uint8_t> bytes[3];
};

// Changes a few pixels of different macroblocks and returns the map of those.
Map changePixels(const Picture& picture, int32_t count, std::mt19937& random) {
  const int32_t columns = (picture.width + 15) / 16;
  Map map(static_cast<size_t>(columns * ((picture.height + 15) / 16)));
  for (; count > 0; --count) {
    const int32_t p = static_cast<int32_t>(random() % 3);
    const int32_t x = static_cast<int32_t>(random() >> 1) % planeWidth(picture, p);
    const int32_t y = static_cast<int32_t>(random() >> 1) % planeHeight(picture, p);
    const int32_t block = p == 0 ? 16 : 8;
    uint8_t& changed = map[static_cast<size_t>(y / block * columns + x / block)];
    if (changed == 0) picture.plane[p][y * picture.stride[p] + x] ^= 0x40;
    changed = 1;
  }
  return map;
}

// How often each macroblock is covered; fails for a rectangle that is not aligned and clipped.
Map coverage(const Picture& picture, const ChangedRectangles& changes) {
  Map covered(changes.map.size());
  for (const service::Rectangle& area : changes.list) {
    const int32_t right = area.x + area.width;
    const int32_t bottom = area.y + area.height;
    EXPECT_TRUE(area.width > 0 && area.height > 0 && area.x % 16 == 0 && area.y % 16 == 0);
    EXPECT_TRUE(right == picture.width || (right % 16 == 0 && right < picture.width));
    EXPECT_TRUE(bottom == picture.height || (bottom % 16 == 0 && bottom < picture.height));
    for (int32_t y = area.y; y < bottom; y += 16) {
      for (int32_t x = area.x; x < right; x += 16) {
        ++covered[static_cast<size_t>(y / 16 * ((picture.width + 15) / 16) + x / 16)];
      }
    }
  }
  return covered;
}

TEST(ChangedRectanglesTest, EqualAPixelModel) {
  std::mt19937 random(7);
  constexpr int32_t kSizes[][2] = {{1, 1}, {16, 16}, {17, 33}, {31, 8}, {250, 131}, {640, 360}};
  ChangedRectangles changes;
  for (int32_t round = 0; round < 300; ++round) {
    const auto [width, height] = kSizes[round % 6];
    const GeneratedPicture before(width, height, round % 7, random);
    const GeneratedPicture after(width, height, round % 5 * 9, random, &before);
    const Map model = changePixels(after, round % 10 == 0 ? 0 : 1 << random() % 12, random);
    const auto count = std::count(model.begin(), model.end(), 1);
    EXPECT_EQ(count, findChangedRectangles(before, after, maxRectangles(0), changes));
    ASSERT_EQ(model, changes.map);
    ASSERT_EQ(model, coverage(after, changes));
    const size_t exact = changes.list.size();
    for (const size_t limit : {1u, 2u, 3u, 20u}) {
      EXPECT_EQ(count, findChangedRectangles(before, after, static_cast<int32_t>(limit), changes));
      EXPECT_TRUE(changes.list.size() == exact || changes.list.size() <= limit);
      EXPECT_TRUE(exact > limit || changes.list.size() == exact);
      const Map covered = coverage(after, changes);
      for (size_t i = 0; i < model.size(); ++i) ASSERT_GE(covered[i], model[i]) << "lost";
    }
  }
}

TEST(ChangedRectanglesTest, MergesRunsAndEqualRows) {
  const std::pair<const char*, size_t> cases[] = {
      {"........", 0}, {".##.", 1},     {"#.##", 2},         {".##..##..##.", 1}, {".##..###", 2},
      {".##.####", 2}, {"#..##..#", 2}, {".##......##.", 2}, {"#...#.#.#...", 2}};
  for (const auto& [cells, rectangles] : cases) {
    CellMap map{.columns = 4, .rows = 0, .cellSize = 16, .changed = {}};
    for (const char* cell = cells; *cell != '\0'; ++cell) map.changed.push_back(*cell == '#');
    map.rows = static_cast<int32_t>(map.changed.size() / 4);
    std::vector<service::Rectangle> list;
    EXPECT_EQ(1, mergeCells(map, 64, 16 * map.rows, 4, list));
    EXPECT_EQ(rectangles, list.size()) << cells;
  }
}

TEST(ChangedRectanglesTest, WideComparisonEqualsThePlainOne) {
  std::mt19937 random(3);
  const Map a(200, 5);
  for (int32_t bytes = 0; bytes <= 100; ++bytes) {
    for (size_t start = 0; start < 17; ++start) {
      Map b = a;
      b[random() % 100] = b[random() % 200] = 200;
      for (const int32_t blockSize : {8, 16}) {
        Map wide(16, 0);
        wide[2] = 1;  // stays marked
        Map plain = wide;
        markDifferentBlocks(a.data() + start, b.data() + start, bytes, blockSize, wide.data());
        markDifferentBlocksPlain(a.data() + start, b.data() + start, bytes, blockSize,
                                 plain.data());
        ASSERT_EQ(plain, wide) << bytes << " bytes at " << start;
      }
    }
  }
}

}  // namespace
}  // namespace qora::client
