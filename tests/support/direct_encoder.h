// SPDX-License-Identifier: BSD-2-Clause
// tests/support/direct_encoder.h -- The calls that the service makes, made in this process on the
// installed library: what its coded bytes and its times are held against.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <vector>

#include <x264.h>  // needs <cstdint>

#include "qora/client/picture.h"
#include "qora/service/macroblock_maps.h"
#include "qora/service/region_copy.h"

namespace qora::test {

using Bytes = std::vector<uint8_t>;

class DirectEncoder {
 public:
  explicit DirectEncoder(const service::AddStreamRequest& settings);
  ~DirectEncoder() { x264_encoder_close(encoder_); }
  DirectEncoder(const DirectEncoder&) = delete;
  DirectEncoder& operator=(const DirectEncoder&) = delete;

  // The coded bytes stay the encoder's and are good until the next call; empty: it failed.
  std::span<const uint8_t> encode(const client::Picture& picture,
                                  const std::vector<service::Rectangle>& rectangles,
                                  bool invalidate = false);
  // The picture that the next frame predicts from; null planes before the first.
  service::PlanarView reconstruction() const;
  int32_t quantizer() const { return out_.i_qpplus1 - 1; }
  // What the last frame took in the encoder itself, without filling the maps.
  std::chrono::nanoseconds encoderTime() const { return encoderTime_; }

 private:
  std::vector<uint8_t> info_;
  std::vector<float> quantizers_;
  service::MacroblockMaps maps_;
  int32_t bitrateMode_;
  x264_t* encoder_;
  x264_picture_t in_, out_ = {};
  std::chrono::nanoseconds encoderTime_{};
};

}  // namespace qora::test
