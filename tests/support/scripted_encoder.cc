// SPDX-License-Identifier: BSD-2-Clause
// An encoder library that encodes nothing and does what the environment variable SCRIPTED_ENCODER
// says when an encoder is opened, a list of name=number:
//   preset, profile, open  other than 0: refused                     (0)
//   encode   the result, and the payload's size, up to 1 MiB         (100)
//   planes   so many frames have a reconstruction                    (0)
//   report   the payload is a text of what the encoder was given: where the parameter block has its
//            aq mode, the picture, so many cells of the maps         (0)
//   errno    what every failure leaves                               (0)
// The payload of frame n is the bytes n, n + 1, n + 2, ... It has the open function of every build,
// so it is taken for the newest; the harness spoils the names that a library shall lack.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "qora/encoder/abi/x264_abi.h"

namespace {

using qora::encoder::x264_nal_t;
using qora::encoder::x264_picture_t;

struct ScriptedEncoder {
  int32_t frames, invalidated, size, framesWithPlanes, cells, aqModeAt;
  x264_nal_t nal;
  char text[4096];
  uint8_t planes[2][64 * 64];
};

int32_t openEncoders = 0;
uint8_t pattern[(1 << 20) + 256];

int32_t scripted(const char* name, int32_t otherwise) {
  const char* script = getenv("SCRIPTED_ENCODER");
  const char* entry = script == nullptr ? nullptr : strstr(script, name);
  return entry == nullptr ? otherwise : atoi(entry + strlen(name) + 1);
}

// What a function is to return: 0, or a refusal, which leaves its errno.
int32_t resultOf(const char* function) {
  const int32_t result = scripted(function, 0);
  if (result != 0) errno = scripted("errno", 0);
  return result;
}

// The size of the text.
int32_t report(ScriptedEncoder& encoder, const x264_picture_t& in) {
  const auto& [type, count, stride, plane] = in.img;
  int32_t size =
      sprintf(encoder.text,
              "%d open, %d invalidated, aq mode at %d; %d planes, type %d: %td %td, %d %d %d;",
              openEncoders, encoder.invalidated, encoder.aqModeAt, count, type, plane[1] - plane[0],
              plane[2] - plane[0], stride[0], stride[1], stride[2]);
  for (int32_t i = 0; i < encoder.cells; ++i) {
    size += sprintf(encoder.text + size, " %d:%g", in.prop.mb_info[i], in.prop.quant_offsets[i]);
  }
  encoder.nal.p_payload = reinterpret_cast<uint8_t*>(encoder.text);
  return size;
}

}  // namespace

extern "C" {

void* x264_encoder_open_142(void* param) {
  if (resultOf("open") != 0) return nullptr;
  auto* encoder = static_cast<ScriptedEncoder*>(calloc(1, sizeof(ScriptedEncoder)));
  if (encoder == nullptr) return nullptr;
  encoder->size = scripted("encode", 100);
  encoder->framesWithPlanes = scripted("planes", 0);
  encoder->cells = scripted("report", 0);
  for (int32_t at = 704; at <= 716; at += 4) {  // by layout; it is set to 1
    if (static_cast<const int32_t*>(param)[at / 4] == 1) encoder->aqModeAt = at;
  }
  for (int32_t i = 0; i < encoder->size + 256; ++i) pattern[i] = static_cast<uint8_t>(i);
  ++openEncoders;
  return encoder;
}
asm(".irp build, 128, 129, 130, 132, 133, 135, 138, 161\n"
    ".globl x264_encoder_open_\\build\n"
    ".set x264_encoder_open_\\build, x264_encoder_open_142\n"
    ".endr");

int x264_encoder_reconfig(void*, void*) {
  return 0;
}
void x264_encoder_close(void* encoder) {
  free(encoder);
  --openEncoders;
}
void x264_encoder_parameters(void*, void*) {}
int x264_encoder_invalidate_reference(void* encoder, int64_t pts) {
  static_cast<ScriptedEncoder*>(encoder)->invalidated += pts == 0 ? 1 : 100;
  return 0;
}
int x264_encoder_get_last_quantizer(void* encoder) {  // of which a reply has room for a byte
  return 0x100 + 20 + static_cast<ScriptedEncoder*>(encoder)->frames;
}
void x264_picture_init(x264_picture_t* picture) {
  *picture = {};
}
int x264_param_default_preset(void*, const char*, const char*) {
  return resultOf("preset");
}
int x264_param_apply_profile(void*, const char*) {
  return resultOf("profile");
}

int x264_encoder_encode(void* handle, x264_nal_t** nals, int* count, x264_picture_t* in,
                        x264_picture_t* out) {
  auto* encoder = static_cast<ScriptedEncoder*>(handle);
  encoder->nal.p_payload = pattern + encoder->frames % 256;
  const int32_t size = encoder->cells > 0 ? report(*encoder, *in) : encoder->size;
  out->b_keyframe = encoder->frames == 0 ? 0x101 : 0;  // of which a reply has room for a byte
  const bool planes = encoder->frames < encoder->framesWithPlanes;
  for (int plane = 0; plane < 2; ++plane) {
    out->img.plane[plane] = planes ? encoder->planes[plane] : nullptr;
    out->img.i_stride[plane] = 64;
  }
  ++encoder->frames;
  *nals = &encoder->nal;
  *count = 1;
  if (size <= 0) errno = scripted("errno", 0);
  return size;
}

}  // extern "C"
