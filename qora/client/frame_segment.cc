#include "qora/client/frame_segment.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <cerrno>
#include <limits>

#include "qora/base/keep_errno.h"

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

int32_t FrameSegment::create(int32_t width, int32_t height, int32_t cells) {
  remove();
  constexpr int32_t kMaxSide = std::numeric_limits<uint16_t>::max();  // 16 bits on the wire
  if (width < 1 || width > kMaxSide || height < 1 || height > kMaxSide || cells < 1) {
    errno = EINVAL;
    return -1;
  }
  const CellLayout layout = cellLayout(width, height);
  const uint64_t size = layout.size * static_cast<uint32_t>(cells);
  if (size > std::numeric_limits<uint32_t>::max()) {
    errno = EOVERFLOW;
    return -1;
  }

  const int id = ::shmget(IPC_PRIVATE, size, IPC_CREAT | 0600);
  if (id == -1) return -1;
  void* address = ::shmat(id, nullptr, 0);
  {
    KeepErrno keep;
    ::shmctl(id, IPC_RMID, nullptr);
  }
  if (address == reinterpret_cast<void*>(-1)) return -1;
  id_ = id;
  address_ = static_cast<uint8_t*>(address);
  width_ = width;
  height_ = height;
  layout_ = layout;
  return 1;
}

void FrameSegment::remove() {
  if (address_ == nullptr) return;
  KeepErrno keep;
  ::shmdt(address_);
  address_ = nullptr;
  id_ = -1;
}

Picture FrameSegment::picture(int32_t cell) const {
  uint8_t* start = address_ + layout_.size * static_cast<uint32_t>(cell);
  Picture picture{.plane = {}, .stride = {}, .width = width_, .height = height_};
  for (int32_t plane = 0; plane < 3; ++plane) {
    picture.plane[plane] = start + layout_.offset[plane];
    picture.stride[plane] = static_cast<int32_t>(layout_.stride[plane]);
  }
  return picture;
}

void FrameSegment::place(int32_t cell, service::EncodeRequest& request) const {
  const uint32_t start = static_cast<uint32_t>(layout_.size) * static_cast<uint32_t>(cell);
  for (int32_t plane = 0; plane < 3; ++plane) {
    request.planeOffset[plane] = start + layout_.offset[plane];
    request.planeStride[plane] = layout_.stride[plane];
  }
}

}  // namespace qora::client
