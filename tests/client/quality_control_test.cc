// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/quality_control.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <set>
#include <vector>

#include "qora/client/cell_features.h"
#include "qora/client/motion_guess.h"

namespace qora::client {
namespace {

using std::chrono::milliseconds;

// An I420 picture of boxes of 4x4 pixels, about as dear as text, and another one a seed.
struct Screen {
  Screen(int32_t w, int32_t h) : width(w), height(h), bytes(static_cast<size_t>(w * h * 2), 128) {}
  Picture picture() {
    uint8_t* luma = bytes.data();
    uint8_t* u = luma + width * height;
    const int32_t stride = (width + 1) / 2;
    return {{luma, u, u + stride * (height + 1) / 2}, {width, stride, stride}, width, height};
  }
  void draw(const Area& area, uint32_t seed, int32_t down = 0) {
    for (int32_t y = area.y; y < area.y + area.height; ++y) {
      for (int32_t x = area.x; x < area.x + area.width; ++x) {
        const uint32_t box = static_cast<uint32_t>(x / 4 + (y + down) / 4 * 977) + seed * 7919;
        const uint32_t mixed = (box ^ box >> 7) * 2654435761U;
        bytes[static_cast<size_t>(y * width + x)] = mixed >> 30 == 0 ? 200 : 30;
      }
    }
  }
  int32_t width, height;
  std::vector<uint8_t> bytes;
};

constexpr Area kAll = {0, 0, 640, 384};
constexpr int32_t kCells = 40 * 24;
constexpr int32_t kUnlisted = -128;

// A control with an encoder whose cells take 55 bytes at offset 8 and half of that 14 offsets on. A
// tick takes 40 milliseconds.
struct Loop {
  explicit Loop(int64_t rate, Area size = kAll)
      : screen(size.width, size.height), damage(size.width, size.height) {
    control.reset(size.width, size.height);
    control.setRate(rate);
    listed.assign(static_cast<size_t>(damage.columns() * damage.rows()), 0);
  }
  // Draws and plans; true when a frame was sent.
  bool tick(const std::vector<Area>& areas = {}, bool keyFrame = false) {
    now += milliseconds(40);
    Screen last = screen;
    const Picture before = last.picture();
    for (const Area& area : areas) {
      screen.draw(area, ++drawn);
      damage.add(area);
    }
    control.plan(now, damage, screen.picture(), isBeforeKnown ? &before : nullptr, copies, keyFrame,
                 plan);
    if (plan.step != QualityStep::encode) return false;
    damage.clear();
    offsets.clear();
    double size = 12;
    int32_t keeping = plan.keeping;
    for (const service::Rectangle& rectangle : plan.rectangles) {
      Damage cells(damage.width(), damage.height());
      cells.add({rectangle.x, rectangle.y, rectangle.width, rectangle.height});
      if (--keeping < 0) {
        offsets.insert(rectangle.quantizerOffset);
        size += cells.count() * 55 * std::exp2((8 - rectangle.quantizerOffset) / 14.0) * cost;
      }
      cells.forEachCell([&](int32_t column, int32_t row) {
        listed[static_cast<size_t>(row * damage.columns() + column)] = rectangle.quantizerOffset;
      });
    }
    bytes = static_cast<int64_t>(size);
    control.encoded(now, bytes, keyFrame || surpriseKey);
    return true;
  }
  bool settle() {
    for (int32_t ticks = 0; ticks < 1000; ++ticks) {
      if (!tick() && plan.step == QualityStep::silent) return true;
    }
    return false;
  }
  int32_t coarsest(int32_t fromRow = 0) const {
    int32_t worst = -128;
    for (int32_t at = fromRow * 40; at < kCells; ++at) {
      worst = std::max(worst, control.offsetOf(at % 40, at / 40));
    }
    return worst;
  }

