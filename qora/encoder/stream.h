// SPDX-License-Identifier: BSD-2-Clause
// qora/encoder/stream.h -- One encoder stream: what a parameter filler reads and writes.
#pragma once

#include <cstdint>

#include "qora/encoder/abi/param_layout.h"
#include "qora/encoder/abi/x264_abi.h"

namespace qora::encoder {

// One slot of the stream table; all zero while empty. Field names follow the encoder library.
struct EncoderStream {
  uint32_t in_use;
  uint32_t frame_count;  // frames encoded since the stream was added
  int32_t mb_width;      // picture size in 16x16 macroblocks, partial ones counted
  int32_t mb_height;
  x264_param_t* param;  // the filled block inside param_storage; null until a filler succeeded
  // One block for each parameter layout, in the layouts' order; a filler writes its own only.
  alignas(alignof(void*)) uint8_t param_storage[kParamStorageSize];
  x264_picture_t picture;      // input
  x264_picture_t picture_out;  // what the last encode filled
  x264_t* encoder;             // null while the slot is empty
  x264_nal_t* nals;            // of the last encode; the encoder's memory
  int32_t nal_count;
  uint8_t* mb_info_map;      // mb_width * mb_height bytes, calloc, owned
  float* quant_offsets_map;  // mb_width * mb_height floats, calloc, owned
};

// Set by every add-stream command: 1 when its bitrate is above 0. One flag for the whole process: a
// stream that was added before keeps its rate control, but from now on the quantizer offsets of all
// streams are taken as the flag says. Parents that mix both kinds send offsets that fit.
int32_t& bitrateMode();

}  // namespace qora::encoder
