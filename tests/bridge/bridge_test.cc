// The bridge beside the installed library: the same calls must give the same bytes.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <x264.h>

#include <bit>
#include <filesystem>
#include <fstream>

#include "encoder/param_layout.h"

// The library loses two strings when it refuses to open an encoder.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libx264.so.1\n";
}

namespace {

using enum qora::encoder::ParamField;
using Offsets = std::array<size_t, qora::encoder::kParamFieldCount>;  // by ParamField
using FieldValue = std::pair<qora::encoder::ParamField, uint32_t>;

// clang-format off
constexpr Offsets kLegacyOffsets = {4, 28, 32, 36, 96, 104, 520, 620, 648, 656,
                                    660, 668, 672, 680, 708, 752, 820, 836, 840};
#define AT(field) offsetof(x264_param_t, field)
constexpr Offsets kInstalledOffsets = {
    AT(i_threads), AT(i_width), AT(i_height), AT(i_csp), AT(i_keyint_max), AT(i_scenecut_threshold),
    AT(i_log_level), AT(analyse.b_mb_info), AT(rc.i_rc_method), AT(rc.i_qp_min), AT(rc.i_qp_max),
    AT(rc.i_bitrate), AT(rc.f_rf_constant), AT(rc.f_rate_tolerance), AT(rc.i_aq_mode),
    AT(rc.f_qcompress), AT(b_annexb), AT(i_fps_num), AT(i_fps_den)};
// clang-format on

// One of the two libraries, called by name: the records of both have the same shape.
struct Side {
  void* library;
  std::string open;
  const Offsets& offsets;
  size_t blockSize;

  template <typename Result = int, typename... Arguments>
  Result call(const char* name, Arguments... arguments) const {
    return reinterpret_cast<Result (*)(Arguments...)>(dlsym(library, name))(arguments...);
  }
};
const std::string kBuild = std::to_string(X264_BUILD);
const Side kBridge = {dlopen(BRIDGE_PATH, RTLD_LAZY), "x264_encoder_open_142", kLegacyOffsets, 936};

// A parameter block between painted guards.
struct Block {
  const Side& side;
  std::string bytes = std::string(side.blockSize + 512, '\xA5');

  ~Block() { EXPECT_EQ(bytes.substr(0, 256) + bytes.substr(256 + side.blockSize), guards); }
  char* data() { return bytes.data() + 256; }
  void set(FieldValue item) {
    memcpy(data() + side.offsets[static_cast<size_t>(item.first)], &item.second, 4);
  }
  const std::string guards = std::string(512, '\xA5');
};

struct Session {
  const char* what;
  int legacyCsp, installedCsp, producedCsp;  // the last as build 142 numbers it
  const char *preset, *tune, *profile, *laterProfile;
  bool bitrateMode;
};
const std::string kLong(300, '0');
// clang-format off
constexpr Session kSessions[] = {
    {"quality", 1, X264_CSP_I420, 3, "ultrafast", "zerolatency", "baseline", nullptr, false},
    {"bitrate", 1, X264_CSP_I420, 3, "ultrafast", "zerolatency", "baseline", nullptr, true},
    {"strict profile stays", 1, X264_CSP_I420, 3, "fast", "psnr,zerolatency", "main", "high", false},
    {"delayed pictures", 1, X264_CSP_I420, 3, "superfast", nullptr, "high", nullptr, true},
    {"no preset", 2, X264_CSP_YV12, 3, nullptr, "zerolatency", nullptr, nullptr, false},
    {"chroma packed", 3, X264_CSP_NV12, 3, "0", "zerolatency", "baseline", nullptr, false},
    {"upside down", 0x1001, X264_CSP_I420 | X264_CSP_VFLIP, 3, "0", "", nullptr, nullptr, false},
    {"4:2:2", 4, X264_CSP_I422, 6, "0", "zerolatency", nullptr, nullptr, false},
    {"4:2:2, V first", 5, X264_CSP_YV16, 6, "0", "zerolatency", nullptr, nullptr, false},
    {"4:2:2, chroma packed", 6, X264_CSP_NV16, 6, "0", "zerolatency", nullptr, nullptr, false},
    {"4:4:4", 8, X264_CSP_I444, 8, "0", "zerolatency", nullptr, nullptr, false},
    {"4:4:4, V first", 9, X264_CSP_YV24, 8, "0", "zerolatency", nullptr, nullptr, false},
    {"BGR", 10, X264_CSP_BGR, 8, "0", "zerolatency", nullptr, nullptr, false},
    {"BGRA", 11, X264_CSP_BGRA, 8, "0", "zerolatency", nullptr, nullptr, false},
    {"RGB", 12, X264_CSP_RGB, 8, "0", "zerolatency", nullptr, nullptr, false},
};
const Session kRefused[] = {
    {"unknown preset", 1, 0, 0, "quickest", "zerolatency", "baseline", nullptr, false},
    {"preset too long", 1, 0, 0, kLong.c_str(), "zerolatency", "baseline", nullptr, false},
    {"unknown tune", 1, 0, 0, "fast", "screen", "baseline", nullptr, false},
    {"tune too long", 1, 0, 0, "fast", kLong.c_str(), "baseline", nullptr, false},
    {"unknown profile", 1, 0, 0, "fast", "zerolatency", "basic", nullptr, false},
    {"profile too long", 1, 0, 0, "fast", "zerolatency", "main", kLong.c_str(), false},
    {"unknown colour space", 13, 0, 0, "fast", "zerolatency", nullptr, nullptr, false},
};
// clang-format on

// All that a caller can see of a session.
struct Trace {
  std::string coded;           // coded bytes, and the first row of each picture that came out
  std::vector<int64_t> facts;  // results, and what pictures and parameters tell
  std::vector<int> csp;        // of the pictures that came out, and once more at the end

