#include "qora/encoder/encoder_api.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "tests/support/captured_log.h"
#include "tests/support/temporary_root.h"

namespace qora::encoder {
namespace {

// What the loader says when something is missing is seen from outside the service.
TEST(EncoderApi, KnowsTheBuildAndItsFiller) {
  for (const int32_t build : {128, 129, 130, 132, 133, 135, 138, 142}) {
    SCOPED_TRACE(build);
    encoderApi() = {};
    test::CapturedLog log;
    const test::TemporaryRoot root(
        {{"lib/libx264.so", FAKE_ENCODERS "build_" + std::to_string(build) + ".so"}});
    setenv("QORA_SYSTEM", root.path().c_str(), 1);
    ASSERT_EQ(loadEncoderLibrary(), 1);
    const EncoderApi& api = encoderApi();
    EXPECT_EQ(api.buildNumber, build);
    EXPECT_EQ(api.fillParameters, fillParametersFor(build));
    EXPECT_EQ(api.libraryPath, root.path() + "/lib/libx264.so");
    EXPECT_EQ(loadEncoderLibrary(), 0);
    for (int32_t time = 0; time < 2; ++time) {
      EXPECT_EQ(unloadEncoderLibrary(), 1);
      EXPECT_TRUE(api.libraryPath == nullptr && api.libraryHandle == nullptr);
      EXPECT_TRUE(api.fillParameters == nullptr && api.buildNumber == 0);
    }
  }
  unsetenv("QORA_SYSTEM");
}

}  // namespace
}  // namespace qora::encoder
