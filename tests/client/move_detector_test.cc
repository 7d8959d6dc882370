#include "qora/client/move_detector.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "qora/client/region_copies.h"

namespace qora::client {
namespace {

// A screen of lines of text, drawn in three planes. Coloured text has other chroma than its ground.
class Screen {
 public:
  Screen(int32_t width, int32_t height) : samples_(static_cast<size_t>(width * height * 2), 128) {
    uint8_t* const u = samples_.data() + width * height;
    const int32_t chroma = (width + 1) / 2;
    view = {{samples_.data(), u, u + chroma * ((height + 1) / 2)},
            {width, chroma, chroma},
            width,
            height};
  }
  Screen(const Screen&) = delete;

  // Text that begins (x, y) pixels on, inside a window.
  void write(const Area& window, int32_t x, int32_t y, bool coloured) {
    for (int32_t row = window.y; row < window.y + window.height; ++row) {
      for (int32_t column = window.x; column < window.x + window.width; ++column) {
        const bool ink = inkAt(column - window.x + x, row - window.y + y);
        at(0, column, row) = ink ? 40 : 225;
        if (!coloured || column % 2 != 0 || row % 2 != 0) continue;
        at(1, column / 2, row / 2) = ink ? 90 : 140;
        at(2, column / 2, row / 2) = ink ? 160 : 120;
      }
    }
  }
  uint8_t& at(int32_t plane, int32_t x, int32_t y) {
    return view.plane[plane][y * view.stride[plane] + x];
  }

  Picture view;

 private:
  static bool inkAt(int32_t x, int32_t y) {
    const uint32_t letter = (static_cast<uint32_t>(x + 8000) / 8 * 2654435761U) ^
                            (static_cast<uint32_t>(y + 16000) / 16 * 2246822519U);
    const uint32_t dots = (letter ^ letter >> 15) * 3266489917U;
    const auto dot = static_cast<uint32_t>((x + 8000) % 8 / 2 + (y + 16000) % 16 / 2 * 4);
    return (dots >> dot & 1) != 0 && (y + 16000) % 16 < 12;
  }

