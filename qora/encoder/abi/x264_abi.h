// SPDX-License-Identifier: BSD-2-Clause
// qora/encoder/abi/x264_abi.h -- The encoder library's records as API builds 128 to 142 lay them
// out.
//
// We are compiled without the library's header. Names are the library's own; one picture layout
// serves all builds, only the parameter block differs (param_layout.h). 64-bit ABI.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qora::encoder {

struct x264_t;        // an open encoder; opaque
struct x264_param_t;  // a parameter block; raw bytes, see param_layout.h

inline constexpr int32_t kCspI420 = 1;  // X264_CSP_I420 in builds 128 to 142
inline constexpr int32_t kCspNv12 = 3;  // X264_CSP_NV12, what reconstructed pictures have

// One NAL unit of an access unit. The payloads of one access unit lie back to back.
struct x264_nal_t {
  int32_t i_ref_idc;
  int32_t i_type;
  int32_t b_long_startcode;
  int32_t i_first_mb;
  int32_t i_last_mb;
  int32_t i_payload;  // bytes
  uint8_t* p_payload;
  int32_t i_padding;
};

struct x264_image_t {
  int32_t i_csp;
  int32_t i_plane;      // planes in use
  int32_t i_stride[4];  // bytes
  uint8_t* plane[4];
};

struct x264_image_properties_t {
  float* quant_offsets;  // one per macroblock, raster order; added to the quantizer
  void (*quant_offsets_free)(void*);
  uint8_t* mb_info;  // one per macroblock; 1 (constant): unchanged since the last frame
  void (*mb_info_free)(void*);
  double f_ssim;
  double f_psnr_avg;
  double f_psnr[3];
  double f_crf_avg;
};

struct x264_picture_t {
  int32_t i_type;
  int32_t i_qpplus1;
  int32_t i_pic_struct;
  int32_t b_keyframe;
  int64_t i_pts;
  int64_t i_dts;
  x264_param_t* param;
  x264_image_t img;
  x264_image_properties_t prop;
  double hrd_timing[4];
  struct {
    int32_t num_payloads;
    void* payloads;
    void (*sei_free)(void*);
  } extra_sei;
  void* opaque;
};

static_assert(offsetof(x264_nal_t, i_payload) == 20 && offsetof(x264_nal_t, p_payload) == 24 &&
              sizeof(x264_nal_t) == 40);
static_assert(offsetof(x264_image_t, i_stride) == 8 && offsetof(x264_image_t, plane) == 24 &&
              sizeof(x264_image_t) == 56);
static_assert(offsetof(x264_picture_t, b_keyframe) == 12 && offsetof(x264_picture_t, param) == 32 &&
              offsetof(x264_picture_t, img) == 40 && offsetof(x264_picture_t, prop) == 96);
static_assert(offsetof(x264_image_properties_t, mb_info) == 16 &&
              sizeof(x264_image_properties_t) == 80);
static_assert(offsetof(x264_picture_t, hrd_timing) == 176 &&
              offsetof(x264_picture_t, opaque) == 232 && sizeof(x264_picture_t) == 240);

}  // namespace qora::encoder
