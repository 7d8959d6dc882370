#include "service/channel.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <numeric>
#include <thread>
#include <vector>

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
  }

  test::ScopedProcessState state_;
  int pipe_[2];
};

// Wherever the held bytes of a message end and its rest arrives, also where the header begins in
// the last bytes of the buffer: it is whole, and the growth is that of its place.
TEST_F(Channel, CompletesAMessageAtTheEndOfTheBuffer) {
  const Bytes whole = {9, 0, 0, 0, 1, 0, 7, 8, 9};
  for (int32_t held = 1; held < 9; ++held) {
    SCOPED_TRACE(held);
    closeChannel();
    openChannel();
    channelState().input = pipe_[0];
    channelState().available = held;
    channelState().offset = 65536 - held;
    std::copy_n(whole.begin(), held, channelState().data + 65536 - held);
    EXPECT_EQ(write(pipe_[1], &whole[held], 9 - held), 9 - held);
    test::CapturedLog log;
    uint8_t* message = nullptr;
    ASSERT_EQ(nextMessage(message), 6);
    EXPECT_EQ(completeMessage(message, 9, 3), held <= 6 ? 3 : 9 - held);  // what was read now
    EXPECT_EQ(message, channelState().data + 65536 - held);
    EXPECT_EQ(Bytes(message, message + 9), whole);
    EXPECT_EQ(log.withoutPrefixes(), "CodecMain: WARNING! Reallocated buffer with size 131072.\n");
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
  const Bytes head = counting(20), payload = counting(300000);
  Bytes expected = head, got(400020);
  expected.insert(expected.end(), payload.begin(), payload.end());
  expected.insert(expected.end(), payload.begin(), payload.begin() + 100000);
  std::thread reader([&] { EXPECT_EQ(readChannel(pipe_[0], got.data(), 0, 400020), 400020); });
  EXPECT_EQ(writeChannelPair(pipe_[1], head.data(), 20, payload.data(), 300000), 300020);
  EXPECT_EQ(writeChannel(pipe_[1], payload.data(), 100000), 100000);
  reader.join();
  EXPECT_TRUE(got == expected);
  EXPECT_EQ(writeChannelPair(-1, head.data(), 20, payload.data(), 1), -1);
  EXPECT_EQ(writeChannel(-1, head.data(), 20), -1);
  EXPECT_EQ(errno, EBADF);
}

}  // namespace
}  // namespace qora::service