  std::vector<uint8_t> samples_;
};

struct Result {
  double share;  // of the changed macroblocks that is covered
  Moves moves;
};
Result search(const Picture& before, const Picture& after, const Damage* unfit = nullptr) {
  Damage changed(after.width, after.height);
  changed.addAll();
  const int32_t count = changed.refine(before, after);
  Result result{};
  MoveDetector detector;
  const int32_t covered = detector.find(before, after, changed, unfit, result.moves);
  result.share = covered * 1.0 / count;

  // Whatever was found: the copies are exact, and what remains is what they do not cover.
  Screen made(after.width, after.height);
  for (int32_t plane = 0; plane < 3; ++plane) {
    std::copy_n(before.plane[plane], planeHeight(after, plane) * after.stride[plane],
                made.view.plane[plane]);
  }
  EXPECT_EQ(1, copyRegions(before, made.view, result.moves.copies));
  Damage wrong(after.width, after.height);
  wrong.addAll();
  wrong.refine(made.view, after);
  wrong.subtract(result.moves.remaining);
  EXPECT_TRUE(wrong.isEmpty());
  EXPECT_EQ(count - covered, result.moves.remaining.count());
  EXPECT_GE(kMostCopies, static_cast<int32_t>(result.moves.copies.size()));
  for (const auto& copy : result.moves.copies) {
    for (const int32_t x : {copy.sourceX + 0, copy.destinationX + 0}) {
      EXPECT_TRUE(x >= kCopyEdge && x + copy.width <= after.width - kCopyEdge);
    }
    for (const int32_t y : {copy.sourceY + 0, copy.destinationY + 0}) {
      EXPECT_TRUE(y >= kCopyEdge && y + copy.height <= after.height - kCopyEdge);
    }
    EXPECT_EQ(0, (copy.destinationX | copy.destinationY | copy.width | copy.height) % 16);
  }
  return result;
}

TEST(MoveDetectorTest, FindsScrollsAndDrags) {
  const Area window = {37, 21, 900, 640}, whole = {0, 0, 1023, 769};
  const struct {
    const char* what;
    Area before, after;
    int32_t x, y;  // how far the text went on
    bool coloured;
    double atLeast;
  } cases[] = {
      {"up", window, window, 0, 18, false, 0.9},
      {"up by an odd distance", window, window, 0, 17, false, 0.9},
      {"down, coloured", window, window, 0, -34, true, 0.9},
      {"sideways", window, window, 9, 0, false, 0.9},
      {"sideways, coloured", window, window, -24, 0, true, 0.9},
      {"across", window, window, 13, -55, false, 0.8},
      {"the whole screen", whole, whole, 0, 16, true, 0.85},
      {"a dragged window", {37, 21, 400, 300}, {52, 14, 400, 300}, 0, 0, false, 0.7},
      {"a dragged window, coloured", {38, 20, 400, 300}, {98, 60, 400, 300}, 0, 0, true, 0.5},
      {"two ends of the screen", {20, 20, 200, 200}, {800, 550, 200, 200}, 0, 0, false, 0.4},
      {"too little", {64, 64, 64, 48}, {64, 96, 64, 48}, 0, 0, false, 0},
      {"nothing", window, window, 0, 0, false, 0},
      {"another text", window, window, 100000, 0, false, 0},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(one.what);
    Screen before(1023, 769), after(1023, 769);
    before.write(one.before, 0, 0, one.coloured);
    after.write(one.after, one.x, one.y, one.coloured);
    const Result result = search(before.view, after.view);
    if (one.atLeast > 0) {
      EXPECT_LE(one.atLeast, result.share);
    } else {
      EXPECT_TRUE(result.moves.copies.empty());
    }
  }
}

TEST(MoveDetectorTest, LeavesOutWhatIsWrongOrUnfit) {
  const Area window = {32, 32, 640, 480};
  Screen before(720, 560), after(720, 560);
  before.write(window, 0, 0, false);
  after.write(window, 0, 20, false);
  const Result all = search(before.view, after.view);
  ASSERT_FALSE(all.moves.copies.empty());
  for (int32_t plane = 0; plane < 3; ++plane) {
    const int32_t side = plane == 0 ? 16 : 8;
    for (const auto& [x, y] : {std::pair{0, 0}, {side - 1, side - 1}, {0, side - 1}}) {
      after.at(plane, 10 * side + x, 10 * side + y) ^= 1;
      const Result one = search(before.view, after.view);
      EXPECT_TRUE(one.moves.remaining.test(10, 10)) << plane;
      EXPECT_FALSE(one.moves.covered.test(10, 10)) << plane;
      EXPECT_LT(0.9 * all.share, one.share);
      after.at(plane, 10 * side + x, 10 * side + y) ^= 1;
    }
  }
  Damage unfit(720, 560);
  unfit.set(12, 12);
  const Result some = search(before.view, after.view, &unfit);
  EXPECT_TRUE(all.moves.covered.test(12, 10) && all.moves.covered.test(12, 11));
  EXPECT_FALSE(some.moves.covered.test(12, 10) || some.moves.covered.test(12, 11));
  unfit.addAll();
  EXPECT_TRUE(search(before.view, after.view, &unfit).moves.copies.empty());
}

TEST(MoveDetectorTest, WideMarksEqualThePlainOnes) {
  std::mt19937 random(6);
  std::vector<uint8_t> samples(400);
  int32_t found = 0;
  for (int32_t round = 0; round < 60; ++round) {
    for (uint8_t& sample : samples) {
      sample = static_cast<uint8_t>(round % 3 == 0 ? random() : random() % 4 * 61);
    }
    for (int32_t count = 0; count <= 140; ++count) {
      const auto start = static_cast<size_t>((count * 7 + round) % 33);
      std::vector<uint64_t> wide(3, round), plain(3, round);
      markAnchors(&samples[start], &samples[start + 177], count, wide.data());
      markAnchorsPlain(&samples[start], &samples[start + 177], count, plain.data());
      ASSERT_EQ(plain, wide) << count << " at " << start;
      for (const uint64_t marks : plain) found += count == 140 ? std::popcount(marks) : 0;
    }
  }
  EXPECT_LT(10, found);
  EXPECT_GT(200, found);
}

}  // namespace
}  // namespace qora::client
