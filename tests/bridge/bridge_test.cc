// The bridge beside the installed library: the same calls must give the same bytes.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <x264.h>

#include <bit>
#include <filesystem>
#include <fstream>

#include "encoder/param_layout.h"

namespace {

using enum qora::encoder::ParamField;
using qora::encoder::kParamFieldCount;
using Offsets = std::array<size_t, kParamFieldCount>;  // by ParamField
using FieldValue = std::pair<qora::encoder::ParamField, uint32_t>;

constexpr Offsets kLegacyOffsets = {4,   28,  32,  36,  96,  104, 520, 620, 648, 656,
                                    660, 668, 672, 680, 708, 752, 820, 836, 840};
// clang-format off
#define AT(field) offsetof(x264_param_t, field)
constexpr Offsets kInstalledOffsets = {
    AT(i_threads), AT(i_width), AT(i_height), AT(i_csp), AT(i_keyint_max), AT(i_scenecut_threshold),
    AT(i_log_level), AT(analyse.b_mb_info), AT(rc.i_rc_method), AT(rc.i_qp_min), AT(rc.i_qp_max),
    AT(rc.i_bitrate), AT(rc.f_rf_constant), AT(rc.f_rate_tolerance), AT(rc.i_aq_mode),
    AT(rc.f_qcompress), AT(b_annexb), AT(i_fps_num), AT(i_fps_den)};
// clang-format on
const std::string kBuild = std::to_string(X264_BUILD);

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
const Side kBridge = {dlopen(BRIDGE_PATH, RTLD_LAZY), "x264_encoder_open_142", kLegacyOffsets, 936};

// A parameter block between painted guards.
struct Block {
  const Side& side;
  std::string bytes = std::string(side.blockSize + 512, '\xA5');

