// tests/fuzz/bridge_fuzzer.cc -- Parameter blocks of any content, and any names of presets, tunes
// and profiles, through the bridge's functions and the installed library. A block is either refused
// or goes on to mean the same.

#include <cstring>

#include "qora/bridge/legacy_params.h"
#include "qora/encoder/abi/x264_abi.h"
#include "tests/fuzz/fuzz.h"

extern "C" {
int x264_param_default_preset(qora::encoder::x264_param_t*, const char*, const char*);
int x264_param_apply_profile(qora::encoder::x264_param_t*, const char*);
}

namespace {

using namespace qora;
using fuzz::require;

bool same(const bridge::LegacyParams& one, const bridge::LegacyParams& other) {
  return one.values == other.values && memcmp(&one.recipe, &other.recipe, sizeof one.recipe) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  const std::string preset = in.text();
  const std::string tune = in.text();
  const std::string profile = in.text();
  std::vector<uint8_t> block = in.rest();
  block.resize(bridge::kLegacyBlockSize);
  auto* param = reinterpret_cast<encoder::x264_param_t*>(block.data());

  bridge::LegacyParams params;
  if (bridge::loadLegacyParams(block.data(), params) == 1) {
    std::vector<uint8_t> stored(bridge::kLegacyBlockSize, 0xA5);
    bridge::storeLegacyParams(params, stored.data());
    bridge::LegacyParams again;
    require(bridge::loadLegacyParams(stored.data(), again) == 1 && same(params, again),
            "a block does not come back");
    x264_param_apply_profile(param, profile.c_str());
    require(bridge::loadLegacyParams(block.data(), again) == 1, "a profile ruins the block");
  } else {
    require(x264_param_apply_profile(param, profile.c_str()) == -1, "a bad block is taken");
  }

  const int result = x264_param_default_preset(param, preset.empty() ? nullptr : preset.c_str(),
                                               tune.empty() ? nullptr : tune.c_str());
  require(bridge::loadLegacyParams(block.data(), params) == (result == 0 ? 1 : 0),
          "result and block differ");
  return 0;
}
