// SPDX-License-Identifier: BSD-2-Clause
#include "qora/service/segment.h"

#include <sys/shm.h>

#include <cerrno>

#include "qora/base/error_text.h"
#include "qora/base/keep_errno.h"
#include "qora/base/logger.h"
#include "qora/service/channel.h"
#include "qora/service/wire/messages.h"

namespace qora::service {
namespace {

PictureSegment segment;

constexpr int32_t kSegmentBody = kSegmentSize - kHeaderSize;

void logError(int32_t error) {
  logStream() << "CodecSegment: ERROR! Error is " << error << " '" << orNil(errorText(error))
              << "'.\n";
}

}  // namespace

PictureSegment& pictureSegment() {
  return segment;
}

int32_t attachSegment(uint8_t* message, int32_t size) {
  if (completeMessage(message, size, kSegmentBody) == -1) return -1;
  const int32_t id = parseSegmentId(message);
  releaseSegment();
  void* address = ::shmat(id, nullptr, 0);
  if (address == reinterpret_cast<void*>(-1)) {
    KeepErrno keep;
    logStream() << "CodecSegment: ERROR! Failed to attach to segment id " << id << ".\n";
    logError(keep.value);
    return -1;
  }
  segment = {.id = id, .address = address};
  return 1;
}

int32_t removeSegment(uint8_t* message, int32_t size) {
  if (completeMessage(message, size, kSegmentBody) == -1) return -1;
  const int32_t id = parseSegmentId(message);
  if (id != segment.id) {
    KeepErrno keep;
    // "unknow" is the text that parents look for.
    logStream() << "CodecSegment: ERROR! Cannot remove unknow segment id " << id << ".\n";
    return -1;
  }
  // Also for -1 while nothing is attached: parents tidy up without keeping count.
  return releaseSegment();
}

int32_t releaseSegment() {
  if (segment.id == -1) return 1;
  if (keepErrnoUnlessFailed([] { return ::shmdt(segment.address); }) == -1) {
    KeepErrno keep;
    logStream() << "CodecSegment: ERROR! Failed to detach from segment id " << segment.id
                << " with address " << segment.address << ".\n";
    logError(keep.value);
  }
  segment = {};
  return 1;
}

uint8_t* segmentAddress() {
  return static_cast<uint8_t*>(segment.address);
}

}  // namespace qora::service
