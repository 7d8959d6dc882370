#include "qora/client/damage.h"

#include <gtest/gtest.h>

#include <climits>
#include <random>

namespace qora::client {
namespace {

using Cells = std::vector<uint8_t>;

// The cells that a list covers, each once.
Cells covered(const std::vector<service::Rectangle>& list, const Damage& damage) {
  Cells cells(static_cast<size_t>(damage.columns() * damage.rows()));
  for (const auto& r : list) {
    EXPECT_TRUE(r.width > 0 && r.height > 0 && r.x + r.width <= damage.width() &&
                r.y + r.height <= damage.height());
    for (int32_t y = r.y; y < r.y + r.height; y += 16) {
      for (int32_t x = r.x; x < r.x + r.width; x += 16) {
        ++cells[static_cast<size_t>(y / 16 * damage.columns() + x / 16)];
      }
    }
  }
  return cells;
}

// Painted pixel by pixel.
void paint(const Area& area, const Damage& damage, Cells& cells) {
  for (int32_t y = 0; y < damage.height(); ++y) {
    for (int32_t x = 0; x < damage.width(); ++x) {
      const bool inside = x >= area.x && x < int64_t{area.x} + area.width && y >= area.y &&
                          y < int64_t{area.y} + area.height;
      if (inside) cells[static_cast<size_t>(y / 16 * damage.columns() + x / 16)] = 1;
    }
  }
}

TEST(DamageTest, IsWhatPaintedPixelsSay) {
  std::mt19937 random(1);
  const auto number = [&random](int32_t from, int32_t to) {
    constexpr int32_t kWide[] = {INT_MIN, INT_MAX, -1, 0, 1};
    if (random() % 12 == 0) return kWide[random() % 5];
    return std::uniform_int_distribution<int32_t>(from, to)(random);
  };
  for (const auto& [width, height] : {std::pair{1, 1}, {129, 40}, {1030, 33}, {1024, 16}, {0, 0}}) {
    Damage all(width, height), removed(width, height);
    all.addAll();
    EXPECT_EQ(all.columns() * all.rows(), all.count());
    EXPECT_EQ(all.count() == 0, all.isEmpty());
    for (int32_t round = 0; round < 40; ++round) {
      Damage damage(width, height), more(width, height);
      Cells cells(static_cast<size_t>(all.count())), others = cells;
      for (int32_t count = 0; count < 4; ++count) {
        const Area area = {number(-60, width), number(-60, height), number(0, 90), number(0, 40)};
        damage.add(area);
        paint(area, damage, cells);
        const Area other = {number(-60, width), number(-60, height), number(0, 300), number(0, 40)};
        more.add(other);
        paint(other, more, others);
      }
      std::vector<service::Rectangle> list;
      const int32_t listed = damage.list(list);
      EXPECT_EQ(static_cast<int32_t>(list.size()), listed);
      EXPECT_EQ(cells, covered(list, damage));

      Damage both = damage;
      both.add(more);
      damage.subtract(more);
      int32_t left = 0, united = 0, visited = 0;
      for (size_t cell = 0; cell < cells.size(); ++cell) {
        const auto column = static_cast<int32_t>(cell) % damage.columns();
        const auto row = static_cast<int32_t>(cell) / damage.columns();
        ASSERT_EQ(cells[cell] == 1 && others[cell] == 0, damage.test(column, row));
        ASSERT_EQ(cells[cell] == 1 || others[cell] == 1, both.test(column, row));
        left += damage.test(column, row) ? 1 : 0;
        united += both.test(column, row) ? 1 : 0;
      }
      EXPECT_EQ(left, damage.count());
      EXPECT_EQ(united, both.count());
      both.forEachRun([&](int32_t row, int32_t first, int32_t end) {
        visited += end - first;
        EXPECT_TRUE(first == 0 || !both.test(first - 1, row));
        EXPECT_TRUE(end == both.columns() || !both.test(end, row));
      });
      EXPECT_EQ(united, visited);
      both.clear();
      EXPECT_TRUE(both.isEmpty());
    }
  }
}

TEST(DamageTest, ListsAtMostWhatIsAllowed) {
  Damage damage(3840, 2160);
  for (int32_t row = 0; row < damage.rows(); ++row) {
    for (int32_t column = row % 2; column < damage.columns(); column += 2) damage.set(column, row);
  }
  std::vector<service::Rectangle> list;
  EXPECT_EQ(1, damage.list(list));  // a chessboard on cells of twice the size
  damage.subtract(damage);
  for (int32_t cell = 0; cell < damage.columns(); cell += 6) damage.set(cell, cell % damage.rows());
  for (const int32_t limit : {100, 40, 7, 2, 1}) {
    EXPECT_GE(limit, damage.list(list, limit));
    const Cells cells = covered(list, damage);
    damage.forEachCell([&](int32_t column, int32_t row) {
      EXPECT_EQ(1, cells[static_cast<size_t>(row * damage.columns() + column)]) << limit;
    });
  }
  EXPECT_EQ(-1, damage.list(list, 0));
  EXPECT_EQ(EINVAL, errno);
}

TEST(DamageTest, RefiningKeepsWhatDiffers) {
  constexpr int32_t kWidth = 1047, kHeight = 37;
  std::vector<uint8_t> samples[2] = {std::vector<uint8_t>(kWidth * kHeight * 2, 7), {}};
  samples[1] = samples[0];
  Picture pictures[2];
  for (int32_t i = 0; i < 2; ++i) {
    uint8_t* luma = samples[i].data();
    pictures[i] = {{luma, luma + kWidth * kHeight, luma + kWidth * kHeight * 3 / 2},
                   {kWidth, kWidth / 2 + 1, kWidth / 2 + 1},
                   kWidth,
                   kHeight};
  }
  std::mt19937 random(2);
  Damage expected(kWidth, kHeight), damage(kWidth, kHeight);
  for (int32_t change = 0; change < 60; ++change) {
    const int32_t plane = change % 3;
    const auto x =
        static_cast<int32_t>(random() % static_cast<uint32_t>(planeWidth(pictures[0], plane)));
    const auto y =
        static_cast<int32_t>(random() % static_cast<uint32_t>(planeHeight(pictures[0], plane)));
    pictures[1].plane[plane][y * pictures[1].stride[plane] + x] = 9;
    const int32_t column = x / (plane == 0 ? 16 : 8), row = y / (plane == 0 ? 16 : 8);
    if (change % 4 == 0) damage.add({column * 16 - 20, row * 16 + 2, 40, 9});
    expected.set(column, row);
  }
  Damage unseen = expected;
  unseen.subtract(damage);
  expected.subtract(unseen);
  EXPECT_EQ(expected.count(), damage.refine(pictures[0], pictures[1]));
  expected.subtract(damage);
  EXPECT_TRUE(expected.isEmpty());
  EXPECT_EQ(0, damage.refine(pictures[0], pictures[0]));
}

}  // namespace
}  // namespace qora::client
