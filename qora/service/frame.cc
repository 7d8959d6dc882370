// SPDX-License-Identifier: BSD-2-Clause
#include "qora/service/frame.h"

#include <sys/time.h>

#include <cerrno>

#include "qora/base/keep_errno.h"
#include "qora/base/logger.h"
#include "qora/encoder/encoder_api.h"
#include "qora/service/channel.h"
#include "qora/service/fatal.h"
#include "qora/service/macroblock_maps.h"
#include "qora/service/region_copy.h"
#include "qora/service/segment.h"
#include "qora/service/streams.h"
#include "qora/service/wire/messages.h"

namespace qora::service {
namespace {

using encoder::encoderApi;
using encoder::EncoderStream;

[[noreturn]] void rejectMalformed() {
  errno = EINVAL;
  fatalOperation("add", "frame", "A");
}

// Both lists end exactly where the message of `size` bytes does, the fixed part and more. In 64
// bits: no pair of lengths can wrap round.
bool listsFillMessage(const EncodeRequest& request, int32_t size) {
  return uint64_t{request.rectangleBytes} + request.copyBytes ==
         static_cast<uint64_t>(size - kEncodeFixedSize);
}

// The stream that may encode; null after a log line.
EncoderStream* usableStream(int32_t id) {
  KeepErrno keep;
  if (id >= kStreamCount) {
    logStream() << "CodecFrame: ERROR! Cannot encode invalid stream ID#" << id << ".\n";
    return nullptr;
  }
  if (streamTable()[id].in_use == 0) {
    logStream() << "CodecFrame: ERROR! Cannot encode frame with stream ID#" << id
                << " not initialized.\n";
    return nullptr;
  }
  return &streamTable()[id];
}

int32_t pointPicture(const EncodeRequest& request, EncoderStream& stream) {
  uint8_t* base = segmentAddress();
  if (base == nullptr) {
    KeepErrno keep;
    logStream() << "CodecFrame: ERROR! Cannot update picture with invalid shared memory segment.\n";
    return -1;
  }
  for (int32_t plane = 0; plane < 3; ++plane) {
    stream.picture.img.plane[plane] = base + request.planeOffset[plane];
    stream.picture.img.i_stride[plane] = static_cast<int32_t>(request.planeStride[plane]);
  }
  return 1;
}

// By its edges, not its size: who reads the log compares them with the picture's.
void warnOfSkipped(const Rectangle& rectangle) {
  logStream() << "CodecFrame: WARNING! Skipping invalid rectangle [" << rectangle.x << ","
              << rectangle.y << "," << rectangle.x + rectangle.width << ","
              << rectangle.y + rectangle.height << "].\n";
}

int32_t updateMaps(const uint8_t* rectangles, uint32_t length, EncoderStream& stream) {
  KeepErrno keep;
  if (length % kRectangleSize != 0) {
    logStream() << "CodecFrame: ERROR! Cannot update maps with invalid data length "
                << static_cast<int32_t>(length) << ".\n";
    return -1;
  }
  if (length == 0) {
    logStream() << "CodecFrame: WARNING! Cannot update maps with no rectangle.\n";
    return 0;
  }
  MacroblockMaps maps = {stream.mb_width, stream.mb_height, stream.mb_info_map,
                         stream.quant_offsets_map};
  const int32_t bitrateMode = encoder::bitrateMode();
  markAllUnchanged(maps);
  for (uint32_t at = 0; at < length; at += kRectangleSize) {
    const Rectangle rectangle = parseRectangle(rectangles + at);
    if (applyRectangle(rectangle, bitrateMode, maps) == 0) warnOfSkipped(rectangle);
  }
  return 1;
}

PlanarView reconstructedPicture(EncoderStream& stream) {
  const encoder::x264_image_t& image = stream.picture_out.img;
  return {{image.plane[0], image.plane[1]}, {image.i_stride[0], image.i_stride[1]}};
}

uint32_t wallClockMilliseconds() {
  timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<uint32_t>(int64_t{now.tv_sec} * 1000 + now.tv_usec / 1000);
}

// The loader requires the function; a table that was filled in another way may lack it.
uint8_t lastQuantizer(const EncoderStream& stream) {
  const auto ask = encoderApi().x264_encoder_get_last_quantizer;
  return ask == nullptr ? kUnknownQuantizer : static_cast<uint8_t>(ask(stream.encoder));
}

// Encodes the picture and reports on it in `reply`. 1; -1 after a log line.
int32_t encodePicture(EncoderStream& stream, ReplyFields& reply) {
  reply.startTime = wallClockMilliseconds();
  const int32_t frameSize = encoderApi().x264_encoder_encode(
      stream.encoder, &stream.nals, &stream.nal_count, &stream.picture, &stream.picture_out);
  reply.endTime = wallClockMilliseconds();
  if (frameSize <= 0) {
    KeepErrno keep;
    logStream() << "CodecFrame: ERROR! Frame encoding failed.\n";
    return -1;
  }
  reply.frameSize = static_cast<uint32_t>(frameSize);
  reply.keyFrame = static_cast<uint8_t>(stream.picture_out.b_keyframe);
  reply.quantizer = lastQuantizer(stream);
  ++stream.frame_count;
  return 1;
}

// A copy list never stops a frame: without two pictures to copy between it is only warned about.
void applyCopies(const uint8_t* copies, int32_t length, const PlanarView& reference,
                 const PlanarView& reconstructed) {
  if (length <= 0) return;
  KeepErrno keep;
  if (reference.plane[0] == nullptr) {
    logStream() << "CodecFrame: WARNING! Reference frame is empty.\n";
    return;
  }
  if (reconstructed.plane[0] == nullptr) {
    logStream() << "CodecFrame: WARNING! Reconstructed frame is empty.\n";
    return;
  }
  for (int32_t entry = 0; entry < length / kRegionCopySize; ++entry) {
    copyRegion(parseRegionCopy(copies + entry * kRegionCopySize), reference, reconstructed);
  }
}

int32_t sendReply(const ReplyFields& reply, const EncoderStream& stream) {
  const auto head = buildReplyHead(reply);
  return writeChannelPair(channelState().output, head.data(), kReplyHeadSize,
                          stream.nals[0].p_payload, static_cast<int32_t>(reply.frameSize));
}

}  // namespace

int32_t encodeFrame(uint8_t* message, int32_t size) {
  if (size < kHeaderSize) rejectMalformed();
  if (completeMessage(message, size, size - kHeaderSize) == -1) return -1;
  if (size < kEncodeFixedSize) rejectMalformed();
  const EncodeRequest request = parseEncodeRequest(message);
  if (!listsFillMessage(request, size)) rejectMalformed();
  EncoderStream* stream = usableStream(request.streamId);
  if (stream == nullptr || pointPicture(request, *stream) == -1) return -1;

  const uint8_t* rectangles = message + kEncodeFixedSize;
  const uint8_t* copies = rectangles + request.rectangleBytes;
  const int32_t updated = updateMaps(rectangles, request.rectangleBytes, *stream);
  if (updated == -1) return -1;
  if (request.invalidate == 1) {
    encoderApi().x264_encoder_invalidate_reference(stream->encoder, 0);
  }
  // Without rectangles no reference is remembered and a copy list only warns. Parents count on it:
  // the viewer leaves the copies of such a frame out as well.
  const PlanarView reference = updated == 1 ? reconstructedPicture(*stream) : PlanarView{};

  ReplyFields reply;
  if (encodePicture(*stream, reply) == -1) return -1;
  applyCopies(copies, static_cast<int32_t>(request.copyBytes), reference,
              reconstructedPicture(*stream));
  if (sendReply(reply, *stream) == -1) return -1;
  return static_cast<int32_t>(reply.frameSize);
}

}  // namespace qora::service