  void tell(int64_t fact) { facts.push_back(fact); }
  void tellValues(Block& block, int given) {
    for (size_t offset : block.side.offsets) {
      int32_t value;
      memcpy(&value, block.data() + offset, 4);
      tell(offset == 36 ? value - given : value);  // the colour space comes back as it was given
    }
  }
};

FieldValue quality(float value) {
  return {rateFactor, std::bit_cast<uint32_t>(value)};
}

void* openEncoder(const Side& side, const Session& session, int csp, Block& block, Trace& trace) {
  auto profile = [&](const char* name) {
    return side.call("x264_param_apply_profile", block.data(), name);
  };
  if (side.call("x264_param_default_preset", block.data(), session.preset, session.tune) != 0) {
    return nullptr;
  }
  trace.tellValues(block, &side == &kBridge ? 1 : X264_CSP_I420);
  // clang-format off
  for (const FieldValue& item : {FieldValue{threads, 1}, {width, 62}, {height, 46},
       {colourSpace, csp}, {keyintMax, 1 << 30}, {scenecutThreshold, 0}, {logLevel, 0}, {mbInfo, 1},
       {aqMode, 1}, {annexB, 0}, {fpsNum, 25}, {fpsDen, 1}, {rateMethod, session.bitrateMode ? 2 : 1},
       {qpMin, 12}, {qpMax, 40}, {bitrate, 300}, quality(9)}) block.set(item);
  // clang-format on
  if (profile(session.profile) != 0 || profile(session.laterProfile) != 0) return nullptr;
  return side.call<void*>(side.open.c_str(), block.data());
}

// Twelve calls of encode, the last five draining; the parameters change twice on the way.
Trace runSession(const Side& side, const Session& session, int csp) {
  Trace trace;
  Block block{side}, current{side};
  void* encoder = openEncoder(side, session, csp, block, trace);
  if (encoder == nullptr) return trace;
  auto reconfigure = [&](Block& changed, float value) {
    changed.set(quality(value));
    trace.tell(side.call("x264_encoder_reconfig", encoder, changed.data()));
  };
  std::vector<uint8_t> pixels(3 * 256 * 48), info(12);  // three planes, stride 256; 4 x 3 cells
  std::vector<float> offsets(info.size());
  x264_picture_t picture, produced = {};
  memset(&picture, 0xA5, sizeof(picture));
  side.call<void>("x264_picture_init", &picture);
  picture.img = {csp, 3, {256, 256, 256}, {&pixels[0], &pixels[256 * 48], &pixels[512 * 48]}};
  picture.prop.quant_offsets = offsets.data();
  picture.prop.mb_info = info.data();
  // A block of the caller's build is nothing to the library: the bridge holds it back.
  if (&side == &kBridge) picture.param = reinterpret_cast<x264_param_t*>(current.data());
  for (int frame = 0; frame < 12; ++frame) {
    picture.i_pts = frame;
    for (size_t i = 0; i < pixels.size(); ++i) {
      if (frame == 0 || i % 256 < 16) pixels[i] = static_cast<uint8_t>(i * i / 97 + frame * 5);
    }
    for (size_t cell = 0; cell < info.size(); ++cell) {
      info[cell] = frame > 0 && cell % 4 != 0;
      offsets[cell] = static_cast<float>(frame % 5) - static_cast<float>(cell % 3);
    }
    if (frame == 2) side.call("x264_encoder_invalidate_reference", encoder, int64_t{0});
    if (frame == 3) reconfigure(block, 25);
    if (frame == 5) side.call<void>("x264_encoder_parameters", encoder, current.data());
    if (frame == 5) reconfigure(current, 14);
    x264_nal_t* nals = nullptr;
    int count = 0;
    const int size = side.call("x264_encoder_encode", encoder, &nals, &count,
                               frame < 7 ? &picture : nullptr, &produced);
    for (int fact : {size, count, produced.i_type, produced.b_keyframe}) trace.tell(fact);
    if (size <= 0) continue;
    trace.coded.append(reinterpret_cast<char*>(nals[0].p_payload), size);
    trace.coded.append(reinterpret_cast<char*>(produced.img.plane[0]), 62);
    trace.csp.push_back(produced.img.i_csp);
    trace.tell(&side == &kBridge ? side.call("x264_encoder_get_last_quantizer", encoder)
                                 : produced.i_qpplus1 - 1);
  }
  trace.csp.push_back(produced.img.i_csp);
  side.call<void>("x264_encoder_parameters", encoder, current.data());
  side.call<void>("x264_encoder_close", encoder);
  trace.tellValues(current, csp);
  return trace;
}

TEST(Bridge, GivesWhatTheInstalledLibraryGives) {
  const Side installed = {dlopen(("libx264.so." + kBuild).c_str(), RTLD_NOW),
                          "x264_encoder_open_" + kBuild, kInstalledOffsets, sizeof(x264_param_t)};
  for (const Session& session : kSessions) {
    const Trace bridged = runSession(kBridge, session, session.legacyCsp);
    const Trace direct = runSession(installed, session, session.installedCsp);
    EXPECT_TRUE(bridged.coded == direct.coded) << session.what;
    EXPECT_EQ(bridged.facts, direct.facts) << session.what;
    EXPECT_EQ(bridged.csp, std::vector<int>(8, session.producedCsp)) << session.what;
  }
}

TEST(Bridge, RefusesWithOneLine) {
  for (const Session& session : kRefused) {
    Trace trace;
    Block block{kBridge};
    testing::internal::CaptureStderr();
    EXPECT_EQ(openEncoder(kBridge, session, session.legacyCsp, block, trace), nullptr);
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(text.find('\n') + 1 == text.size() && !text.empty()) << session.what << text;
  }
}

TEST(Bridge, SetsUpABlockAndRefusesOthers) {
  void* const null = nullptr;
  Block block{kBridge}, painted{kBridge};
  EXPECT_EQ(kBridge.call("x264_param_default_preset", block.data(), "ultrafast", "film"), 0);
  EXPECT_EQ(kBridge.call("x264_param_default_preset", null, "ultrafast", "film"), -1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(kBridge.call<void*>("x264_encoder_open_142", painted.data()), nullptr);
  EXPECT_EQ(kBridge.call("x264_param_apply_profile", null, "main"), -1);
  constexpr char kText[] =
      ": the parameter block was never set up with x264_param_default_preset\n";
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            std::string("x264 bridge: x264_encoder_open_142") + kText +
                "x264 bridge: x264_param_apply_profile" + kText);
  EXPECT_EQ(kBridge.call("x264_encoder_encode", null, null, null, null, null), -1);
  EXPECT_EQ(kBridge.call("x264_encoder_get_last_quantizer", null), -1);
  kBridge.call<void>("x264_encoder_close", null);
}

std::string outputOf(const std::string& command) {
  FILE* pipe = popen(command.c_str(), "r");
  std::string text(1 << 16, '\0');
  text.resize(fread(text.data(), 1, text.size(), pipe));
  pclose(pipe);
  return text;
}

TEST(BridgeLibrary, ExportsTenNamesAndNothingElse) {
  EXPECT_EQ(outputOf(NM_PATH " -D --defined-only --format=just-symbols " BRIDGE_PATH),
            "x264_encoder_close\nx264_encoder_encode\nx264_encoder_get_last_quantizer\n"
            "x264_encoder_invalidate_reference\nx264_encoder_open_142\nx264_encoder_parameters\n"
            "x264_encoder_reconfig\nx264_param_apply_profile\nx264_param_default_preset\n"
            "x264_picture_init\n");
}

// Where libraries are searched is read once, at a process's start: each case is a child.
TEST(BridgeLibrary, FindsTheInstalledLibraryOrSaysWhyNot) {
  const std::string versioned = "libx264.so." + kBuild;
  const std::string self = std::filesystem::read_symlink("/proc/self/exe");
  const struct {
    std::string file, target, output;  // what the search path holds; no target: an empty file
  } cases[] = {
      {versioned, "", "x264 bridge: cannot open " + versioned + ": "},
      {versioned, BRIDGE_PATH, "x264 bridge: " + versioned + " leads back to the bridge itself"},
      {"libx264.so", BRIDGE_PATH, "[  PASSED  ] 1 test."},
  };
  for (const auto& [file, target, output] : cases) {
    const std::string folder = testing::TempDir() + "bridge." + std::to_string(getpid());
    std::filesystem::create_directory(folder);
    const std::string path = folder + "/" + file;
    target.empty() ? (void)std::ofstream(path) : std::filesystem::create_symlink(target, path);
    const std::string text = outputOf("LD_LIBRARY_PATH='" + folder + "' '" + self +
                                      "' --gtest_filter=Bridge.SetsUp* 2>&1");
    EXPECT_NE(text.find(output), std::string::npos) << text;
    std::filesystem::remove_all(folder);
  }
}

}  // namespace