  QualityControl control;
  Screen screen;
  Damage damage;
  QualityPlan plan;
  std::vector<service::RegionCopy> copies;
  QualityControl::Time now{};
  double cost = 1;
  bool surpriseKey = false;
  bool isBeforeKnown = false;
  uint32_t drawn = 0;
  int64_t bytes = 0;
  std::set<int32_t> offsets;    // in the last frame, of what it sharpens
  std::vector<int32_t> listed;  // by cell: what the service has stored
};

TEST(QualityControlTest, SharpensInTwoStepsThenSealsThenIsSilent) {
  Loop loop(100'000);
  ASSERT_TRUE(loop.tick({kAll}));
  const int32_t first = loop.coarsest();
  EXPECT_GT(first, 24);
  std::vector<int32_t> goals;
  for (int32_t ticks = 0; ticks < 200; ++ticks) {
    if (!loop.tick() && loop.plan.step == QualityStep::silent) break;
    for (const int32_t offset : loop.offsets) {
      if (goals.empty() || goals.back() != offset) goals.push_back(offset);
    }
    ASSERT_LE(loop.control.debt(loop.now), 100'000 * 60 / 1000);
  }
  // The first is that of the frame before, while the loop still waits for stillness.
  EXPECT_EQ(goals, (std::vector<int32_t>{first, 18, 8}));
  EXPECT_EQ(loop.coarsest(), 8);
  EXPECT_EQ(std::count(loop.listed.begin(), loop.listed.end(), 8 + kSealedAbove), kCells);
  for (int32_t ticks = 0; ticks < 100; ++ticks) EXPECT_FALSE(loop.tick());
}

TEST(QualityControlTest, KeyFrameListsAllWithRealOffsets) {
  Loop loop(100'000);
  loop.tick({kAll});
  ASSERT_TRUE(loop.settle());
  for (const bool asked : {true, false}) {
    if (!asked) {  // an encoder that starts anew by itself: the next frame mends it
      loop.surpriseKey = true;
      loop.tick({{0, 0, 16, 16}});
      loop.surpriseKey = false;
    }
    ASSERT_TRUE(loop.tick({}, asked));
    EXPECT_EQ(loop.plan.keyFrame, asked);
    EXPECT_EQ(std::count(loop.listed.begin(), loop.listed.end(), *loop.offsets.begin()), kCells);
    EXPECT_LE(*loop.offsets.rbegin(), kCoarsestOffset);
    ASSERT_TRUE(loop.settle());
  }
}

TEST(QualityControlTest, HoldsEveryRateAndStarvesAtNone) {
  // Bytes a second, changed while all moves on, and what the encoder takes of what is usual. What
  // was learned from the extremes is bounded: it is not far too coarse or too large after them.
  const std::pair<int64_t, double> kTimes[] = {{100'000, 1},    {20'000, 1},  {1'000'000, 1},
                                               {100'000, 0.01}, {100'000, 1}, {1'000'000, 200}};
  Loop loop(0);
  for (const auto& [rate, cost] : kTimes) {
    const int64_t queued = loop.control.debt(loop.now);
    loop.control.setRate(rate);
    loop.cost = cost;
    int64_t sum = 0;
    int32_t frames = 0;
    for (int32_t ticks = 0; ticks < 250; ++ticks) {
      if (!loop.tick({kAll})) continue;
      ++frames;
      sum += loop.bytes;
      EXPECT_FALSE(loop.plan.keyFrame);
      EXPECT_EQ(loop.plan.keeping, 0) << "sealed beside changes";
    }
    EXPECT_GE(frames, 2);
    EXPECT_LE(sum, rate * 10 + rate / 5 + loop.bytes + queued);
  }
  loop.cost = 1;
  ASSERT_TRUE(loop.settle());
  loop.control.setRate(20'000);
  ASSERT_TRUE(loop.tick({{0, 0, 32, 16}}));
  EXPECT_EQ(*loop.offsets.begin(), 8);
}

TEST(QualityControlTest, WhatNeverStopsDoesNotStopTheRest) {
  const std::pair<Area, int32_t> kMoving[] = {{{0, 0, 16, 16}, 100}, {{0, 0, 640, 192}, 600}};
  for (const auto& [moving, ticks] : kMoving) {
    Loop loop(100'000);
    loop.tick({kAll});
    for (int32_t i = 0; i < ticks; ++i) loop.tick({moving});
    EXPECT_LE(loop.coarsest(12), 8) << moving.height << " rows that change";
  }
}

TEST(QualityControlTest, WhatWasSharpenedInVainWaitsLonger) {
  Loop loop(100'000);
  const Area left = {0, 0, 320, 384}, cursor = {624, 0, 16, 16};
  int32_t early = 0, late = 0;
  for (int32_t i = 0; i < 400; ++i) {
    // Every 400 milliseconds half of the screen, always the cursor: the screen is never still.
    if (i % 10 == 0 ? !loop.tick({left, cursor}) : !loop.tick({cursor})) continue;
    if (i % 10 != 0 && loop.bytes > 500) ++(i < 100 ? early : late);
  }
  EXPECT_GT(early, 0);
  EXPECT_LT(late, early);
}

TEST(QualityControlTest, ConstantQualityHoldsNothingBack) {
  Loop loop(0);
  loop.control.setQuality(20);
  for (int32_t i = 0; i < 20; ++i) {
    ASSERT_TRUE(loop.tick({kAll}));
    EXPECT_EQ(loop.offsets, std::set<int32_t>{20});
  }
  ASSERT_TRUE(loop.settle());
  loop.control.setQuality(4);
  ASSERT_TRUE(loop.tick());
  EXPECT_EQ(loop.coarsest(), 4);
}

TEST(QualityControlTest, ListsAreCapped) {
  const Area large = {0, 0, 4096, 2160};
  Loop loop(0, large);
  loop.tick({large});
  for (int32_t cell = 0; cell < 256 * 135; ++cell) {
    if ((cell + cell / 256) % 2 == 0) loop.damage.set(cell % 256, cell / 256);
  }
  std::fill(loop.listed.begin(), loop.listed.end(), 100);
  const Damage changed = loop.damage;
  ASSERT_TRUE(loop.tick());
  EXPECT_LE(std::ssize(loop.plan.rectangles), kDamageRectangles);
  changed.forEachCell([&](int32_t column, int32_t row) {
    ASSERT_EQ(loop.listed[static_cast<size_t>(row * 256 + column)], 8) << column << " " << row;
  });
}

// What copies make right rests, listed once; when it is left alone it is sealed.
TEST(QualityControlTest, WhatIsCopiedRests) {
  Loop loop(100'000);
  loop.tick({kAll});
  for (const bool sharp : {false, true}) {
    if (sharp) {
      ASSERT_TRUE(loop.settle());
    }
    loop.copies = {{0, 100, 84, 96, 64, 326, 160},
                   {0, 0, 0, 8, 0, 16, 16},     // at the edge
                   {0, 620, 0, 0, 0, 32, 32}};  // from outside
    loop.now += milliseconds(400);
    loop.isBeforeKnown = true;
    std::fill(loop.listed.begin(), loop.listed.end(), kUnlisted);
    ASSERT_TRUE(loop.tick({{96, 64, 330, 176}}));
    ASSERT_EQ(loop.plan.copies.size(), sharp ? 1U : 0U) << "what is coarse is coded";
    EXPECT_EQ(loop.listed[4 * 40 + 6] == kRestingOffset, sharp);
    EXPECT_LT(loop.listed[14 * 40 + 6], kRestingOffset) << "changed below the copy";
    EXPECT_LT(loop.listed[4 * 40 + 26], kRestingOffset) << "changed beside the copy, too";
    EXPECT_EQ(loop.control.offsetOf(6, 4), sharp ? 8 : loop.listed[4 * 40 + 6]);
    loop.listed[4 * 40 + 6] = kUnlisted;
    ASSERT_TRUE(loop.tick({{96, 64, 330, 176}}));
    EXPECT_EQ(loop.listed[4 * 40 + 6] == kUnlisted, sharp) << "it rests already";
    loop.copies.clear();
    if (!sharp) continue;
    ASSERT_TRUE(loop.tick({{96, 230, 300, 2}}));
    EXPECT_EQ(loop.listed[4 * 40 + 6], 8 + kSealedAbove);
    EXPECT_GT(loop.plan.keeping, 0);
  }
}

TEST(QualityControlTest, WhatOnlyMovedStaysSharpAndIsNotHeld) {
  for (const bool known : {true, false}) {
    for (const bool queued : {true, false}) {
      Loop loop(100'000);
      loop.tick({kAll});
      ASSERT_TRUE(loop.settle());
      Screen moved(640, 384);
      moved.draw(kAll, loop.drawn, 12);
      const Picture before = loop.screen.picture();
      loop.cost = 120;  // 66 milliseconds of the link
      if (queued) loop.tick({{0, 0, 16, 16}});
      loop.damage.addAll();
      loop.control.plan(loop.now, loop.damage, moved.picture(), known ? &before : nullptr, {},
                        false, loop.plan);
      EXPECT_EQ(loop.plan.step == QualityStep::encode, known || !queued);
      if (queued) continue;
      EXPECT_EQ(loop.plan.rectangles[0].quantizerOffset < 30, known);
    }
  }
}

TEST(QualityControlTest, WaitsForAcknowledgements) {
  Loop loop(100'000);
  loop.tick({kAll});
  loop.control.acknowledged(0, milliseconds(0));
  for (int32_t i = 0; i < 50; ++i) EXPECT_FALSE(loop.tick({kAll}));
  EXPECT_GT(loop.plan.until, loop.now);
  loop.control.acknowledged(loop.bytes, milliseconds(0));
  EXPECT_TRUE(loop.tick({kAll}));
}

TEST(CellFeaturesTest, WideSumsEqualThePlainOnes) {
  Screen screen(53, 39);
  screen.draw({0, 0, 53, 39}, 5);
  Picture picture = screen.picture();
  for (int32_t i = 0; i < 27 * 20; ++i) picture.plane[1][i] = static_cast<uint8_t>(i * 37);
  for (int32_t column = 0; column < 4; ++column) {
    for (int32_t row = 0; row < 3; ++row) {
      const CellSums wide = cellSums(picture, column, row);
      const CellSums plain = cellSumsPlain(picture, column, row);
      EXPECT_EQ(wide.differences, plain.differences) << column << " " << row;
      EXPECT_EQ(wide.energy, plain.energy) << column << " " << row;
    }
  }
}

}  // namespace
}  // namespace qora::client