  char* data() { return bytes.data() + 256; }
  void set(FieldValue item) {
    memcpy(data() + side.offsets[static_cast<size_t>(item.first)], &item.second, 4);
  }
  bool guarded() const {
    const std::string paint(256, '\xA5');
    return bytes.starts_with(paint) && bytes.ends_with(paint);
  }
};

struct Session {
  const char* what;
  int legacyCsp, installedCsp, producedCsp;  // the last as build 142 numbers it
  const char *preset, *tune, *profile, *laterProfile;
  bool bitrateMode;
};
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
// clang-format on

// All that a caller can see of a session of 12 calls, the last five of them draining.
struct Trace {
  std::string coded;             // coded bytes, and the first row of each picture that came out
  std::vector<int64_t> facts;    // results, and what pictures and parameters tell
  std::vector<int> producedCsp;  // of the pictures that came out
};

Trace runSession(const Side& side, const Session& session, int csp) {
  Trace trace;
  auto tell = [&trace](int64_t fact) { trace.facts.push_back(fact); };
  auto quality = [](float value) { return FieldValue{rateFactor, std::bit_cast<uint32_t>(value)}; };
  Block block{side}, current{side};
  tell(side.call("x264_param_default_preset", block.data(), session.preset, session.tune));
  // clang-format off
  for (const FieldValue& item : {FieldValue{threads, 1}, {width, 62}, {height, 46},
       {colourSpace, csp}, {keyintMax, 1 << 30}, {scenecutThreshold, 0}, {logLevel, -1u}, {mbInfo, 1},
       {aqMode, 1}, {annexB, 0}, {fpsNum, 25}, {fpsDen, 1}, {rateMethod, session.bitrateMode ? 2 : 1},
       {qpMin, 12}, {qpMax, 40}, {bitrate, 300}, quality(9)}) block.set(item);
  // clang-format on
  tell(side.call("x264_param_apply_profile", block.data(), session.profile));
  tell(side.call("x264_param_apply_profile", block.data(), session.laterProfile));
  void* encoder = side.call<void*>(side.open.c_str(), block.data());
  if (encoder == nullptr) return trace;

  std::vector<uint8_t> pixels(3 * 256 * 48), info(12);  // three planes, stride 256; 4 x 3 cells
  std::vector<float> offsets(info.size());
  x264_picture_t picture, produced = {};
  memset(&picture, 0xA5, sizeof(picture));
  side.call<void>("x264_picture_init", &picture);
  picture.img = {csp, 3, {256, 256, 256}, {&pixels[0], &pixels[256 * 48], &pixels[512 * 48]}};
  picture.prop.quant_offsets = offsets.data();
  picture.prop.mb_info = info.data();
  for (int frame = 0; frame < 12; ++frame) {
    picture.i_pts = frame;
    for (size_t i = 0; i < pixels.size(); ++i) {
      if (frame == 0 || i % 256 < 16) pixels[i] = static_cast<uint8_t>(i * i / 97 + frame * 5);
    }
    for (size_t cell = 0; cell < info.size(); ++cell) {
      info[cell] = frame > 0 && cell % 4 != 0;
      offsets[cell] = static_cast<float>(frame % 5) - static_cast<float>(cell % 3);
    }
    if (frame == 2) tell(side.call("x264_encoder_invalidate_reference", encoder, int64_t{0}));
    if (frame == 3 || frame == 5) {
      Block& changed = frame == 3 ? block : current;
      if (frame == 5) side.call<void>("x264_encoder_parameters", encoder, current.data());
      changed.set(quality(frame == 3 ? 25 : 14));
      tell(side.call("x264_encoder_reconfig", encoder, changed.data()));
    }
    x264_nal_t* nals = nullptr;
    int count = 0;
    const int size = side.call("x264_encoder_encode", encoder, &nals, &count,
                               frame < 7 ? &picture : nullptr, &produced);
    for (int64_t fact : {size, count, produced.i_type}) tell(fact);
    if (size <= 0) continue;
    trace.coded.append(reinterpret_cast<char*>(nals[0].p_payload), size);
    trace.coded.append(reinterpret_cast<char*>(produced.img.plane[0]), 62);
    trace.producedCsp.push_back(produced.img.i_csp);
    for (int64_t fact : {int64_t{produced.b_keyframe}, produced.i_pts}) tell(fact);
    tell(&side == &kBridge ? side.call("x264_encoder_get_last_quantizer", encoder)
                           : produced.i_qpplus1 - 1);
  }
  EXPECT_EQ(picture.img.i_csp, csp) << "the caller's picture is its own";
  side.call<void>("x264_encoder_parameters", encoder, current.data());
  side.call<void>("x264_encoder_close", encoder);
  for (size_t offset : side.offsets) {
    int32_t value;
    memcpy(&value, current.data() + offset, 4);
    tell(offset == 36 ? value - csp : value);  // the colour space comes back as it was given
  }
  EXPECT_TRUE(block.guarded() && current.guarded());
  return trace;
}

TEST(Bridge, GivesWhatTheInstalledLibraryGives) {
  const Side installed = {dlopen(("libx264.so." + kBuild).c_str(), RTLD_NOW),
                          "x264_encoder_open_" + kBuild, kInstalledOffsets, sizeof(x264_param_t)};
  ASSERT_TRUE(kBridge.library != nullptr && installed.library != nullptr);
  for (const Session& session : kSessions) {
    SCOPED_TRACE(session.what);
    const Trace bridged = runSession(kBridge, session, session.legacyCsp);
    const Trace direct = runSession(installed, session, session.installedCsp);
    EXPECT_TRUE(bridged.coded == direct.coded);
    EXPECT_EQ(bridged.facts, direct.facts);
    EXPECT_EQ(bridged.producedCsp, std::vector<int>(7, session.producedCsp));
  }
}

TEST(Bridge, PresetRewritesItsOwnBytesOnly) {
  Block block{kBridge}, expected{kBridge};
  ASSERT_EQ(kBridge.call("x264_param_default_preset", block.data(), "ultrafast", "film"), 0);
  memset(expected.data(), 0, 844);  // what follows in the block is the bridge's own
  for (const FieldValue& item : {FieldValue{colourSpace, 1},
                                 {keyintMax, 250},
                                 {logLevel, 2},
                                 {rateMethod, 1},
                                 {qpMax, 0x7fffffff},
                                 {rateFactor, 0x41b80000},
                                 {rateTolerance, 0x3f800000},
                                 {qcompress, 0x3f19999a},
                                 {annexB, 1},
                                 {fpsNum, 25},
                                 {fpsDen, 1}}) {
    expected.set(item);
  }
  EXPECT_TRUE(block.guarded());
  EXPECT_EQ(block.bytes.substr(256, 844), expected.bytes.substr(256, 844));
}

TEST(Bridge, RefusesWithOneLine) {
  const std::string text(300, '0');
  const char* const longName = text.c_str();
  Block block{kBridge}, painted{kBridge};
  auto preset = [&](const char* name, const char* tune) {
    return kBridge.call("x264_param_default_preset", block.data(), name, tune);
  };
  auto profile = [](Block& in, const char* name) {
    return kBridge.call("x264_param_apply_profile", in.data(), name);
  };
  auto open = [](Block& in) {
    return kBridge.call<void*>("x264_encoder_open_142", in.data()) != nullptr ? 0 : -1;
  };
  auto openAs13 = [&] {
    for (const FieldValue& item : {FieldValue{width, 16}, {height, 16}, {colourSpace, 13}}) {
      block.set(item);
    }
    return open(block);
  };
  const std::pair<const char*, std::function<int()>> calls[] = {
      {"unknown preset", [&] { return preset("quickest", nullptr); }},
      {"block of a failed preset", [&] { return open(block); }},
      {"unknown tune", [&] { return preset("fast", "screen"); }},
      {"preset too long", [&] { return preset(longName, nullptr); }},
      {"tune too long", [&] { return preset("fast", longName); }},
      {"block never set up, profile", [&] { return profile(painted, "main"); }},
      {"block never set up, open", [&] { return open(painted); }},
      {"unknown profile", [&] { return preset("fast", "film") | profile(block, "basic"); }},
      {"profile too long", [&] { return profile(block, longName); }},
      {"unknown colour space", openAs13},
  };
  for (const auto& [what, call] : calls) {
    testing::internal::CaptureStderr();
    const int result = call();
    const std::string lines = testing::internal::GetCapturedStderr();
    EXPECT_EQ(result, -1) << what;
    EXPECT_EQ(lines.find('\n') + 1, lines.size()) << what << ": " << lines;
  }
}

TEST(Bridge, NullHandlesAndBlocksAreFailures) {
  void* const null = nullptr;
  kBridge.call<void>("x264_encoder_close", null);
  kBridge.call<void>("x264_encoder_parameters", null, null);
  EXPECT_EQ(kBridge.call("x264_param_default_preset", null, "fast", "film"), -1);
  EXPECT_EQ(kBridge.call<void*>("x264_encoder_open_142", null), nullptr);
  EXPECT_EQ(kBridge.call("x264_encoder_encode", null, null, null, null, null), -1);
  EXPECT_EQ(kBridge.call("x264_encoder_reconfig", null, null), -1);
  EXPECT_EQ(kBridge.call("x264_encoder_get_last_quantizer", null), -1);
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
  const struct {
    const char* what;
    std::string file, target, output;  // no target: an empty file
  } cases[] = {
      {"damaged", versioned, "", "x264 bridge: cannot open " + versioned + ": "},
      {"the bridge itself", versioned, BRIDGE_PATH, versioned + " leads back to the bridge itself"},
      {"the bridge's own folder", "libx264.so", BRIDGE_PATH, "[  PASSED  ] 1 test."},
  };
  const std::string self = std::filesystem::read_symlink("/proc/self/exe");
  for (const auto& [what, file, target, output] : cases) {
    std::string folder = testing::TempDir() + "bridge.XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    const std::string path = folder + "/" + file;
    target.empty() ? (void)std::ofstream(path) : std::filesystem::create_symlink(target, path);
    const std::string text = outputOf("LD_LIBRARY_PATH='" + folder + "' '" + self +
                                      "' --gtest_filter=Bridge.PresetRewrites* 2>&1");
    EXPECT_NE(text.find(output), std::string::npos) << what << ": " << text;
    std::filesystem::remove_all(folder);
  }
}

}  // namespace
