// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/stream_format.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "qora/service/wire/byte_order.h"

namespace qora::client {
namespace {

using Bytes = std::vector<uint8_t>;
using Numbers = std::vector<int>;

const Numbers kAll = {0, 1, 2, 3, 4, 5, 6};  // the frames of a stream of two sizes

StreamFrame frameNumber(int i) {
  StreamFrame frame;
  frame.head = {i * 40'000'000'000, static_cast<uint16_t>(i < 4 ? 64 : 96), 48, i % 4 == 0, i == 6};
  if (i < 6) frame.accessUnit.assign(static_cast<size_t>(5 + i * 30), static_cast<uint8_t>(i));
  for (uint16_t copy = 0; i < 6 && copy < i % 3; ++copy) {
    frame.copies.push_back({service::kChromaDownFlag, 3, copy, 16, 16, 32, 16});
  }
  return frame;
}
Bytes bytesOf(const StreamFrame& frame) {
  int ends[2];
  EXPECT_EQ(0, pipe2(ends, O_NONBLOCK));
  EXPECT_EQ(1, writeFrame(ends[1], frame.head, frame.accessUnit, frame.copies));
  Bytes bytes(1000);
  bytes.resize(static_cast<size_t>(read(ends[0], bytes.data(), bytes.size())));
  close(ends[0]);
  close(ends[1]);
  return bytes;
}
Bytes stream() {
  const auto header = buildStreamHeader({90'000, 64, 48, 1'700'000'000'000'000});
  Bytes bytes(header.begin(), header.end());
  for (const int i : kAll) std::ranges::copy(bytesOf(frameNumber(i)), std::back_inserter(bytes));
  return bytes;
}

struct Read {
  Numbers numbers;  // of the frames
  Numbers gaps;     // of those after a gap
  int64_t lost;
  int32_t result;
};
// `step` bytes at a time.
Read readAll(const Bytes& bytes, size_t step) {
  StreamReader reader;
  StreamFrame frame;
  Read read{};
  for (size_t at = 0; read.result == 0 && at <= bytes.size(); at += step) {
    reader.feed(std::span(bytes).subspan(at, std::min(step, bytes.size() - at)));
    if (at + step > bytes.size()) reader.feedEnd();
    while ((read.result = reader.next(frame)) == 1) {
      const int number = static_cast<int>(frame.head.time / 40'000'000'000);
      EXPECT_EQ(bytesOf(frameNumber(number)), bytesOf(frame));
      read.numbers.push_back(number);
      if (frame.afterGap) read.gaps.push_back(number);
    }
  }
  read.lost = reader.lostBytes();
  return read;
}

TEST(StreamFormatTest, HasTheDocumentedBytes) {
  const Bytes head = {0x89, 'Q', 'O',  'R',  'A', 13, 10, 26, 1, 0, 64, 0, 48, 0,
                      0,    0,   0x90, 0x5F, 1,   0,  2,  1,  0, 0, 0,  0, 0,  0};
  const auto builtHead = buildStreamHeader({90'000, 64, 48, 258});
  EXPECT_TRUE(std::equal(head.begin(), head.end(), builtHead.begin()));
  const Bytes frame = {'Q', 'F', 'R', 0xFE, 1,  0, 2, 0, 7, 0, 0, 0, 1, 0,
                       0,   0,   64,  0,    48, 0, 4, 3, 0, 0, 8, 7, 6, 5};
  const auto built = buildFrameHead({0x100000007, 64, 48, true, false}, 0x304, 2, 0x05060708);
  EXPECT_TRUE(std::equal(frame.begin(), frame.end(), built.begin()));
  const Bytes digits = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
  EXPECT_EQ(0xCBF43926U,
            checksum(std::span(digits).subspan(4), checksum(std::span(digits).first(4))));
}

TEST(StreamFormatTest, PlaysInAnyPiecesUpToWhereItWasCutOff) {
  const Bytes bytes = stream();
  for (const size_t step : {size_t{1}, size_t{33}, 2 * bytes.size()}) {
    const Read read = readAll(bytes, step);
    EXPECT_EQ(kAll, read.numbers) << step;
    EXPECT_TRUE(read.gaps.empty() && read.lost == 0 && read.result == 0);
  }
  size_t before = 0;
  for (size_t size = 1; size <= bytes.size(); ++size) {
    const Read read = readAll({bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(size)}, 100);
    ASSERT_TRUE(read.result == 0 && read.gaps.empty()) << size;
    ASSERT_TRUE(read.numbers.size() - before <= 1 &&
                std::equal(read.numbers.begin(), read.numbers.end(), kAll.begin()))
        << size;
    before = read.numbers.size();
  }
  EXPECT_EQ(kAll.size(), before);
}

// One byte changed, added or removed costs no more than the frame that it stood in.
TEST(StreamFormatTest, GoesOnAfterDamage) {
  const Bytes bytes = stream();
  for (size_t at = 8; at < bytes.size(); ++at) {
    for (int way = 0; way < 3; ++way) {
      SCOPED_TRACE(testing::Message() << "byte " << at << " way " << way);
      Bytes damaged = bytes;
      const auto place = damaged.begin() + static_cast<ptrdiff_t>(at);
      if (way == 0) *place ^= 0x10;
      if (way == 1) damaged.insert(place, 0x51);
      if (way == 2) damaged.erase(place);
      const Read read = readAll(damaged, at % 3 == 0 ? 1 : 1000);
      ASSERT_TRUE(read.result == 0 && read.lost > 0 && std::ranges::includes(kAll, read.numbers));
      ASSERT_LE(at < kStreamHeaderSize ? 7U : 6U, read.numbers.size());
      ASSERT_EQ(read.numbers.back() == 6 ? 1U : 0U, read.gaps.size());
    }
  }
}

TEST(StreamFormatTest, RefusesWhatItIsNot) {
  Bytes later = stream();
  later[8] = 2;
  service::writeUint32(checksum(std::span(later).first(28)), &later[28], 0);
  EXPECT_TRUE(readAll(later, 1000).result == -1 && errno == ENOTSUP);
  EXPECT_TRUE(readAll({0, 0, 0, 1, 0x67}, 1000).result == -1 && errno == EPROTO);
  EXPECT_EQ(-1, StreamReader::recognise(std::span(later).first(5)));
  EXPECT_EQ(1, StreamReader::recognise(later));
  EXPECT_TRUE(writeFrame(-1, {}, {}, {}) == -1 && errno == EINVAL);
  EXPECT_TRUE(writeFrame(-1, {}, later, std::vector<service::RegionCopy>(kMostFrameCopies + 1)) ==
                  -1 &&
              errno == EINVAL);
  EXPECT_TRUE(writeFrame(-1, {}, later, {}) == -1 && errno == EBADF);

  // Intact, but the copy of one would leave the picture.
  StreamFrame frame = frameNumber(1);
  frame.copies = {{service::kChromaRightFlag, 32, 0, 0, 0, 32, 16}};
  StreamReader reader;
  reader.feed(buildStreamHeader({}));
  reader.feed(bytesOf(frame));
  EXPECT_EQ(0, reader.next(frame));
  frame.head.width = 96;
  reader.feed(bytesOf(frame));
  EXPECT_EQ(1, reader.next(frame));
  EXPECT_TRUE(frame.afterGap && frame.copies.size() == 1);
  int ends[2];
  ASSERT_EQ(0, pipe(ends));
  EXPECT_EQ(7, write(ends[1], stream().data(), 7));
  close(ends[1]);
  EXPECT_EQ(7, reader.fill(ends[0]));
  EXPECT_EQ(0, reader.fill(ends[0]));
  EXPECT_EQ(0, reader.next(frame));
  EXPECT_LT(7, reader.lostBytes());
  close(ends[0]);
}

}  // namespace
}  // namespace qora::client
