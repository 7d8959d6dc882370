// SPDX-License-Identifier: BSD-2-Clause
#include "qora/encoder/encoder_api.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/support/temporary_root.h"

namespace qora::encoder {
namespace {

// What the loader does with what it finds is seen from outside the service.
TEST(EncoderApi, IsLoadedOnceAndUnloadedAsOftenAsOneLikes) {
  const std::vector<std::pair<std::string, std::string>> files = {
      {"lib/libx264.so", SCRIPTED_ENCODER}};
  const test::TemporaryRoot root(files);
  setenv("QORA_SYSTEM", root.path().c_str(), 1);
  EXPECT_EQ(loadEncoderLibrary(), 1);
  const EncoderApi& api = encoderApi();
  EXPECT_EQ(api.buildNumber, 142);
  EXPECT_EQ(api.fillParameters, fillParametersFor(142));
  EXPECT_EQ(api.libraryPath, root.path() + "/lib/libx264.so");
  EXPECT_EQ(loadEncoderLibrary(), 0);
  for (int32_t time = 0; time < 2; ++time) {
    EXPECT_EQ(unloadEncoderLibrary(), 1);
    EXPECT_TRUE(api.libraryPath == nullptr && api.libraryHandle == nullptr);
    EXPECT_TRUE(api.fillParameters == nullptr && api.buildNumber == 0);
  }
}

}  // namespace
}  // namespace qora::encoder
