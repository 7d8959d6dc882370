// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/move_detector.h"

#include <gtest/gtest.h>

#include <random>

#include "qora/client/region_copies.h"

namespace qora::client {
namespace {

// A screen of lines of text. Coloured ink has other chroma than its ground.
struct Screen {
  static constexpr int32_t kWidth = 1023, kHeight = 769, kChroma = (kWidth + 1) / 2;

  Screen(const Area& window, int32_t x, int32_t y, int32_t colour) { write(window, x, y, colour); }
  Screen(const Screen& other) : samples(other.samples) {}

  // Text that begins (x, y) pixels on, inside a window.
  void write(const Area& window, int32_t x, int32_t y, int32_t colour) {
    for (int32_t row = window.y; row < window.y + window.height; ++row) {
      for (int32_t column = window.x; column < window.x + window.width; ++column) {
        const bool ink = inkAt(column - window.x + x, row - window.y + y);
        at(0, column, row) = ink ? 40 : 225;
        if (column % 2 != 0 || row % 2 != 0) continue;
        at(1, column / 2, row / 2) = static_cast<uint8_t>(ink ? 130 - colour : 130);
        at(2, column / 2, row / 2) = static_cast<uint8_t>(ink ? 120 + colour : 120);
      }
    }
  }
  static bool inkAt(int32_t x, int32_t y) {
    x += 8000;
    y += 16000;
    const uint32_t letter =
        static_cast<uint32_t>(x / 8) * 2654435761U ^ static_cast<uint32_t>(y / 16) * 2246822519U;
    return ((letter ^ letter >> 15) * 3266489917U >> (x % 8 / 2 + y % 16 / 2 * 4) & 1) != 0 &&
           y % 16 < 12;
  }
  uint8_t& at(int32_t plane, int32_t x, int32_t y) {
    return view.plane[plane][y * view.stride[plane] + x];
  }

