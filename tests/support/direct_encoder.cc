#include "tests/support/direct_encoder.h"

#include <x264.h>

#include <algorithm>
#include <cstdlib>

#include "qora/service/macroblock_maps.h"
#include "qora/service/region_copy.h"

namespace qora::test {

struct DirectEncoder::State {
  x264_t* encoder = nullptr;
  x264_picture_t in, out = {};
  std::vector<uint8_t> info;
  std::vector<float> quantizer;
  service::MacroblockMaps maps;
  int32_t bitrateMode;
  std::chrono::nanoseconds encoderTime{};
};

DirectEncoder::DirectEncoder(const service::AddStreamRequest& settings) : state_(new State) {
  x264_param_t param;
  x264_param_default_preset(&param, "ultrafast", "zerolatency");
  param.i_threads = settings.threads;
  param.i_width = settings.width;
  param.i_height = settings.height;
  param.i_csp = X264_CSP_I420;
  param.i_keyint_max = X264_KEYINT_MAX_INFINITE;
  param.i_scenecut_threshold = 0;
  param.i_log_level = X264_LOG_NONE;
  param.analyse.b_mb_info = 1;
  param.rc.i_aq_mode = X264_AQ_VARIANCE;
  param.b_annexb = (settings.flags & service::kAnnexBFlag) != 0 ? 1 : 0;
  param.i_fps_num = 25;
  param.i_fps_den = 1;
  if (settings.bitrate > 0) {
    param.rc.i_rc_method = X264_RC_ABR;
    param.rc.i_bitrate = settings.bitrate;
    param.rc.i_qp_min = settings.qpMin;
    param.rc.i_qp_max = settings.qpMax;
    param.rc.f_rate_tolerance = 0.01F;
  } else {
    param.rc.i_rc_method = X264_RC_CRF;
    param.rc.f_rf_constant = 1.0F;
    param.rc.f_qcompress = 1.0F;
  }
  x264_param_apply_profile(&param, "baseline");
  State& s = *state_;
  s.encoder = x264_encoder_open(&param);
  s.maps = {(settings.width + 15) / 16, (settings.height + 15) / 16, nullptr, nullptr};
  s.info.resize(static_cast<size_t>(s.maps.columns) * s.maps.rows);
  s.quantizer.resize(s.info.size());
  s.maps.info = s.info.data();
  s.maps.quantizer = s.quantizer.data();
  s.bitrateMode = settings.bitrate > 0 ? 1 : 0;
  x264_picture_init(&s.in);
  s.in.img.i_csp = X264_CSP_I420;
  s.in.img.i_plane = 3;
  s.in.prop.mb_info = s.maps.info;
  s.in.prop.quant_offsets = s.maps.quantizer;
}

DirectEncoder::~DirectEncoder() {
  x264_encoder_close(state_->encoder);
  delete state_;
}

std::span<const uint8_t> DirectEncoder::encodeView(const PictureView& picture,
                                                   const FrameHints& hints) {
  State& s = *state_;
  for (int32_t plane = 0; plane < 3; ++plane) {
    s.in.img.plane[plane] = const_cast<uint8_t*>(picture.plane[plane]);
    s.in.img.i_stride[plane] = picture.stride[plane];
  }
  service::markAllUnchanged(s.maps);
  for (const auto& rectangle : hints.rectangles) {
    service::MacroblockRange range;
    if (service::coverRectangle(rectangle, s.maps, range) == 0) continue;
    const float value = service::quantizerValue(rectangle.quantizerOffset, s.bitrateMode);
    service::fillRangePlainly(range, value, s.maps);
  }
  if (hints.invalidate == 1) x264_encoder_invalidate_reference(s.encoder, 0);
  const service::PlanarView reference = reconstruction();
  x264_nal_t* nals = nullptr;
  int count = 0;
  const auto start = std::chrono::steady_clock::now();
  const int size = x264_encoder_encode(s.encoder, &nals, &count, &s.in, &s.out);
  s.encoderTime = std::chrono::steady_clock::now() - start;
  if (size <= 0) return {};
  if (reference.plane[0] != nullptr) {
    for (const auto& copy : hints.copies) service::copyRegion(copy, reference, reconstruction());
  }
  return {nals[0].p_payload, static_cast<size_t>(size)};
}

service::PlanarView DirectEncoder::reconstruction() const {
  const x264_image_t& image = state_->out.img;
  return {{image.plane[0], image.plane[1]}, {image.i_stride[0], image.i_stride[1]}};
}

int32_t DirectEncoder::quantizer() const {
  return state_->out.i_qpplus1 - 1;
}

std::chrono::nanoseconds DirectEncoder::encoderTime() const {
  return state_->encoderTime;
}

}  // namespace qora::test
