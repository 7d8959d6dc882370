// An encoder library of build 142 that returns at once with the same bytes, as many as the
// environment variable INSTANT_BYTES says: what a round trip costs without an encoder.
#include <cstdlib>

#include "qora/encoder/abi/x264_abi.h"

namespace {

using qora::encoder::x264_nal_t;
using qora::encoder::x264_picture_t;

struct InstantEncoder {
  x264_nal_t nal = {};
  int size = 0;
};

}  // namespace

extern "C" {

void* x264_encoder_open_142(void*) {
  const char* bytes = getenv("INSTANT_BYTES");
  auto* encoder = new InstantEncoder;
  encoder->size = bytes != nullptr ? atoi(bytes) : 100;
  encoder->nal.p_payload = static_cast<uint8_t*>(calloc(static_cast<size_t>(encoder->size), 1));
  return encoder;
}
void x264_encoder_close(void* handle) {
  auto* encoder = static_cast<InstantEncoder*>(handle);
  free(encoder->nal.p_payload);
  delete encoder;
}
int x264_encoder_encode(void* handle, x264_nal_t** nals, int* count, x264_picture_t*,
                        x264_picture_t*) {
  auto* encoder = static_cast<InstantEncoder*>(handle);
  *nals = &encoder->nal;
  *count = 1;
  return encoder->size;
}
int x264_encoder_reconfig(void*, void*) {
  return 0;
}
void x264_encoder_parameters(void*, void*) {}
int x264_encoder_invalidate_reference(void*, int64_t) {
  return 0;
}
int x264_encoder_get_last_quantizer(void*) {
  return 20;
}
void x264_picture_init(x264_picture_t* picture) {
  *picture = {};
}
int x264_param_default_preset(void*, const char*, const char*) {
  return 0;
}
int x264_param_apply_profile(void*, const char*) {
  return 0;
}

}  // extern "C"
