// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/damage.h"

#include <gtest/gtest.h>

#include <climits>
#include <random>

namespace qora::client {
namespace {

// Painted pixel by pixel.
void paint(const Area& area, Damage& cells) {
  for (int64_t y = 0; y < cells.height(); ++y)
    for (int64_t x = 0; x < cells.width(); ++x)
      if (x >= area.x && x < int64_t{area.x} + area.width && y >= area.y &&
          y < int64_t{area.y} + area.height)
        cells.set(static_cast<int32_t>(x / 16), static_cast<int32_t>(y / 16));
}
// The cells that a list covers, each once and nothing outside.
Damage listed(const Damage& damage, int32_t limit) {
  Damage cells(damage.width(), damage.height());
  std::vector<service::Rectangle> list;
  EXPECT_GE(limit, damage.list(list, limit));
  for (const auto& r : list) {
    EXPECT_TRUE(r.x + r.width <= damage.width() && r.y + r.height <= damage.height());
    const int32_t before = cells.count();
    cells.add({r.x, r.y, r.width, r.height});
    EXPECT_EQ(before + (r.width + 15) / 16 * ((r.height + 15) / 16), cells.count());
  }
  return cells;
}
bool equal(Damage a, const Damage& b) {
  const int32_t count = a.count();
  a.subtract(b);
  return a.isEmpty() && count == b.count();
}

TEST(DamageTest, IsWhatPaintedPixelsSay) {
  std::mt19937 random(1);
  const auto number = [&random](int32_t from, int32_t to) {
    constexpr int32_t kWide[] = {INT_MIN, INT_MAX, -1, 0, 1};
    if (random() % 12 == 0) return kWide[random() % 5];
    return std::uniform_int_distribution<int32_t>(from, to)(random);
  };
  for (const auto& [width, height] : {std::pair{1, 1}, {129, 40}, {1030, 33}, {1024, 16}, {0, 0}}) {
    Damage all(width, height);
    all.addAll();
    EXPECT_EQ(all.columns() * all.rows(), all.count());
    for (int32_t round = 0; round < 40; ++round) {
      Damage damage[2], painted[2];
      for (int32_t i = 0; i < 8; ++i) {
        if (i < 2) damage[i] = painted[i] = Damage(width, height);
        const Area area = {number(-60, width), number(-60, height), number(0, 90), number(0, 40)};
        damage[i % 2].add(area);
        paint(area, painted[i % 2]);
      }
      ASSERT_TRUE(equal(painted[0], damage[0]) && equal(damage[0], listed(damage[0], INT_MAX)));
      Damage both = damage[0], common = damage[0], left = damage[0];
      both.add(damage[1]);
      common.intersect(damage[1]);
      left.subtract(damage[1]);
      int32_t visited = 0;
      both.forEachRun([&](int32_t row, int32_t first, int32_t end) {
        for (int32_t column = first; column < end; ++column, ++visited) {
          const bool one = damage[0].test(column, row), other = damage[1].test(column, row);
          ASSERT_TRUE(one || other);
          ASSERT_TRUE(common.test(column, row) == (one && other));
          ASSERT_TRUE(left.test(column, row) == (one && !other));
        }
      });
      EXPECT_EQ(damage[1].count() + left.count(), visited);
      EXPECT_EQ(both.count(), visited);
    }
  }
}

TEST(DamageTest, ListsAtMostWhatIsAllowed) {
  Damage damage(3840, 2160);
  for (int32_t cell = 0; cell < 240 * 135; ++cell) {
    if ((cell / 240 + cell) % 2 == 0) damage.set(cell % 240, cell / 240);
  }
  std::vector<service::Rectangle> list;
  EXPECT_EQ(1, damage.list(list));  // a chessboard on cells of twice the size
  damage.clear();
  for (int32_t cell = 0; cell < 240; cell += 6) damage.set(cell, cell % damage.rows());
  for (const int32_t limit : {100, 40, 7, 2, 1}) {
    Damage left = damage;
    left.subtract(listed(damage, limit));
    EXPECT_TRUE(left.isEmpty()) << limit;
  }
  EXPECT_EQ(-1, damage.list(list, 0));
  EXPECT_EQ(EINVAL, errno);
}

TEST(DamageTest, RefiningKeepsWhatDiffers) {
  constexpr int32_t kWidth = 1047, kHeight = 37;
  std::vector<uint8_t> samples[2];
  Picture pictures[2];
  for (int32_t i = 0; i < 2; ++i) {
    samples[i].assign(kWidth * kHeight * 2, 7);
    uint8_t* luma = samples[i].data();
    pictures[i] = {{luma, luma + kWidth * kHeight, luma + kWidth * kHeight * 3 / 2},
                   {kWidth, kWidth / 2 + 1, kWidth / 2 + 1},
                   kWidth,
                   kHeight};
  }
  Damage changed(kWidth, kHeight), damage(kWidth, kHeight);
  for (uint32_t change = 1; change < 60; ++change) {
    const int32_t plane = change % 3, side = plane == 0 ? 16 : 8;
    const auto x = static_cast<int32_t>(change * 7919) % planeWidth(pictures[0], plane);
    const auto y = static_cast<int32_t>(change * 104729) % planeHeight(pictures[0], plane);
    pictures[1].plane[plane][y * pictures[1].stride[plane] + x] = 9;
    if (change % 4 == 0) damage.add({x / side * 16 - 20, y / side * 16 + 2, 40, 9});
    changed.set(x / side, y / side);
  }
  changed.intersect(damage);
  EXPECT_EQ(changed.count(), damage.refine(pictures[0], pictures[1]));
  EXPECT_TRUE(equal(changed, damage));
}

}  // namespace
}  // namespace qora::client
