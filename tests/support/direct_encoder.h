// tests/support/direct_encoder.h -- The calls that the service makes, made in this process on the
// installed library: what its coded bytes are held against.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>

#include <vector>

#include "qora/service/region_copy.h"
#include "qora/service/wire/messages.h"

namespace qora::test {

using Bytes = std::vector<uint8_t>;

// What steers one frame.
struct FrameHints {
  std::vector<service::Rectangle> rectangles;
  std::vector<service::RegionCopy> copies = {};
  uint8_t invalidate = 0;
};

// An I420 picture by its planes.
struct PictureView {
  const uint8_t* plane[3];
  int32_t stride[3];
};

class DirectEncoder {
 public:
  explicit DirectEncoder(const service::AddStreamRequest& settings);
  ~DirectEncoder();
  DirectEncoder(const DirectEncoder&) = delete;
  DirectEncoder& operator=(const DirectEncoder&) = delete;

  // The coded bytes stay the encoder's and are good until the next call; empty: it failed.
  std::span<const uint8_t> encodeView(const PictureView& picture, const FrameHints& hints);
  // The picture that the next frame predicts from; null planes before the first.
  service::PlanarView reconstruction() const;
  int32_t quantizer() const;
  // What the last frame took in the encoder itself, maps and copies aside.
  std::chrono::nanoseconds encoderTime() const;

 private:
  struct State;
  State* state_;
};

}  // namespace qora::test
