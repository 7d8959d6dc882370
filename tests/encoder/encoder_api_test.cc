#include "encoder/encoder_api.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/support/captured_log.h"
#include "tests/support/scoped_process_state.h"
#include "tests/support/temporary_root.h"

namespace qora::encoder {
namespace {

using Files = std::vector<std::pair<std::string, std::string>>;
constexpr char kFirst[] = "lib/libx264.so";
constexpr char kSecond[] = "codec/lib/libx264.so";

std::string fake(const std::string& name) {
  return FAKE_ENCODERS + name + ".so";
}

struct Load {
  explicit Load(const Files& files) : root(files) {
    setenv("QORA_SYSTEM", root.path().c_str(), 1);
    errno = 0;
    result = loadEncoderLibrary();
    error = errno;
  }
  ~Load() {
    unloadEncoderLibrary();
    unsetenv("QORA_SYSTEM");
  }

  test::ScopedProcessState state;
  test::CapturedLog log;
  test::TemporaryRoot root;
  int32_t result;
  int32_t error;
};

// The warning pairs of the dynamic loader carry its own words; the first line of each pair counts.
std::string withoutLoaderWords(const std::string& text) {
  std::string out;
  for (size_t at = 0; at < text.size();) {
    const size_t end = text.find('\n', at) + 1;
    const std::string line = text.substr(at, end - at);
    if (line.find("Library: WARNING! Error is '") != 0) out += line;
    at = end;
  }
  return out;
}

std::string unresolved(const std::string& name) {
  return "Library: WARNING! Could not resolve symbol '" + name + "'.\n";
}

TEST(EncoderApi, TellsTheBuildByTheOpenFunction) {
  for (const int32_t build : {128, 129, 130, 132, 133, 135, 138, 142}) {
    SCOPED_TRACE(build);
    Load load({{kFirst, fake("build_" + std::to_string(build))}});
    ASSERT_EQ(load.result, 1);
    EXPECT_EQ(encoderApi().buildNumber, build);
    EXPECT_EQ(encoderApi().fillParameters, fillParametersFor(build));
    EXPECT_NE(encoderApi().x264_param_apply_profile, nullptr);
    const std::string log = load.log.withoutPrefixes();
    EXPECT_EQ(log.find(unresolved("x264_encoder_open_142")), build == 142 ? std::string::npos : 0);
    EXPECT_EQ(loadEncoderLibrary(), 0);
    EXPECT_EQ(unloadEncoderLibrary(), 1);
    EXPECT_EQ(encoderApi().libraryPath, nullptr);
    EXPECT_EQ(encoderApi().libraryHandle, nullptr);
    EXPECT_EQ(encoderApi().fillParameters, nullptr);
    EXPECT_EQ(encoderApi().buildNumber, 0);
  }
}

TEST(EncoderApi, PrefersBuild142) {
  Load load({{kFirst, fake("builds_128_and_142")}});
  EXPECT_EQ(load.result, 1);
  EXPECT_EQ(encoderApi().buildNumber, 142);
  EXPECT_EQ(load.log.text(), "");
}

TEST(EncoderApi, RejectsALibraryWithoutAKnownOpenFunction) {
  Load load({{kFirst, fake("build_161")}});
  EXPECT_EQ(load.result, -1);
  std::string expected;
  for (const int32_t build : {142, 128, 129, 130, 132, 133, 135, 138}) {
    expected += unresolved("x264_encoder_open_" + std::to_string(build));
  }
  EXPECT_EQ(withoutLoaderWords(load.log.withoutPrefixes()),
            expected + "CodecLoad: WARNING! Can't load 'x264_encoder_open' function.\n");
  EXPECT_EQ(load.error, ENOENT);  // of the second place
}

TEST(EncoderApi, NeedsEveryFunctionAndTriesTheSecondPlace) {
  for (const std::string name :
       {"x264_encoder_reconfig", "x264_encoder_close", "x264_encoder_encode",
        "x264_encoder_invalidate_reference", "x264_encoder_get_last_quantizer", "x264_picture_init",
        "x264_param_default_preset", "x264_encoder_parameters", "x264_param_apply_profile"}) {
    SCOPED_TRACE(name);
    const std::string lines =
        unresolved(name) + "CodecLoad: WARNING! Can't load '" + name + "' function.\n";
    {
      Load load({{kFirst, fake("without_" + name)}, {kSecond, fake("build_130")}});
      EXPECT_EQ(load.result, 1);
      EXPECT_EQ(encoderApi().buildNumber, 130);
      EXPECT_EQ(encoderApi().libraryPath, load.root.path() + "/" + kSecond);
      EXPECT_EQ(withoutLoaderWords(load.log.withoutPrefixes()).find(lines), 0U);
    }
    Load both({{kFirst, fake("without_" + name)}, {kSecond, fake("without_" + name)}});
    EXPECT_EQ(both.result, -1);
    EXPECT_EQ(both.error, ENOMSG);
    EXPECT_EQ(encoderApi().libraryHandle, nullptr);
    EXPECT_EQ(encoderApi().libraryPath, nullptr);
    EXPECT_EQ(withoutLoaderWords(both.log.withoutPrefixes()), lines + lines);
  }
}

}  // namespace
}  // namespace qora::encoder
