// qora/service/segment.h -- The one shared-memory segment that holds the parent's pictures.
//
// The parent creates, sizes and removes it; the service only attaches. Its size is not kept: the
// parent's offsets and strides are trusted. One thread.
#pragma once

#include <cstdint>

namespace qora::service {

// Either both fields tell of an attachment, or the id is -1 and the address null.
struct PictureSegment {
  int32_t id = -1;
  void* address = nullptr;
};

PictureSegment& pictureSegment();

// Handlers of the attach and remove commands. 1; -1 with errno and log lines when the body could
// not be read, the segment not be attached, or another one than the attached is to be removed.
int32_t attachSegment(uint8_t* message, int32_t size);
int32_t removeSegment(uint8_t* message, int32_t size);

// For shutdown. Always 1: a detach that fails is logged and leaves its errno, one that succeeds
// leaves errno alone.
int32_t detachSegment();

// Where the attached segment lies; null when there is none.
uint8_t* segmentAddress();

}  // namespace qora::service
