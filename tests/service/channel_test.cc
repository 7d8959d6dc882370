#include "service/channel.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <numeric>
#include <thread>
#include <vector>

#include "service/messages.h"
#include "tests/support/captured_log.h"
#include "tests/support/scoped_process_state.h"

namespace qora::service {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes counting(size_t count) {
  Bytes bytes(count);
  std::iota(bytes.begin(), bytes.end(), 0);
  return bytes;
}

class Channel : public testing::Test {
 protected:
  Channel() {
    EXPECT_EQ(pipe(pipe_), 0);
    openChannel();
    channelState().input = pipe_[0];
  }
  ~Channel() override {
    closeChannel();
    close(pipe_[0]);
    if (pipe_[1] != -1) close(pipe_[1]);
  }
  void send(const Bytes& bytes) {
    EXPECT_EQ(write(pipe_[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  void endInput() {
    close(pipe_[1]);
    pipe_[1] = -1;
  }
  // Puts the read position where `held` bytes lie at the very end of `used` received ones.
  void hold(int32_t used, const Bytes& held) {
    channelState().available = static_cast<int32_t>(held.size());
    channelState().offset = used - channelState().available;
    memcpy(channelState().data + channelState().offset, held.data(), held.size());
  }

  test::ScopedProcessState state_;
  int pipe_[2];
};

TEST_F(Channel, HandsOutTwoMessagesOfOneReadAndCompletesASplitOne) {
  const Bytes first = {8, 0, 0, 0, 1, 0, 5, 6};
  const Bytes second = {12, 0, 0, 0, 3, 0, 1, 2};
  send(first);
  send(second);
  uint8_t* message = nullptr;
  ASSERT_EQ(nextMessage(message), 6);
  EXPECT_EQ(channelState().available, 10);
  ASSERT_EQ(completeMessage(message, 8, 2), 2);
  EXPECT_EQ(message[7], 6);
  ASSERT_EQ(nextMessage(message), 6);
  EXPECT_EQ(message, channelState().data + 8);
  send({3, 4, 5, 6, 8, 0});
  ASSERT_EQ(completeMessage(message, 12, 6), 4);  // what was read now, not the body's length
  EXPECT_EQ(Bytes(message + 6, message + 12), (Bytes{1, 2, 3, 4, 5, 6}));

  std::thread sender([&] {
    usleep(20000);
    send({0, 0, 1, 0, 9});
  });
  ASSERT_EQ(nextMessage(message), 6);  // starts at offset 0 again; 2 bytes, then exactly 4
  sender.join();
  EXPECT_EQ(message, channelState().data);
  EXPECT_EQ(channelState().available, 0);
  ASSERT_EQ(completeMessage(message, 8, 1), 1);
  EXPECT_EQ(message[6], 9);
}

TEST_F(Channel, GrowsWithTheHeaderAtTheSameDistance) {
  test::CapturedLog log;
  hold(65530, counting(10));
  uint8_t* message = nullptr;
  ASSERT_EQ(nextMessage(message), 6);
  send(counting(100));
  ASSERT_EQ(completeMessage(message, 110, 104), 100);
  EXPECT_EQ(channelState().capacity, 131072);
  EXPECT_EQ(message, channelState().data + 65520);
  Bytes expected = counting(10);
  const Bytes rest = counting(100);
  expected.insert(expected.end(), rest.begin(), rest.end());
  EXPECT_EQ(Bytes(message, message + 110), expected);
  EXPECT_EQ(log.withoutPrefixes(), "CodecMain: WARNING! Reallocated buffer with size 131072.\n");
}

TEST_F(Channel, CompletesAHeaderThatBeginsInTheLastBytesOfTheBuffer) {
  for (int32_t held = 1; held < 6; ++held) {
    SCOPED_TRACE(held);
    closeChannel();
    openChannel();
    channelState().input = pipe_[0];
    test::CapturedLog log;
    const Bytes whole = {8, 0, 0, 0, 1, 0, 7, 8};
    hold(65536, Bytes(whole.begin(), whole.begin() + held));
    send(Bytes(whole.begin() + held, whole.end()));
    uint8_t* message = nullptr;
    ASSERT_EQ(nextMessage(message), 6);
    ASSERT_EQ(completeMessage(message, 8, 2), 2);
    EXPECT_EQ(Bytes(message, message + 8), whole);
    EXPECT_EQ(log.withoutPrefixes(), "CodecMain: WARNING! Reallocated buffer with size 131072.\n");
  }
}

TEST(CapacityFor, RoundsWhatAMessageNeeds) {
  struct {
    const char* what;
    int32_t offset, size, bodyLength;
    int64_t capacity;
  } const cases[] = {
      {"fits", 6, 65536, 65530, 65536},
      {"one byte more", 6, 65537, 65531, 131072},
      {"size counts though the body is short", 6, 70000, 2, 131072},
      {"the offset counts", 65000, 600, 594, 131072},
      {"end beyond size", 65006, 65537, 65531, 131072},
      {"body alone, size negative", 65530, -1, 10, 131072},
      {"a negative size asks for nothing", 6, INT32_MIN, 10, 65536},
      {"one MiB", 6, 1048576, 1048570, 1048576},
      {"one MiB and a byte", 6, 1048577, 1048571, 1114112},
      {"the largest size there is", 6, INT32_MAX, INT32_MAX - 6, 2147483648},
      {"the largest size behind held bytes", 70000, INT32_MAX, INT32_MAX - 6, 2147614720},
  };
  for (const auto& c : cases) {
    ChannelState channel;
    channel.capacity = 65536;
    channel.offset = c.offset;
    EXPECT_EQ(capacityFor(channel, c.size, c.bodyLength), c.capacity) << c.what;
  }
}

TEST(ConsumeWritten, PassesOverWholeEntriesAndShortensTheNext) {
  uint8_t bytes[10];
  struct {
    size_t written, passed, firstLeft, secondLeft;
  } const cases[] = {{0, 0, 4, 6}, {3, 0, 1, 6}, {4, 1, 4, 6}, {5, 1, 4, 5}, {10, 2, 4, 6}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.written);
    iovec entries[] = {{bytes, 4}, {bytes + 4, 6}};
    EXPECT_EQ(consumeWritten(entries, 2, c.written), c.passed);
    EXPECT_EQ(entries[0].iov_len, c.firstLeft);
    EXPECT_EQ(entries[1].iov_len, c.secondLeft);
    EXPECT_EQ(entries[1].iov_base, bytes + 10 - c.secondLeft);
  }
}

TEST_F(Channel, WritesAllThroughASmallPipe) {
  const Bytes head = counting(20);
  const Bytes payload = counting(300000);
  Bytes got;
  std::thread reader([&] {
    uint8_t chunk[4097];
    for (ssize_t count; (count = read(pipe_[0], chunk, sizeof chunk)) > 0;) {
      got.insert(got.end(), chunk, chunk + count);
    }
  });
  EXPECT_EQ(writeChannelPair(pipe_[1], head.data(), 20, payload.data(), 300000), 300020);
  EXPECT_EQ(writeChannel(pipe_[1], payload.data(), 100000), 100000);
  endInput();
  reader.join();
  Bytes expected = head;
  expected.insert(expected.end(), payload.begin(), payload.end());
  expected.insert(expected.end(), payload.begin(), payload.begin() + 100000);
  EXPECT_TRUE(got == expected);
  EXPECT_EQ(writeChannelPair(-1, head.data(), 20, payload.data(), 1), -1);
  EXPECT_EQ(writeChannel(-1, head.data(), 20), -1);
  EXPECT_EQ(errno, EBADF);
}

}  // namespace
}  // namespace qora::service
