// SPDX-License-Identifier: BSD-2-Clause
// qora/service/wire/messages.h -- The messages between a parent and the service: records <-> bytes.
//
// Pure: a builder writes exactly the bytes of its message, a parser reads exactly them and checks
// nothing. All integers on the wire are little-endian. Every message begins with its size in bytes
// (4, header included), its CommandType (1) and an argument byte (1).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "qora/service/wire/byte_order.h"

namespace qora::service {

enum class CommandType : uint8_t {
  addStream = 0,
  removeStream = 1,
  encodeFrame = 2,
  attachSegment = 3,
  removeSegment = 4,
  reply = 5,  // service to parent only
};

inline constexpr int32_t kHeaderSize = 6;
inline constexpr int32_t kAddStreamSize = 16;
inline constexpr int32_t kRemoveStreamSize = 8;
inline constexpr int32_t kSegmentSize = 12;
inline constexpr int32_t kEncodeFixedSize = 44;  // what stands before the two lists
inline constexpr int32_t kRectangleSize = 12;
inline constexpr int32_t kRegionCopySize = 16;
inline constexpr int32_t kReplyHeadSize = 20;
inline constexpr int32_t kStreamCount = 8;
// In a reply: the encoder cannot tell. No quantizer is as large, parents test for it.
inline constexpr uint8_t kUnknownQuantizer = 255;

inline constexpr uint8_t kAnnexBFlag = 0x04;  // add stream, argument byte: start codes

struct AddStreamRequest {
  uint8_t flags;     // the argument byte, see kAnnexBFlag
  uint8_t streamId;  // 0 to 7
  uint8_t threads;   // 0: the encoder decides
  uint16_t bitrate;  // kbit/s; 0: constant quality
  uint8_t qpMin;     // quantizer limits, used with a bitrate only
  uint8_t qpMax;
  uint16_t width;  // pixels
  uint16_t height;
};

struct EncodeRequest {
  uint8_t streamId;
  uint8_t invalidate;       // 1: forget the reference frames before this one
  uint32_t rectangleBytes;  // length of the rectangle list, a multiple of 12
  uint32_t planeOffset[3];  // Y, U, V: bytes from the segment's start
  uint32_t planeStride[3];  // bytes
  uint32_t copyBytes;       // length of the copy list, 16 an entry
};

// A part of the picture that changed, in pixels.
struct Rectangle {
  int8_t quantizerOffset;  // negative: finer
  uint16_t x, y, width, height;
};

inline constexpr uint8_t kChromaDownFlag = 0x02;   // the chroma source moves one chroma row down
inline constexpr uint8_t kChromaRightFlag = 0x04;  // and one chroma sample right

// Content that moved, in pixels: what the last picture had at the source, this one has here. It is
// read from the last reconstruction and written into this one after encoding, and the coded bytes
// say nothing of it: standard decoders cannot follow, and whoever decodes makes the same copy in
// its own output before the next access unit. Both regions stay 2 pixels off the picture's edge.
struct RegionCopy {
  uint8_t flags;
  uint16_t sourceX, sourceY, destinationX, destinationY, width, height;
};

struct ReplyFields {
  uint8_t keyFrame;
  uint8_t quantizer;   // of the frame, or kUnknownQuantizer
  uint32_t frameSize;  // bytes of coded data after the head
  uint32_t startTime;  // wall clock in milliseconds, low 32 bits: just before and after encoding
  uint32_t endTime;
};

AddStreamRequest parseAddStream(const uint8_t* message);
EncodeRequest parseEncodeRequest(const uint8_t* message);
// Inline: a list has thousands of them.
inline Rectangle parseRectangle(const uint8_t* entry) {
  return {.quantizerOffset = static_cast<int8_t>(entry[0]),
          .x = readUint16(entry + 4, 0),
          .y = readUint16(entry + 6, 0),
          .width = readUint16(entry + 8, 0),
          .height = readUint16(entry + 10, 0)};
}
RegionCopy parseRegionCopy(const uint8_t* entry);
ReplyFields parseReplyHead(const uint8_t* head);

// Byte 6 of add, remove and encode messages; bytes 8 to 11 of segment messages.
uint8_t parseStreamId(const uint8_t* message);
int32_t parseSegmentId(const uint8_t* message);

std::array<uint8_t, kAddStreamSize> buildAddStream(const AddStreamRequest& request);
std::array<uint8_t, kRemoveStreamSize> buildRemoveStream(uint8_t streamId);
// `type` is attachSegment or removeSegment.
std::array<uint8_t, kSegmentSize> buildSegmentMessage(CommandType type, int32_t segmentId);
// The fixed part; the header's size field counts both lists, which the caller appends.
std::array<uint8_t, kEncodeFixedSize> buildEncodeHead(const EncodeRequest& request);
void buildRectangle(const Rectangle& rectangle, uint8_t entry[kRectangleSize]);
void buildRegionCopy(const RegionCopy& copy, uint8_t entry[kRegionCopySize]);
// The size field counts the head alone: parents read that much, then `frameSize` bytes.
std::array<uint8_t, kReplyHeadSize> buildReplyHead(const ReplyFields& fields);

}  // namespace qora::service
