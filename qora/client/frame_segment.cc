// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/frame_segment.h"

#include <cerrno>
#include <limits>

namespace qora::client {
namespace {

constexpr uint32_t kCacheLine = 64;

constexpr uint32_t roundUp(uint32_t value, uint32_t unit) {
  return (value + unit - 1) / unit * unit;
}

}  // namespace

CellLayout cellLayout(int32_t width, int32_t height) {
  // Twice the cache line, so that the chroma rows, half as long, begin on one too.
  const uint32_t lumaStride = roundUp(static_cast<uint32_t>(width), 2 * kCacheLine);
  const uint32_t chromaStride = lumaStride / 2;
  const uint32_t chromaRows = (static_cast<uint32_t>(height) + 1) / 2;
  const uint64_t lumaSize = static_cast<uint64_t>(lumaStride) * static_cast<uint32_t>(height);
  const uint64_t chromaSize = static_cast<uint64_t>(chromaStride) * chromaRows;
  const uint64_t size = lumaSize + 2 * chromaSize;
  // A picture above 4 GiB wraps the offsets here; create() refuses it by its size.
  return {
      .offset = {0, static_cast<uint32_t>(lumaSize), static_cast<uint32_t>(lumaSize + chromaSize)},
      .stride = {lumaStride, chromaStride, chromaStride},
      .size = size};
}

Picture pictureAt(uint8_t* start, const CellLayout& layout, int32_t width, int32_t height) {
  Picture picture{.plane = {}, .stride = {}, .width = width, .height = height};
  for (int32_t plane = 0; plane < 3; ++plane) {
    picture.plane[plane] = start + layout.offset[plane];
    picture.stride[plane] = static_cast<int32_t>(layout.stride[plane]);
  }
  return picture;
}

void placeAt(uint64_t start, const CellLayout& layout, service::EncodeRequest& request) {
  for (int32_t plane = 0; plane < 3; ++plane) {
    request.planeOffset[plane] = static_cast<uint32_t>(start) + layout.offset[plane];
    request.planeStride[plane] = layout.stride[plane];
  }
}

int32_t FrameSegment::create(int32_t width, int32_t height, int32_t cells) {
  remove();
  constexpr int32_t kMaxSide = std::numeric_limits<uint16_t>::max();  // 16 bits on the wire
  if (width < 1 || width > kMaxSide || height < 1 || height > kMaxSide || cells < 1) {
    errno = EINVAL;
    return -1;
  }
  width_ = width;
  height_ = height;
  layout_ = cellLayout(width, height);
  return segment_.create(layout_.size * static_cast<uint32_t>(cells));
}

Picture FrameSegment::picture(int32_t cell) const {
  uint8_t* start = segment_.address() + layout_.size * static_cast<uint32_t>(cell);
  return pictureAt(start, layout_, width_, height_);
}

void FrameSegment::place(int32_t cell, service::EncodeRequest& request) const {
  placeAt(layout_.size * static_cast<uint32_t>(cell), layout_, request);
}

}  // namespace qora::client
