// SPDX-License-Identifier: BSD-2-Clause
// qora/encoder/encoder_api.h -- The encoder library: found, loaded and resolved into one table.
//
// The library is not linked. It lies at $QORA_SYSTEM/lib/libx264.so or, failing that, at
// $QORA_SYSTEM/codec/lib/libx264.so. Its API build is learnt from the versioned name of its open
// function, and with it the parameter filler that knows the build's layout. One thread.
#pragma once

#include <cstdint>

#include "qora/encoder/abi/x264_abi.h"
#include "qora/encoder/fill_parameters.h"

namespace qora::encoder {

// All zero while unloaded, but for the resolved functions: those keep stale values and must not be
// called without a library. Loading succeeds only with every function resolved; who fills the table
// by hand may leave out x264_encoder_get_last_quantizer.
struct EncoderApi {
  char* libraryPath = nullptr;    // malloc, owned: the file being tried or in use
  void* libraryHandle = nullptr;  // non-null exactly while a library is open
  int32_t buildNumber = 0;        // 128, 129, 130, 132, 133, 135, 138 or 142

  FillParameters fillParameters = nullptr;  // ours, chosen by buildNumber

  // The library's, with the signatures of the public functions of the same names.
  x264_t* (*x264_encoder_open)(x264_param_t*) = nullptr;
  int32_t (*x264_encoder_reconfig)(x264_t*, x264_param_t*) = nullptr;
  void (*x264_encoder_close)(x264_t*) = nullptr;
  int32_t (*x264_encoder_encode)(x264_t*, x264_nal_t**, int32_t*, x264_picture_t*,
                                 x264_picture_t*) = nullptr;
  int32_t (*x264_encoder_invalidate_reference)(x264_t*, int64_t pts) = nullptr;
  int32_t (*x264_encoder_get_last_quantizer)(x264_t*) = nullptr;
  void (*x264_picture_init)(x264_picture_t*) = nullptr;
  int32_t (*x264_param_default_preset)(x264_param_t*, const char* preset,
                                       const char* tune) = nullptr;
  void (*x264_encoder_parameters)(x264_t*, x264_param_t*) = nullptr;
  int32_t (*x264_param_apply_profile)(x264_param_t*, const char* profile) = nullptr;
};

EncoderApi& encoderApi();

// Tries the two places in order. 1 when the library is loaded now, 0 when it was already, -1 when
// it cannot be had. Log lines say why; a file that is not there has none and leaves only errno. An
// unset variable leaves errno as it was, every other failure sets it.
int32_t loadEncoderLibrary();

// Closes the library if one is open. Always 1; errno is disturbed only by a close that failed.
int32_t unloadEncoderLibrary();

}  // namespace qora::encoder
