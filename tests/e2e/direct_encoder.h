// tests/e2e/direct_encoder.h -- The calls that the service makes, made in this process on the
// installed library: what its coded bytes are held against.
#pragma once

#include <cstdint>

#include <vector>

#include "service/messages.h"

namespace qora::test {

using Bytes = std::vector<uint8_t>;

// What steers one frame.
struct FrameHints {
  std::vector<service::Rectangle> rectangles;
  std::vector<service::RegionCopy> copies = {};
  uint8_t invalidate = 0;
};

// An I420 picture without padding.
struct Picture {
  int32_t width, height;
  Bytes data;
  size_t offset(int32_t plane) const;  // 0 Y, 1 U, 2 V
  int32_t stride(int32_t plane) const { return plane == 0 ? width : width / 2; }
};

class DirectEncoder {
 public:
  explicit DirectEncoder(const service::AddStreamRequest& settings);
  ~DirectEncoder();
  DirectEncoder(const DirectEncoder&) = delete;
  DirectEncoder& operator=(const DirectEncoder&) = delete;

  Bytes encode(const Picture& picture, const FrameHints& hints);
  int32_t quantizer() const;

 private:
  struct State;
  State* state_;
};

}  // namespace qora::test
