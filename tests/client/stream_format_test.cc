#include "qora/client/stream_format.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <random>
#include <thread>

namespace qora::client {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr int kFrames = 7;

// Frame number i of a stream of two sizes.
StreamFrame frameNumber(int i) {
  StreamFrame frame;
  const auto side = static_cast<uint16_t>(i < 4 ? 64 : 96);
  frame.head = {.time = i * 40'000'000'000,
                .width = side,
                .height = 48,
                .keyFrame = i % 4 == 0,
                .end = i == kFrames - 1};
  if (frame.head.end) return frame;
  frame.accessUnit.assign(static_cast<size_t>(5 + i * 30), static_cast<uint8_t>(i));
  for (uint16_t copy = 0; copy < i % 3; ++copy) {
    frame.copies.push_back({service::kChromaDownFlag, 3, copy, 16, 16, 32, 16});
  }
  return frame;
}

// Through a pipe, as the tools do it.
Bytes written() {
  int ends[2];
  EXPECT_EQ(0, pipe(ends));
  std::thread writer([descriptor = ends[1]] {
    EXPECT_EQ(1, writeStreamHeader(descriptor, {90'000, 64, 48, 1'700'000'000'000'000}));
    for (int i = 0; i < kFrames; ++i) {
      const StreamFrame frame = frameNumber(i);
      EXPECT_EQ(1, writeFrame(descriptor, frame.head, frame.accessUnit, frame.copies));
    }
    close(descriptor);
  });
  Bytes bytes(10000);
  size_t size = 0;
  for (ssize_t got = 1; got > 0; size += static_cast<size_t>(got))
    got = read(ends[0], &bytes[size], 7);
  writer.join();
  close(ends[0]);
  bytes.resize(size);
  return bytes;
}

bool same(const StreamFrame& a, const StreamFrame& b) {
  return a.head.time == b.head.time && a.head.width == b.head.width &&
         a.head.height == b.head.height && a.head.keyFrame == b.head.keyFrame &&
         a.head.end == b.head.end && a.accessUnit == b.accessUnit &&
         std::ranges::equal(a.copies, b.copies, [](const auto& x, const auto& y) {
           uint8_t one[16], other[16];
           service::buildRegionCopy(x, one);
           service::buildRegionCopy(y, other);
           return std::equal(one, one + 16, other);
         });
}

struct Read {
  std::vector<int> numbers;  // of the frames
  std::vector<int> gaps;     // of those after a gap
  int64_t lost;
  int32_t result;
};
// `step` bytes at a time.
Read readAll(const Bytes& bytes, size_t step) {
  StreamReader reader;
  StreamFrame frame;
  Read read{};
  for (size_t at = 0; read.result == 0 && at <= bytes.size(); at += step) {
    const size_t size = std::min(step, bytes.size() - at);
    reader.feed(std::span(bytes).subspan(at, size));
    if (at + step > bytes.size()) reader.feedEnd();
    while ((read.result = reader.next(frame)) == 1) {
      int i = 0;
      while (i < kFrames && !same(frame, frameNumber(i))) ++i;
      read.numbers.push_back(i);
      if (frame.afterGap) read.gaps.push_back(i);
    }
  }
  read.lost = reader.lostBytes();
  return read;
}

using Numbers = std::vector<int>;
const Numbers kAll = {0, 1, 2, 3, 4, 5, 6};

TEST(StreamFormatTest, ReadsWhatWasWrittenInAnyPieces) {
  const Bytes bytes = written();
  for (const size_t step : {size_t{1}, size_t{5}, size_t{33}, bytes.size(), 2 * bytes.size()}) {
    const Read read = readAll(bytes, step);
    EXPECT_EQ(kAll, read.numbers) << step;
    EXPECT_TRUE(read.gaps.empty() && read.lost == 0 && read.result == 0);
  }
}

TEST(StreamFormatTest, HasTheDocumentedBytes) {
  const uint8_t head[] = {0x89, 'Q', 'O',  'R',  'A', 13, 10, 26, 1, 0, 64, 0, 48, 0,
                          0,    0,   0x90, 0x5F, 1,   0,  2,  1,  0, 0, 0,  0, 0,  0};
  EXPECT_TRUE(std::equal(std::begin(head), std::end(head),
                         buildStreamHeader({90'000, 64, 48, 258}).begin()));
  const uint8_t frame[] = {'Q', 'F', 'R', 0xFE, 1,  0, 2, 0, 7, 0, 0, 0, 1, 0,
                           0,   0,   64,  0,    48, 0, 4, 3, 0, 0, 8, 7, 6, 5};
  const auto built = buildFrameHead({0x100000007, 64, 48, true, false}, 0x304, 2, 0x05060708);
  EXPECT_TRUE(std::equal(std::begin(frame), std::end(frame), built.begin()));
  const uint8_t digits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
  EXPECT_EQ(0xCBF43926U, checksum(digits));
  EXPECT_EQ(0xCBF43926U,
            checksum(std::span(digits).subspan(4), checksum(std::span(digits).first(4))));
}

TEST(StreamFormatTest, PlaysUpToWhereItWasCutOff) {
  const Bytes bytes = written();
  size_t before = 0;
  for (size_t size = 1; size <= bytes.size(); ++size) {
    const Read read =
        readAll(Bytes(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(size)), 100);
    ASSERT_EQ(0, read.result) << size;
    ASSERT_TRUE(read.numbers.size() - before <= 1 && read.gaps.empty()) << size;
    ASSERT_TRUE(std::equal(read.numbers.begin(), read.numbers.end(), kAll.begin())) << size;
    before = read.numbers.size();
  }
  EXPECT_EQ(kFrames, static_cast<int>(before));
}

// One byte changed, added or removed costs no more than the frame that it stood in.
TEST(StreamFormatTest, GoesOnAfterDamage) {
  const Bytes bytes = written();
  for (size_t at = 0; at < bytes.size(); ++at) {
    for (int way = 0; way < 3; ++way) {
      SCOPED_TRACE(testing::Message() << "byte " << at << " way " << way);
      Bytes damaged = bytes;
      const auto place = damaged.begin() + static_cast<ptrdiff_t>(at);
      if (way == 0) *place ^= 0x10;
      if (way == 1) damaged.insert(place, 0x51);
      if (way == 2) damaged.erase(place);
      const Read read = readAll(damaged, at % 3 == 0 ? 1 : 1000);
      if (at < 8) {
        // No longer recognised, unless what was added or removed made no difference.
        ASSERT_TRUE(read.result == -1 || read.numbers == kAll);
        continue;
      }
      ASSERT_EQ(0, read.result);
      ASSERT_LE(kFrames - (at < kStreamHeaderSize ? 0 : 1), static_cast<int>(read.numbers.size()));
      ASSERT_TRUE(std::ranges::includes(kAll, read.numbers));
      ASSERT_LT(0, read.lost);
      ASSERT_EQ(read.numbers.back() == kFrames - 1 ? 1U : 0U, read.gaps.size());
    }
  }
}

TEST(StreamFormatTest, RefusesWhatItIsNot) {
  const Bytes bytes = written();
  Bytes later = bytes;
  later[8] = 2;
  const uint32_t sum = checksum(std::span(later).first(28));
  for (size_t i = 0; i < 4; ++i) later[28 + i] = static_cast<uint8_t>(sum >> 8 * i);
  EXPECT_EQ(-1, readAll(later, 1000).result);
  EXPECT_EQ(ENOTSUP, errno);
  EXPECT_EQ(-1, readAll({0, 0, 0, 1, 0x67}, 1000).result);
  EXPECT_EQ(EPROTO, errno);
  EXPECT_EQ(-1, StreamReader::recognise(std::span(bytes).first(5)));
  EXPECT_EQ(1, StreamReader::recognise(bytes));

  const Bytes unit(4);
  const std::vector<service::RegionCopy> many(kMostFrameCopies + 1);
  EXPECT_EQ(-1, writeFrame(-1, {}, {}, {}));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(-1, writeFrame(-1, {}, unit, many));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(-1, writeFrame(-1, {}, unit, {}));
  EXPECT_EQ(EBADF, errno);

  // Intact, but its copy would leave the picture.
  const service::RegionCopy outside[] = {{service::kChromaRightFlag, 32, 0, 0, 0, 32, 16}};
  int ends[2];
  ASSERT_EQ(0, pipe(ends));
  EXPECT_EQ(1, writeStreamHeader(ends[1], {}));
  EXPECT_EQ(1, writeFrame(ends[1], {.width = 64, .height = 48}, unit, outside));
  EXPECT_EQ(1, writeFrame(ends[1], {.width = 96, .height = 48}, unit, outside));
  close(ends[1]);
  StreamReader reader;
  StreamFrame frame;
  while (reader.fill(ends[0]) > 0) continue;
  EXPECT_EQ(1, reader.next(frame));
  EXPECT_TRUE(frame.afterGap && frame.head.width == 96 && frame.copies.size() == 1);
  EXPECT_EQ(0, reader.next(frame));
  EXPECT_EQ(1'000'000U, reader.header().ticksPerSecond);
  close(ends[0]);
}

}  // namespace
}  // namespace qora::client
