// An encoder library that encodes nothing and does what the environment variable FAKE_ENCODER says,
// a list of name=number separated by commas:
//   preset, profile   their results                 (0)
//   open              0: the open function fails    (1)
//   encode            the result, the payload's size (100)
//   planes            so many frames give an output picture with reconstructed planes (0)
//   tell              the payload is what the encoder was given: the picture, so many map cells (0)
//   errno             what every failure leaves     (0)
// The payload of frame n is the bytes n, n + 1, n + 2, ...
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "qora/encoder/abi/x264_abi.h"

namespace {

using qora::encoder::x264_nal_t;
using qora::encoder::x264_picture_t;

int32_t scripted(const char* name, int32_t otherwise) {
  const char* script = getenv("FAKE_ENCODER");
  const char* entry = script == nullptr ? nullptr : strstr(script, name);
  return entry == nullptr ? otherwise : atoi(entry + strlen(name) + 1);
}

int32_t result(int32_t value, bool failed) {
  if (failed) errno = scripted("errno", 0);
  return value;
}

struct FakeEncoder {
  int32_t frames = 0, invalidated = 0;
  x264_nal_t nal = {};
  uint8_t payload[1 << 20];
  uint8_t planes[2][64 * 64];
};

int32_t openEncoders = 0;

// The size of the text.
int32_t tell(FakeEncoder& encoder, const x264_picture_t& in, int32_t cells) {
  char* text = reinterpret_cast<char*>(encoder.payload);
  const auto& [type, count, stride, plane] = in.img;
  int32_t size = sprintf(text, "%d open, %d invalidated; %d planes, type %d: %td %td, %d %d %d;",
                         openEncoders, encoder.invalidated, count, type, plane[1] - plane[0],
                         plane[2] - plane[0], stride[0], stride[1], stride[2]);
  for (int32_t i = 0; i < cells; ++i) {
    size += sprintf(text + size, " %d:%g", in.prop.mb_info[i], in.prop.quant_offsets[i]);
  }
  return size;
}

}  // namespace

extern "C" {

void* FAKE_OPEN(void*) {
  const bool fails = scripted("open", 1) == 0;
  result(0, fails);
  openEncoders += fails ? 0 : 1;
  return fails ? nullptr : new (std::nothrow) FakeEncoder;
}
#ifdef FAKE_SECOND_OPEN
void* FAKE_SECOND_OPEN(void* param) {
  return FAKE_OPEN(param);
}
#endif

int x264_encoder_reconfig(void*, void*) {
  return 0;
}
void x264_encoder_close(void* encoder) {
  delete static_cast<FakeEncoder*>(encoder);
  --openEncoders;
}
void x264_encoder_parameters(void*, void*) {}
int x264_encoder_invalidate_reference(void* encoder, int64_t pts) {
  static_cast<FakeEncoder*>(encoder)->invalidated += pts == 0 ? 1 : 100;
  return 0;
}
int x264_encoder_get_last_quantizer(void* encoder) {  // of which a reply has room for a byte
  return 0x100 + 20 + static_cast<FakeEncoder*>(encoder)->frames;
}
void x264_picture_init(x264_picture_t* picture) {
  *picture = {};
}
int x264_param_default_preset(void*, const char*, const char*) {
  const int32_t value = scripted("preset", 0);
  return result(value, value != 0);
}
int x264_param_apply_profile(void*, const char*) {
  const int32_t value = scripted("profile", 0);
  return result(value, value != 0);
}

int x264_encoder_encode(void* handle, x264_nal_t** nals, int* count, x264_picture_t* in,
                        x264_picture_t* out) {
  auto* encoder = static_cast<FakeEncoder*>(handle);
  int32_t size = scripted("encode", 100);
  for (int32_t i = 0; i < size; ++i) {
    encoder->payload[i] = static_cast<uint8_t>(encoder->frames + i);
  }
  if (const int32_t cells = scripted("tell", 0); cells > 0) size = tell(*encoder, *in, cells);
  out->b_keyframe = encoder->frames == 0 ? 0x101 : 0;
  const bool planes = encoder->frames < scripted("planes", 0);
  for (int plane = 0; plane < 2; ++plane) {
    out->img.plane[plane] = planes ? encoder->planes[plane] : nullptr;
    out->img.i_stride[plane] = 64;
  }
  ++encoder->frames;
  encoder->nal.p_payload = encoder->payload;
  *nals = &encoder->nal;
  *count = 1;
  return result(size, size <= 0);
}

}  // extern "C"
