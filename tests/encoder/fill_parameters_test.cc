// SPDX-License-Identifier: BSD-2-Clause
#include "qora/encoder/fill_parameters.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "qora/encoder/encoder_api.h"
#include "tests/support/captured_log.h"

namespace qora::encoder {
namespace {

constexpr int32_t kBuilds[] = {128, 132, 135, 138, 142, 161};
constexpr size_t kBlockStart[] = {0, 896, 1824, 2760, 3704, 4640};
constexpr uint32_t kOne = 0x3F800000;        // 1.0
constexpr uint32_t kHundredth = 0x3C23D70A;  // 0.01

enum When { kAlways, kBitrate, kQuality };

// The library's layouts, field by field; the arguments are those of fill() below.
struct Expected {
  When when;
  uint32_t value;
  uint16_t offset[6];  // by kBuilds
};
constexpr Expected kExpected[] = {
    {kAlways, 3, {4, 4, 4, 4, 4, 4}},
    {kAlways, 641, {28, 28, 28, 28, 28, 28}},
    {kAlways, 479, {32, 32, 32, 32, 32, 32}},
    {kAlways, 1, {36, 36, 36, 36, 36, 36}},
    {kAlways, 1073741824, {96, 96, 96, 96, 96, 100}},
    {kAlways, 0, {104, 104, 104, 104, 104, 108}},
    {kAlways, 1, {512, 512, 512, 520, 520, 528}},
    {kAlways, 1, {620, 620, 620, 628, 620, 628}},
    {kBitrate, 2, {648, 648, 648, 656, 648, 656}},
    {kQuality, 1, {648, 648, 648, 656, 648, 656}},
    {kBitrate, 11, {656, 656, 656, 664, 656, 664}},
    {kBitrate, 42, {660, 660, 660, 668, 660, 668}},
    {kBitrate, 1, {668, 668, 668, 676, 668, 676}},
    {kQuality, kOne, {672, 672, 672, 680, 672, 680}},
    {kBitrate, kHundredth, {680, 680, 680, 688, 680, 688}},
    {kAlways, 1, {704, 704, 704, 712, 708, 716}},
    {kQuality, kOne, {752, 752, 752, 760, 752, 760}},
    {kAlways, 1, {820, 820, 820, 828, 820, 832}},
    {kAlways, 25, {836, 836, 836, 844, 836, 848}},
    {kAlways, 1, {840, 840, 840, 848, 840, 852}},
};

int32_t presetResult;
int32_t profileResult;

class FillParameters : public testing::Test {
 protected:
  FillParameters() {
    presetResult = profileResult = bitrateMode() = 0;
    encoderApi().x264_param_default_preset = [](x264_param_t*, const char* preset,
                                                const char* tune) -> int32_t {
      return presetResult - strcmp(preset, "ultrafast") - strcmp(tune, "zerolatency");
    };
    encoderApi().x264_param_apply_profile = [](x264_param_t*, const char* profile) -> int32_t {
      return profileResult - strcmp(profile, "baseline");
    };
    memset(stream_.param_storage, 0xA5, sizeof stream_.param_storage);
  }

  int32_t fill(int32_t build, int32_t argumentByte = 0xFF) {
    return fillParametersFor(build)(&stream_, 3, 641, 479, 1, 11, 42, argumentByte);
  }

  EncoderStream stream_{};
};

TEST_F(FillParameters, WritesExactlyTheFieldsOfItsLayoutInBothModes) {
  for (size_t row = 0; row < std::size(kBuilds); ++row) {
    for (const When mode : {kQuality, kBitrate}) {
      SCOPED_TRACE(testing::Message() << "build " << kBuilds[row] << ", mode " << mode);
      memset(stream_.param_storage, 0xA5, sizeof stream_.param_storage);
      std::vector<uint8_t> expected(5592, 0xA5);
      for (const Expected& field : kExpected) {
        if (field.when != kAlways && field.when != mode) continue;
        memcpy(&expected[kBlockStart[row] + field.offset[row]], &field.value, 4);
      }
      bitrateMode() = mode == kBitrate ? 1 : 0;
      ASSERT_EQ(fill(kBuilds[row]), 1);
      EXPECT_EQ(reinterpret_cast<uint8_t*>(stream_.param),
                stream_.param_storage + kBlockStart[row]);
      EXPECT_TRUE(expected == std::vector<uint8_t>(std::begin(stream_.param_storage),
                                                   std::end(stream_.param_storage)));
    }
  }
}

TEST_F(FillParameters, OnlyAResultOfMinusOneIsARefusalAndLeavesParamAlone) {
  test::CapturedLog log;
  presetResult = profileResult = -2;
  EXPECT_EQ(fill(128, 0xFB), 1);
  EXPECT_EQ(stream_.param_storage[820], 0);  // start codes are bit 2 alone
  stream_.param = nullptr;
  profileResult = -1;
  EXPECT_EQ(fill(128), -1);
  EXPECT_EQ(stream_.param, nullptr);
}

}  // namespace
}  // namespace qora::encoder
