// SPDX-License-Identifier: BSD-2-Clause
// The bridge beside the installed library: the same calls must give the same bytes.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <x264.h>

#include <algorithm>

#include "qora/encoder/abi/param_layout.h"
#include "tests/support/temporary_root.h"

// The library loses two strings when it refuses to open an encoder.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libx264.so.1\n";
}

namespace qora::test {
namespace {

// clang-format off
#define AT(field) offsetof(x264_param_t, field)
constexpr decltype(encoder::ParamLayout::offset) kInstalledOffsets = {
    AT(i_threads), AT(i_width), AT(i_height), AT(i_csp), AT(i_keyint_max), AT(i_scenecut_threshold),
    AT(i_log_level), AT(analyse.b_mb_info), AT(rc.i_rc_method), AT(rc.i_qp_min), AT(rc.i_qp_max),
    AT(rc.i_bitrate), AT(rc.f_rf_constant), AT(rc.f_rate_tolerance), AT(rc.i_aq_mode),
    AT(rc.f_qcompress), AT(b_annexb), AT(i_fps_num), AT(i_fps_den)};
constexpr int kInstalledCsp[16] = {  // by the number in build 142
    0, X264_CSP_I420, X264_CSP_YV12, X264_CSP_NV12, X264_CSP_I422, X264_CSP_YV16, X264_CSP_NV16,
    X264_CSP_V210, X264_CSP_I444, X264_CSP_YV24, X264_CSP_BGR, X264_CSP_BGRA, X264_CSP_RGB, 99};

struct Case {
  const char *what, *preset, *tune, *laterTune, *profile, *laterProfile;
  int rateMethod = X264_RC_CRF, csp = 1;  // as build 142 numbers it
};
#define LONG_NAME "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx"
constexpr Case kCoded[] = {
    {"quality", "ultrafast", "zerolatency", nullptr, "baseline", nullptr},
    {"bitrate", "ultrafast", "zerolatency", nullptr, "baseline", nullptr, X264_RC_ABR},
    {"the stricter profile stays", "fast", "psnr,zerolatency", nullptr, "main", "high"},
    {"delayed pictures", "superfast", nullptr, nullptr, "high", nullptr, X264_RC_ABR},
    {"no preset", nullptr, "zerolatency", nullptr, nullptr, nullptr},
    {"an empty tune", "0", "", nullptr, nullptr, nullptr},
    {"another tune later", "superfast", "zerolatency", "fastdecode,zerolatency", "baseline", nullptr},
};
constexpr Case kRefused[] = {
    {"unknown preset", "quickest", "zerolatency", nullptr, "baseline", nullptr},
    {"preset too long", LONG_NAME, "zerolatency", nullptr, "baseline", nullptr},
    {"unknown tune", "fast", "screen", nullptr, "baseline", nullptr},
    {"tune too long", "fast", LONG_NAME, nullptr, "baseline", nullptr},
    {"unknown profile", "fast", "zerolatency", nullptr, "basic", nullptr},
    {"profile too long", "fast", "zerolatency", nullptr, "main", LONG_NAME},
    {"unknown colour space", "fast", "zerolatency", nullptr, nullptr, nullptr, X264_RC_CRF, 13},
};
// clang-format on
constexpr int kCodedCsp[] = {2, 3, 4, 5, 6, 8, 9, 10, 11, 12, 1 | X264_CSP_VFLIP};

int installedCsp(int csp) {
  return kInstalledCsp[csp & 15] | (csp & X264_CSP_VFLIP);
}

// One of the two libraries, called by name: the records of both have the same shape.
struct Side {
  void* library;
  std::string open;
  const decltype(kInstalledOffsets)& offsets;
  size_t blockSize;
  bool isBridge;

  template <typename Result = int, typename... Arguments>
  Result call(const char* name, Arguments... arguments) const {
    return reinterpret_cast<Result (*)(Arguments...)>(dlsym(library, name))(arguments...);
  }
};
const std::string kBuild = std::to_string(X264_BUILD), kVersioned = "libx264.so." + kBuild;
const Side kBridge = {dlopen(BRIDGE_PATH, RTLD_LAZY), "x264_encoder_open_142",
                      encoder::kParamLayouts[encoder::paramLayoutFor(142)].offset, 936, true};
const Side kInstalled = {dlopen(kVersioned.c_str(), RTLD_NOW), "x264_encoder_open_" + kBuild,
                         kInstalledOffsets, sizeof(x264_param_t), false};

// A parameter block between painted guards.
struct Block {
  const Side& side;
  std::string bytes = std::string(side.blockSize + 512, '\xA5');

