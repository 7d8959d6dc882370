// SPDX-License-Identifier: GPL-2.0-or-later
// qora/bridge/exports.cc -- The library's C functions, as API build 142 has them.
//
// A caller takes the bridge for an encoder library of build 142: it fills a block of 936 bytes by
// offset and hands in pictures with that build's colour space numbers. The file never sees the
// installed library's header, which declares the same names with other types. Handles, pictures and
// results are as the library documents them; a null handle or block is a failure, never a crash.
// Threads: as the library has it, see installed_encoder.h.

#include <cstring>

#include "qora/bridge/diagnostics.h"
#include "qora/bridge/installed_encoder.h"
#include "qora/bridge/legacy_params.h"
#include "qora/encoder/abi/x264_abi.h"

#define QORA_EXPORT extern "C" [[gnu::visibility("default")]]

using qora::bridge::LegacyParams;
using qora::bridge::OpenEncoder;
using qora::encoder::x264_nal_t;
using qora::encoder::x264_param_t;
using qora::encoder::x264_picture_t;
using qora::encoder::x264_t;

namespace {

OpenEncoder* opened(x264_t* handle) {
  return reinterpret_cast<OpenEncoder*>(handle);
}

// What `block` holds; false with a line that names the caller's function when it holds nothing.
bool loadBlock(const char* function, const x264_param_t* block, LegacyParams& params) {
  if (qora::bridge::loadLegacyParams(block, params) == 1) return true;
  qora::bridge::complain("%s: the parameter block was never set up with x264_param_default_preset",
                         function);
  return false;
}

}  // namespace

// Every byte of the block is rewritten; after a failure it counts as never set up.
QORA_EXPORT int x264_param_default_preset(x264_param_t* block, const char* preset,
                                          const char* tune) {
  if (block == nullptr) return -1;
  qora::bridge::clearLegacyParams(block);
  LegacyParams params;
  if (params.recipe.preset.set(preset) == -1 || params.recipe.tune.set(tune) == -1) {
    qora::bridge::complain(
        "x264_param_default_preset: the preset's or the tune's name is too long");
    return -1;
  }
  const int32_t result = qora::bridge::presetValues(params.recipe, params.values);
  if (result < 0) return result;
  qora::bridge::storeLegacyParams(params, block);
  return result;
}

QORA_EXPORT int x264_param_apply_profile(x264_param_t* block, const char* profile) {
  LegacyParams params;
  if (!loadBlock("x264_param_apply_profile", block, params)) return -1;
  const int32_t result = qora::bridge::applyProfile(params, profile);
  if (result >= 0) qora::bridge::storeLegacyParams(params, block);
  return result;
}

// Zero is what every member starts from: type, quantizer and field order "automatic".
QORA_EXPORT void x264_picture_init(x264_picture_t* picture) {
  if (picture != nullptr) *picture = {};
}

QORA_EXPORT x264_t* x264_encoder_open_142(x264_param_t* block) {
  LegacyParams params;
  if (!loadBlock("x264_encoder_open_142", block, params)) return nullptr;
  return reinterpret_cast<x264_t*>(qora::bridge::openEncoder(params));
}

QORA_EXPORT void x264_encoder_close(x264_t* handle) {
  if (handle != nullptr) qora::bridge::closeEncoder(opened(handle));
}

QORA_EXPORT int x264_encoder_reconfig(x264_t* handle, x264_param_t* block) {
  LegacyParams params;
  if (handle == nullptr || !loadBlock("x264_encoder_reconfig", block, params)) return -1;
  return qora::bridge::reconfigureEncoder(*opened(handle), params);
}

QORA_EXPORT void x264_encoder_parameters(x264_t* handle, x264_param_t* block) {
  if (handle == nullptr || block == nullptr) return;
  qora::bridge::storeLegacyParams(qora::bridge::currentParams(*opened(handle)), block);
}

QORA_EXPORT int x264_encoder_encode(x264_t* handle, x264_nal_t** nals, int* count,
                                    x264_picture_t* picture, x264_picture_t* produced) {
  if (handle == nullptr || nals == nullptr || count == nullptr || produced == nullptr) return -1;
  return qora::bridge::encodePicture(*opened(handle), nals, count, picture, produced);
}

QORA_EXPORT int x264_encoder_invalidate_reference(x264_t* handle, int64_t pts) {
  return handle != nullptr ? qora::bridge::invalidateReference(*opened(handle), pts) : -1;
}

// No library of a distribution has this one. -1 when no picture came out yet.
QORA_EXPORT int x264_encoder_get_last_quantizer(x264_t* handle) {
  return handle != nullptr ? qora::bridge::lastQuantizer(*opened(handle)) : -1;
}
