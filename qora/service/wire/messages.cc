// SPDX-License-Identifier: BSD-2-Clause
#include "qora/service/wire/messages.h"

#include <cassert>

namespace qora::service {
namespace {

uint16_t u16(const uint8_t* bytes) {
  return readUint16(bytes, 0);
}
uint32_t u32(const uint8_t* bytes) {
  return readUint32(bytes, 0);
}
void put16(uint16_t value, uint8_t* bytes) {
  writeUint16(value, bytes, 0);
}
void put32(uint32_t value, uint8_t* bytes) {
  writeUint32(value, bytes, 0);
}

template <size_t Size>
std::array<uint8_t, Size> messageOf(CommandType type, uint32_t size = Size) {
  std::array<uint8_t, Size> message{};
  put32(size, message.data());
  message[4] = static_cast<uint8_t>(type);
  return message;
}

}  // namespace

AddStreamRequest parseAddStream(const uint8_t* message) {
  return {.flags = message[5],
          .streamId = message[6],
          .threads = message[7],
          .bitrate = u16(message + 8),
          .qpMin = message[10],
          .qpMax = message[11],
          .width = u16(message + 12),
          .height = u16(message + 14)};
}

EncodeRequest parseEncodeRequest(const uint8_t* message) {
  return {.streamId = message[6],
          .invalidate = message[7],
          .rectangleBytes = u32(message + 12),
          .planeOffset = {u32(message + 16), u32(message + 24), u32(message + 32)},
          .planeStride = {u32(message + 20), u32(message + 28), u32(message + 36)},
          .copyBytes = u32(message + 40)};
}

RegionCopy parseRegionCopy(const uint8_t* entry) {
  return {.flags = entry[3],
          .sourceX = u16(entry + 4),
          .sourceY = u16(entry + 6),
          .destinationX = u16(entry + 8),
          .destinationY = u16(entry + 10),
          .width = u16(entry + 12),
          .height = u16(entry + 14)};
}

ReplyFields parseReplyHead(const uint8_t* head) {
  return {.keyFrame = head[5],
          .quantizer = head[6],
          .frameSize = u32(head + 8),
          .startTime = u32(head + 12),
          .endTime = u32(head + 16)};
}

uint8_t parseStreamId(const uint8_t* message) {
  return message[6];
}

int32_t parseSegmentId(const uint8_t* message) {
  return static_cast<int32_t>(u32(message + 8));
}

std::array<uint8_t, kAddStreamSize> buildAddStream(const AddStreamRequest& request) {
  auto message = messageOf<kAddStreamSize>(CommandType::addStream);
  message[5] = request.flags;
  message[6] = request.streamId;
  message[7] = request.threads;
  put16(request.bitrate, &message[8]);
  message[10] = request.qpMin;
  message[11] = request.qpMax;
  put16(request.width, &message[12]);
  put16(request.height, &message[14]);
  return message;
}

std::array<uint8_t, kRemoveStreamSize> buildRemoveStream(uint8_t streamId) {
  auto message = messageOf<kRemoveStreamSize>(CommandType::removeStream);
  message[6] = streamId;
  return message;
}

std::array<uint8_t, kSegmentSize> buildSegmentMessage(CommandType type, int32_t segmentId) {
  assert(type == CommandType::attachSegment || type == CommandType::removeSegment);
  auto message = messageOf<kSegmentSize>(type);
  put32(static_cast<uint32_t>(segmentId), &message[8]);
  return message;
}

std::array<uint8_t, kEncodeFixedSize> buildEncodeHead(const EncodeRequest& request) {
  auto message = messageOf<kEncodeFixedSize>(
      CommandType::encodeFrame, kEncodeFixedSize + request.rectangleBytes + request.copyBytes);
  message[6] = request.streamId;
  message[7] = request.invalidate;
  put32(request.rectangleBytes, &message[12]);
  for (size_t plane = 0; plane < 3; ++plane) {
    put32(request.planeOffset[plane], &message[16 + 8 * plane]);
    put32(request.planeStride[plane], &message[20 + 8 * plane]);
  }
  put32(request.copyBytes, &message[40]);
  return message;
}

void buildRectangle(const Rectangle& rectangle, uint8_t entry[kRectangleSize]) {
  put32(static_cast<uint8_t>(rectangle.quantizerOffset), entry);
  put16(rectangle.x, entry + 4);
  put16(rectangle.y, entry + 6);
  put16(rectangle.width, entry + 8);
  put16(rectangle.height, entry + 10);
}

void buildRegionCopy(const RegionCopy& copy, uint8_t entry[kRegionCopySize]) {
  put32(static_cast<uint32_t>(copy.flags) << 24, entry);
  put16(copy.sourceX, entry + 4);
  put16(copy.sourceY, entry + 6);
  put16(copy.destinationX, entry + 8);
  put16(copy.destinationY, entry + 10);
  put16(copy.width, entry + 12);
  put16(copy.height, entry + 14);
}

std::array<uint8_t, kReplyHeadSize> buildReplyHead(const ReplyFields& fields) {
  auto head = messageOf<kReplyHeadSize>(CommandType::reply);
  head[5] = fields.keyFrame;
  head[6] = fields.quantizer;
  put32(fields.frameSize, &head[8]);
  put32(fields.startTime, &head[12]);
  put32(fields.endTime, &head[16]);
  return head;
}

}  // namespace qora::service