  ~Block() { EXPECT_EQ(bytes.replace(256, side.blockSize, ""), std::string(512, '\xA5')); }
  char* data() { return bytes.data() + 256; }
  char* at(size_t field) { return data() + side.offsets[field]; }
};

// The calls of one case on one side, and all that the caller can see of them.
struct Session {
  const Side& side;
  const Case& c;
  Block block{side};
  std::string coded = {};       // coded bytes, and the first row of each picture that came out
  std::vector<int> facts = {};  // results, and what pictures and parameters tell
  std::vector<void*> opened = {};

  int csp() const { return side.isBridge ? c.csp : installedCsp(c.csp); }
  void tellCsp(int value) { facts.push_back(side.isBridge ? installedCsp(value) : value); }
  void tellValues() {
    for (size_t field = 0; field < encoder::kParamFieldCount; ++field) {
      int value;
      memcpy(&value, block.at(field), 4);
      field == 3 ? tellCsp(value) : facts.push_back(value);
    }
  }
  bool setUp(const char* tune) {
    if (side.call("x264_param_default_preset", block.data(), c.preset, tune) != 0) return false;
    tellValues();
    // By field; the floats are 9, 0.01 and 1.
    // clang-format off
    const int values[] = {1, 62, 46, csp(), 1 << 30, 0, 0, 1, c.rateMethod, 12, 40, 300,
                          0x41100000, 0x3C23D70A, 1, 0x3F800000, 0, 25, 1};
    // clang-format on
    for (int field = 0; const int value : values) memcpy(block.at(field++), &value, 4);
    return side.call("x264_param_apply_profile", block.data(), c.profile) == 0 &&
           side.call("x264_param_apply_profile", block.data(), c.laterProfile) == 0;
  }
  // Twelve calls of encode, the last five draining; the quality changes twice on the way.
  void encode() {
    void* encoder = side.call<void*>(side.open.c_str(), block.data());
    if (encoder == nullptr) return;
    opened.push_back(encoder);
    std::vector<uint8_t> planes(3 * 256 * 48 +
                                4096);  // stride 256; the library reads beyond the last
    uint8_t* const pixels = planes.data();
    uint8_t info[12] = {0, 1, 1, 1, 0, 1, 1, 1, 0, 1, 1, 1};  // 4 x 3 cells: one column changes
    float offsets[12] = {};
    x264_picture_t picture, produced = {};
    memset(&picture, 0xA5, sizeof(picture));
    side.call<void>("x264_picture_init", &picture);
    picture.img = {csp(), 3, {256, 256, 256}, {pixels, pixels + 256 * 48, pixels + 512 * 48}};
    picture.prop.quant_offsets = offsets;
    picture.prop.mb_info = info;
    // A block of the caller's build is nothing to the library: the bridge holds it back.
    if (side.isBridge) picture.param = reinterpret_cast<x264_param_t*>(block.data());
    for (int frame = 0; frame < 12; ++frame) {
      picture.i_pts = frame;
      for (int i = 0; i < 3 * 256 * 48; ++i) {
        pixels[i] = static_cast<uint8_t>(i % 7919 * i / 97 + (i % 256 < 16 ? frame * 5 : 0));
      }
      offsets[frame] = static_cast<float>(frame % 5 - 2);
      if (frame == 2) side.call("x264_encoder_invalidate_reference", encoder, int64_t{0});
      if (frame == 5) side.call<void>("x264_encoder_parameters", encoder, block.data());
      if (frame == 5 && c.laterTune != nullptr) setUp(c.laterTune);
      if (const float quality = frame * 5; frame == 3 || frame == 5) {
        memcpy(block.at(12), &quality, 4);
        facts.push_back(side.call("x264_encoder_reconfig", encoder, block.data()));
      }
      x264_nal_t* nals = nullptr;
      int count = 0;
      const int size = side.call("x264_encoder_encode", encoder, &nals, &count,
                                 frame < 7 ? &picture : nullptr, &produced);
      facts.insert(facts.end(), {size, count, produced.i_type, produced.b_keyframe});
      tellCsp(produced.img.i_csp);
      if (size <= 0) continue;
      coded.append(reinterpret_cast<char*>(nals[0].p_payload), size);
      coded.append(reinterpret_cast<char*>(produced.img.plane[0]), 62);
      facts.push_back(side.isBridge ? side.call("x264_encoder_get_last_quantizer", encoder)
                                    : produced.i_qpplus1 - 1);
    }
    side.call<void>("x264_encoder_parameters", encoder, block.data());
    tellValues();
  }
  // A tune that came later is in the parameters that the encoder had in the end. The library's
  // parameters have texts of its encoder's, which is closed after them.
  void run() {
    if (setUp(c.tune)) encode();
    if (c.laterTune != nullptr) encode();
    for (void* encoder : opened) side.call<void>("x264_encoder_close", encoder);
  }
};

void compare(const Case& c, bool refused) {
  Session direct{kInstalled, c}, bridged{kBridge, c};
  direct.run();
  testing::internal::CaptureStderr();
  bridged.run();
  const std::string lines = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(bridged.coded == direct.coded) << c.what << c.csp;
  EXPECT_EQ(bridged.facts, direct.facts) << c.what << c.csp;
  EXPECT_EQ(bridged.coded.empty(), refused) << c.what << c.csp;
  EXPECT_TRUE(!refused || std::ranges::count(lines, '\n') == 1) << c.what << lines;
}

TEST(Bridge, GivesWhatTheInstalledLibraryGives) {
  // The library reads memory that it never wrote: it shall find the same on both sides.
  mallopt(M_PERTURB, 0xA5);
  mallopt(M_MMAP_THRESHOLD, 128 << 10);
  for (const Case& c : kCoded) compare(c, false);
  for (const Case& c : kRefused) compare(c, true);
  for (const int csp : kCodedCsp) {
    compare({"csp ", "0", "zerolatency", nullptr, nullptr, nullptr, X264_RC_CRF, csp}, false);
  }
}

TEST(Bridge, SetsUpABlockAndRefusesOthers) {
  void* const null = nullptr;
  for (const auto& [name, size] :
       {std::pair("", 936), {"ultrafast", 15}, {"film", 55}, {"baseline", 15}}) {
    Block block{kBridge};
    EXPECT_EQ(kBridge.call("x264_param_default_preset", block.data(), "ultrafast", "film"), 0);
    EXPECT_EQ(kBridge.call("x264_param_apply_profile", block.data(), "baseline"), 0);
    block.bytes.replace(block.bytes.find(name, 256), size, size, '!');  // a name without an end
    testing::internal::CaptureStderr();
    EXPECT_EQ(kBridge.call<void*>("x264_encoder_open_142", block.data()), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "x264 bridge: x264_encoder_open_142: the parameter block was never set up with "
              "x264_param_default_preset\n")
        << name;
  }
  for (const char* name :
       {"x264_param_default_preset", "x264_param_apply_profile", "x264_encoder_reconfig",
        "x264_encoder_encode", "x264_encoder_invalidate_reference",
        "x264_encoder_get_last_quantizer"}) {
    EXPECT_EQ(kBridge.call(name, null, null, null, null, null), -1) << name;
  }
  kBridge.call<void>("x264_encoder_close", null);
}

TEST(BridgeLibrary, ExportsTheTenNamesThatWereCalledAndNothingElse) {
  const char* const names = NM_PATH " -D --defined-only " BRIDGE_PATH " | ";
  EXPECT_EQ(std::system((std::string(names) + "grep -c ' T x264_' | grep -qx 10").c_str()), 0);
  EXPECT_EQ(std::system((std::string(names) + "wc -l | grep -qx 10").c_str()), 0);
}

// Where libraries are searched is read once, at a process's start: each case is a child.
TEST(BridgeLibrary, FindsTheInstalledLibraryOrSaysWhyNot) {
  const std::string self = std::filesystem::read_symlink("/proc/self/exe");
  const std::string cases[][3] = {
      {kVersioned, "/dev/null", "x264 bridge: cannot open " + kVersioned + ": "},
      {kVersioned, BRIDGE_PATH, "x264 bridge: " + kVersioned + " leads back to the bridge itself"},
      {"libx264.so", BRIDGE_PATH, "[  PASSED  ] 1 test."}};
  for (const auto& [file, target, output] : cases) {
    const TemporaryRoot folder({{file, target}});
    const std::string child =
        "LD_LIBRARY_PATH=" + folder.path() + " '" + self + "' --gtest_filter=Bridge.SetsUp*";
    EXPECT_EQ(std::system((child + " 2>&1 | grep -F '" + output + "'").c_str()), 0) << output;
  }
}

}  // namespace
}  // namespace qora::test
