// SPDX-License-Identifier: BSD-2-Clause
#include "tests/support/direct_encoder.h"

#include <algorithm>

namespace qora::test {

DirectEncoder::DirectEncoder(const service::AddStreamRequest& settings)
    : info_(static_cast<size_t>((settings.width + 15) / 16 * ((settings.height + 15) / 16))),
      quantizers_(info_.size()),
      maps_{(settings.width + 15) / 16, (settings.height + 15) / 16, info_.data(),
            quantizers_.data()},
      bitrateMode_(settings.bitrate > 0 ? 1 : 0) {
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
  param.b_annexb = (settings.flags & 4) != 0 ? 1 : 0;
  param.i_fps_num = 25;
  param.i_fps_den = 1;
  if (bitrateMode_ == 1) {
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
  encoder_ = x264_encoder_open(&param);
  x264_picture_init(&in_);
  in_.img.i_csp = X264_CSP_I420;
  in_.img.i_plane = 3;
  in_.prop.mb_info = info_.data();
  in_.prop.quant_offsets = quantizers_.data();
}

std::span<const uint8_t> DirectEncoder::encode(const client::Picture& picture,
                                               const std::vector<service::Rectangle>& rectangles,
                                               bool invalidate) {
  std::copy_n(picture.plane, 3, in_.img.plane);
  std::copy_n(picture.stride, 3, in_.img.i_stride);
  service::markAllUnchanged(maps_);
  for (const auto& rectangle : rectangles) service::applyRectangle(rectangle, bitrateMode_, maps_);
  if (invalidate) x264_encoder_invalidate_reference(encoder_, 0);
  x264_nal_t* nals = nullptr;
  int count = 0;
  const auto start = std::chrono::steady_clock::now();
  const int size = x264_encoder_encode(encoder_, &nals, &count, &in_, &out_);
  encoderTime_ = std::chrono::steady_clock::now() - start;
  if (size <= 0) return {};
  return {nals[0].p_payload, static_cast<size_t>(size)};
}

service::PlanarView DirectEncoder::reconstruction() const {
  const x264_image_t& image = out_.img;
  return {{image.plane[0], image.plane[1]}, {image.i_stride[0], image.i_stride[1]}};
}

}  // namespace qora::test
