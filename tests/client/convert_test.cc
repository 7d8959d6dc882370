// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/convert.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <random>

extern "C" {
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

namespace qora::client {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes noise(size_t size) {
  std::mt19937 random(4);
  Bytes bytes(size);
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
  return bytes;
}

// An I420 picture and its memory.
struct Planes {
  Bytes samples;
  Picture view;
  Planes(int32_t width, int32_t height)
      : samples(static_cast<size_t>(width + 1) * static_cast<size_t>(height + 1) * 2) {
    const int32_t chroma = (width + 1) / 2;
    uint8_t* const u = samples.data() + width * height;
    view = {{samples.data(), u, u + chroma * ((height + 1) / 2)},
            {width, chroma, chroma},
            width,
            height};
  }
};

TEST(ConvertTest, KnownColours) {
  const uint8_t cases[][9] = {
      {255, 255, 255, 235, 128, 128, 255, 128, 128}, {0, 0, 255, 63, 102, 240, 54, 99, 255},
      {0, 255, 0, 173, 42, 26, 182, 30, 12},         {255, 0, 0, 32, 240, 118, 18, 255, 116},
      {0, 0, 0, 16, 128, 128, 0, 128, 128},          {127, 127, 127, 125, 128, 128, 127, 128, 128}};
  for (const auto& [blue, green, red, y, u, v, fullY, fullU, fullV] : cases) {
    const uint8_t pixel[4] = {blue, green, red, 77};
    Planes one(1, 1), full(1, 1);
    convertPiece({pixel, 4, 1, 1}, 0, 0, one.view);
    convertPiece({pixel, 4, 1, 1}, 0, 0, full.view, SampleRange::full);
    EXPECT_EQ((Bytes{y, u, v}), (Bytes{one.samples[0], one.samples[1], one.samples[2]}));
    EXPECT_EQ((Bytes{fullY, fullU, fullV}),
              (Bytes{full.samples[0], full.samples[1], full.samples[2]}));
  }
}

class ConvertRowsTest : public testing::TestWithParam<SampleRange> {};

INSTANTIATE_TEST_SUITE_P(, ConvertRowsTest,
                         testing::Values(SampleRange::limited, SampleRange::full));

TEST_P(ConvertRowsTest, WideRowsEqualThePlainOnes) {
  Bytes pixels = noise(2000);
  for (size_t i = 300; i < 600; ++i) pixels[i] = pixels[i + 1000] = i % 4 == 0 ? 255 : 0;  // blue
  for (int32_t width = 0; width <= 100; ++width) {
    for (size_t start = 0; start < 33; ++start) {
      const uint8_t* upper = pixels.data() + start;
      const uint8_t* lower = upper + 1000;
      Bytes wide[3], plain[3];
      for (int32_t i = 0; i < 3; ++i) wide[i] = plain[i] = Bytes(160, 9);  // 9 stays after the end
      convertLumaRow(upper, width, GetParam(), wide[0].data() + start);
      convertLumaRowPlain(upper, width, GetParam(), plain[0].data() + start);
      convertChromaRow(upper, lower, width, GetParam(), wide[1].data() + start,
                       wide[2].data() + start);
      convertChromaRowPlain(upper, lower, width, GetParam(), plain[1].data() + start,
                            plain[2].data() + start);
      for (int32_t i = 0; i < 3; ++i) ASSERT_EQ(plain[i], wide[i]) << width << " at " << start;
    }
  }
}

// The scaler knows even sides only as we do: an odd one is given with its last pixel repeated.
TEST(ConvertTest, IsWithinOneOfTheScaler) {
  for (const auto& [width, height] : {std::pair{64, 48}, {199, 34}, {66, 51}, {33, 17}}) {
    const int32_t evenWidth = (width + 1) & ~1, evenHeight = (height + 1) & ~1;
    Bytes pixels = noise(static_cast<size_t>(evenWidth * evenHeight * 4));
    uint32_t* const at = reinterpret_cast<uint32_t*>(pixels.data());
    for (int32_t i = 0; i < evenWidth * evenHeight; ++i) {
      const int32_t row = std::min(i / evenWidth, height - 1);
      at[i] = at[row * evenWidth + std::min(i % evenWidth, width - 1)];
    }
    Planes theirs(evenWidth, evenHeight), ours(width, height);
    SwsContext* const scaler =
        sws_getContext(evenWidth, evenHeight, AV_PIX_FMT_BGR0, evenWidth, evenHeight,
                       AV_PIX_FMT_YUV420P, SWS_AREA | SWS_ACCURATE_RND, nullptr, nullptr, nullptr);
    const int* const bt709 = sws_getCoefficients(SWS_CS_ITU709);
    sws_setColorspaceDetails(scaler, bt709, 1, bt709, 0, 0, 1 << 16, 1 << 16);
    const uint8_t* from[] = {pixels.data()};
    const int stride[] = {evenWidth * 4};
    sws_scale(scaler, from, stride, 0, evenHeight, theirs.view.plane, theirs.view.stride);
    sws_freeContext(scaler);

    convertPiece({pixels.data(), evenWidth * 4, width, height}, 0, 0, ours.view);
    for (int32_t plane = 0; plane < 3; ++plane)
      for (int32_t y = 0; y < planeHeight(ours.view, plane); ++y)
        for (int32_t x = 0; x < planeWidth(ours.view, plane); ++x)
          ASSERT_NEAR(theirs.view.plane[plane][y * theirs.view.stride[plane] + x],
                      ours.view.plane[plane][y * ours.view.stride[plane] + x], 1)
              << "plane " << plane << " at " << x << "," << y << " of " << width << "x" << height;
  }
}

TEST(ConvertTest, RectanglesGiveWhatTheWholePictureGives) {
  constexpr int32_t kWidth = 131, kHeight = 77;
  const Bytes pixels = noise(kWidth * kHeight * 4);
  const BgrxPixels screen = {pixels.data(), kWidth * 4, kWidth, kHeight};
  Planes whole(kWidth, kHeight), byRectangles(kWidth, kHeight);
  convertPiece(screen, 0, 0, whole.view);
  std::vector<service::Rectangle> list = {
      {0, 131, 5, 9, 9}, {0, 60000, 60000, 60000, 60000}, {0, 4, 4, 0, 4}};
  for (uint16_t y = 0; y < kHeight; y += 7)
    for (uint16_t x = 0; x < kWidth; x += 13) list.push_back({0, x, y, 13, 7});
  EXPECT_LT(kWidth * kHeight, convertRectangles(screen, list, byRectangles.view));
  EXPECT_EQ(whole.samples, byRectangles.samples);
  const Area none = evenArea({INT_MIN, -3, INT_MAX, 8}, 100, 100);
  EXPECT_TRUE(none.width == 0 && none.height == 0);
  const Area all = evenArea({-5, 3, INT_MAX, 4}, 101, 7);
  EXPECT_TRUE(all.x == 0 && all.y == 2 && all.width == 101 && all.height == 5);
}

}  // namespace
}  // namespace qora::client
