// SPDX-License-Identifier: BSD-2-Clause
// qora/client/frame_segment.h -- The shared memory that the pictures stand in.
//
// A segment holds a few cells of one picture each, so that a parent can fill one while it still
// compares with another. Nothing is left to clean up, see SharedSegment.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qora/client/picture.h"
#include "qora/client/shared_segment.h"
#include "qora/service/wire/messages.h"

namespace qora::client {

// Where the planes of a cell stand. Every row begins on a cache line, chroma rows too.
struct CellLayout {
  uint32_t offset[3];  // Y, U, V: bytes from the start of the cell
  uint32_t stride[3];
  uint64_t size;  // of the whole cell; a multiple of 64
};
CellLayout cellLayout(int32_t width, int32_t height);
// The picture that stands at `start`.
Picture pictureAt(uint8_t* start, const CellLayout& layout, int32_t width, int32_t height);
// Makes an encode request refer to the picture that stands `start` bytes into the segment.
void placeAt(uint64_t start, const CellLayout& layout, service::EncodeRequest& request);

class FrameSegment {
 public:
  // Makes a segment for `cells` pictures, zero-filled, and attaches it; an earlier one is removed.
  // 1, or -1 with errno: EINVAL for a side that is not 1 to 65535 or no cell, EOVERFLOW for a
  // segment above 4 GiB, or the system's.
  [[nodiscard]] int32_t create(int32_t width, int32_t height, int32_t cells);
  // Lets go of the memory; pictures become invalid. The service keeps what it has attached.
  void remove() { segment_.remove(); }

  // For CodecClient::attachSegment(); -1 when there is none.
  int32_t id() const { return segment_.id(); }
  // Cell 0 to cells - 1, to be filled or read.
  Picture picture(int32_t cell) const;
  // Makes an encode request refer to the picture of that cell.
  void place(int32_t cell, service::EncodeRequest& request) const;

 private:
  SharedSegment segment_;
  int32_t width_ = 0;
  int32_t height_ = 0;
  CellLayout layout_{};
};

}  // namespace qora::client
