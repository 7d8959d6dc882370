// SPDX-License-Identifier: BSD-2-Clause
// qora/service/segment.h -- The one shared-memory segment that holds the parent's pictures.
//
// The parent creates, sizes and removes it; the service only attaches. Its size is not kept: the
// parent's offsets and strides are trusted. One thread.
#pragma once

#include <cstdint>

namespace qora::service {

// Either both fields describe an attachment, or the id is -1 and the address null.
struct PictureSegment {
  int32_t id = -1;
  void* address = nullptr;
};

PictureSegment& pictureSegment();

// Handlers of the attach and remove commands. 1; -1 when the body could not be read, with errno
// from the read; when the segment cannot be attached, with log lines and errno from shmat; and when
// another one than the attached is to be removed, with a log line and errno as it was.
int32_t attachSegment(uint8_t* message, int32_t size);
int32_t removeSegment(uint8_t* message, int32_t size);

// Detaches what is attached, if anything. Always 1: a failure is logged and leaves its errno, and
// the segment counts as detached. Otherwise errno stays as it was.
int32_t releaseSegment();

// Where the attached segment lies; null when there is none.
uint8_t* segmentAddress();

}  // namespace qora::service