  std::vector<uint8_t> samples = std::vector<uint8_t>(kWidth * kHeight * 2, 128);
  Picture view = {
      {samples.data(), samples.data() + kWidth* kHeight, samples.data() + kWidth* kHeight * 3 / 2},
      {kWidth, kChroma, kChroma},
      kWidth,
      kHeight};
};

Damage changesOf(const Screen& before, const Screen& after) {
  Damage changed(Screen::kWidth, Screen::kHeight);
  changed.addAll();
  changed.refine(before.view, after.view);
  return changed;
}
bool isWithin(Damage inner, const Damage& outer) {
  inner.subtract(outer);
  return inner.isEmpty();
}

// The share of the changed macroblocks that the copies make right.
double search(const Screen& before, const Screen& after, Moves& moves, int32_t tolerance = 0) {
  const Damage changed = changesOf(before, after);
  const int32_t covered = MoveDetector().find(before.view, after.view, changed, moves, tolerance);
  EXPECT_EQ(changed.count() - covered, moves.remaining.count());
  EXPECT_TRUE(isWithin(moves.remaining, changed));
  EXPECT_GE(kMostCopies, std::ssize(moves.copies));
  for (const auto& copy : moves.copies) {
    for (const int32_t x : {copy.sourceX + 0, copy.destinationX + 0}) {
      EXPECT_TRUE(x >= kCopyEdge && x + copy.width <= Screen::kWidth - kCopyEdge);
    }
    for (const int32_t y : {copy.sourceY + 0, copy.destinationY + 0}) {
      EXPECT_TRUE(y >= kCopyEdge && y + copy.height <= Screen::kHeight - kCopyEdge);
    }
    EXPECT_EQ(nullptr, faultOf(copy, Screen::kWidth, Screen::kHeight));
  }
  // What is encoded, and what a viewer makes of it.
  Screen adopted(after), made(before);
  Damage owed(Screen::kWidth, Screen::kHeight);
  EXPECT_EQ(adoptMoves(before.view, adopted.view, moves, owed), owed.count());
  EXPECT_TRUE(isWithin(owed, changesOf(after, adopted)) &&
              isWithin(changesOf(after, adopted), owed));
  EXPECT_TRUE(tolerance > 0 || owed.isEmpty());
  for (size_t i = 0; i < after.samples.size(); ++i)
    EXPECT_NEAR(after.samples[i], adopted.samples[i], tolerance);
  EXPECT_EQ(1, copyRegions(before.view, made.view, moves.copies));
  EXPECT_TRUE(isWithin(changesOf(made, adopted), moves.remaining));
  return covered * 1.0 / changed.count();
}

TEST(MoveDetectorTest, FindsScrollsAndDrags) {
  const Area window = {37, 21, 900, 640}, whole = {0, 0, 1023, 769};
  const struct {
    const char* what;
    Area before, after;
    int32_t x, y;  // how far the text went on
    int32_t colour, tolerance;
    double atLeast;  // 0: no copies
  } cases[] = {
      {"up", window, window, 0, 18, 0, 0, 0.9},
      {"up by an odd distance", window, window, 0, 17, 0, 0, 0.9},
      {"down, coloured", window, window, 0, -34, 40, 0, 0.9},
      {"sideways", window, window, 9, 0, 0, 0, 0.9},
      {"sideways, coloured", window, window, -24, 0, 40, 0, 0.9},
      {"across", window, window, 13, -55, 0, 0, 0.8},
      {"sideways by an odd distance, tinted", window, window, 9, 0, 3, 4, 0.9},
      {"the whole screen", whole, whole, 0, 16, 40, 0, 0.85},
      {"a dragged window", {37, 21, 400, 300}, {52, 14, 400, 300}, 0, 0, 0, 0, 0.7},
      {"a dragged window, coloured", {38, 20, 400, 300}, {98, 60, 400, 300}, 0, 0, 40, 0, 0.5},
      {"two ends of the screen", {20, 20, 200, 200}, {800, 550, 200, 200}, 0, 0, 0, 0, 0.4},
      {"too little", {64, 64, 64, 48}, {64, 96, 64, 48}, 0, 0, 0, 0, 0},
      {"another text", window, window, 100000, 0, 0, 0, 0},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(one.what);
    Moves moves;
    EXPECT_LE(one.atLeast, search({one.before, 0, 0, one.colour},
                                  {one.after, one.x, one.y, one.colour}, moves, one.tolerance));
    EXPECT_EQ(one.atLeast == 0, moves.copies.empty());
  }
}

TEST(MoveDetectorTest, LeavesOutWhatIsWrong) {
  const Screen before({32, 32, 640, 480}, 0, 0, 40);
  Screen after({32, 32, 640, 480}, 0, 20, 40);
  Moves some;
  const double share = search(before, after, some);
  for (int32_t plane = 0; plane < 3; ++plane) {
    const int32_t side = plane == 0 ? 16 : 8;
    for (const auto& [x, y] : {std::pair{0, 0}, {side - 1, side - 1}, {0, side - 1}}) {
      after.at(plane, 10 * side + x, 10 * side + y) ^= 1;
      EXPECT_LT(0.9 * share, search(before, after, some));
      EXPECT_TRUE(some.remaining.test(10, 10)) << plane;
      after.at(plane, 10 * side + x, 10 * side + y) ^= 1;
    }
  }
}

TEST(MoveDetectorTest, WideRowsEqualThePlainOnes) {
  std::mt19937 random(6);
  std::vector<uint8_t> samples(400);
  int32_t anchors = 0;
  for (uint32_t round = 0; round < 60; ++round) {
    for (uint8_t& sample : samples)
      sample = static_cast<uint8_t>(round % 3 == 0 ? random() : random() % 4 * 61);
    for (int32_t count = 0; count <= 140; ++count) {
      const uint8_t* const a = &samples[(static_cast<uint32_t>(count) * 7 + round) % 33];
      const uint8_t* const b = round % 2 == 0 ? a + 177 : a;
      std::vector<uint64_t> wide(3, round), plain(3, round);
      markAnchors(a, b, count, wide.data());
      markAnchorsPlain(a, b, count, plain.data());
      ASSERT_EQ(plain, wide) << count;
      for (const uint64_t marks : plain) anchors += count == 140 ? std::popcount(marks) : 0;
    }
  }
  EXPECT_TRUE(anchors > 10 && anchors < 200);
}

}  // namespace
}  // namespace qora::client
