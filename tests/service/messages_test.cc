// SPDX-License-Identifier: BSD-2-Clause
#include "qora/service/wire/messages.h"

#include <gtest/gtest.h>

#include <vector>

#include "qora/service/wire/byte_order.h"

namespace qora::service {
namespace {

using Bytes = std::vector<uint8_t>;

template <typename Message>
Bytes bytesOf(const Message& message) {
  return {message.begin(), message.end()};
}

TEST(Messages, StandOnTheWireAsParentsKnowThem) {
  const auto add = buildAddStream({0x04, 7, 2, 0x1234, 10, 51, 1920, 1080});
  EXPECT_EQ(bytesOf(add), (Bytes{16, 0, 0, 0, 0, 4, 7, 2, 0x34, 0x12, 10, 51, 0x80, 7, 0x38, 4}));
  EXPECT_EQ(buildAddStream(parseAddStream(add.data())), add);
  EXPECT_EQ(bytesOf(buildRemoveStream(3)), (Bytes{8, 0, 0, 0, 1, 0, 3, 0}));
  EXPECT_EQ(bytesOf(buildSegmentMessage(CommandType::attachSegment, 0x01020304)),
            (Bytes{12, 0, 0, 0, 3, 0, 0, 0, 4, 3, 2, 1}));
  EXPECT_EQ(bytesOf(buildSegmentMessage(CommandType::removeSegment, -1)),
            (Bytes{12, 0, 0, 0, 4, 0, 0, 0, 255, 255, 255, 255}));
  const auto encode = buildEncodeHead({5, 1, 24, {0, 0x100, 0x200}, {64, 32, 33}, 16});
  EXPECT_EQ(bytesOf(encode),
            (Bytes{84, 0, 0, 0, 2, 0, 5,  1, 0, 0, 0, 0, 24, 0, 0,  0, 0, 0, 0,  0, 64, 0,
                   0,  0, 0, 1, 0, 0, 32, 0, 0, 0, 0, 2, 0,  0, 33, 0, 0, 0, 16, 0, 0,  0}));
  EXPECT_EQ(buildEncodeHead(parseEncodeRequest(encode.data())), encode);
  const auto reply = buildReplyHead({1, 30, 0x01020304, 0x0A0B0C0D, 0xFFFFFFFE});
  EXPECT_EQ(bytesOf(reply),
            (Bytes{20, 0, 0, 0, 5, 1, 30, 0, 4, 3, 2, 1, 13, 12, 11, 10, 254, 255, 255, 255}));
  EXPECT_EQ(buildReplyHead(parseReplyHead(reply.data())), reply);

  const uint8_t rectangle[] = {0x80, 9, 9, 9, 1, 0, 3, 2, 4, 0, 5, 0};  // the nines are not read
  Bytes entry(kRectangleSize);
  buildRectangle(parseRectangle(rectangle), entry.data());
  EXPECT_EQ(entry, (Bytes{0x80, 0, 0, 0, 1, 0, 3, 2, 4, 0, 5, 0}));
  buildRectangle({-2, 1, 0x0203, 4, 5}, entry.data());
  EXPECT_EQ(entry, (Bytes{254, 0, 0, 0, 1, 0, 3, 2, 4, 0, 5, 0}));
  const uint8_t copy[] = {9, 9, 9, 6, 1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 7, 6};
  entry.resize(kRegionCopySize);
  buildRegionCopy(parseRegionCopy(copy), entry.data());
  EXPECT_EQ(entry, (Bytes{0, 0, 0, 6, 1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 7, 6}));
  buildRegionCopy({6, 1, 2, 3, 4, 5, 0x0607}, entry.data());
  EXPECT_EQ(entry, (Bytes{0, 0, 0, 6, 1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 7, 6}));
}

TEST(ByteOrder, ReadersAndWritersDifferOnAHostSetBigEndian) {
  uint8_t bytes[] = {0, 1, 2, 3, 4};  // unaligned from here on
  EXPECT_EQ(readUint32(bytes + 1, 0) + readUint16(bytes + 1, 0), 0x04030201U + 0x0201);
  EXPECT_EQ(readUint32(bytes + 1, 7) + readUint16(bytes + 1, 1), 0x01020304U + 0x0102);
  writeUint32(0x01020304, bytes + 1, 1);
  writeUint16(0x0506, bytes, 0);
  EXPECT_EQ(readUint32(bytes, 0), 0x03020506U);

  // A host that calls itself big-endian: native where the orders agree, composed by the readers
  // where they do not, and still native in the writers when asked for little-endian.
  setHostByteOrder(1);
  EXPECT_EQ(readUint32(bytes, 1), 0x03020506U);
  EXPECT_EQ(readUint16(bytes, 2), 0x0605);
  EXPECT_EQ(readUint32(bytes, 0), 0x03020506U);
  for (const auto& [order, first] : {std::pair{0, 8}, {1, 8}, {2, 7}}) {
    writeUint16(0x0708, bytes, order);
    EXPECT_EQ(bytes[0], first) << order;
  }
  writeUint32(9, bytes, 0);
  EXPECT_EQ(bytes[0] * 10 + hostByteOrder(), 91);
  setHostByteOrder(0);
}

}  // namespace
}  // namespace qora::service
