#include "qora/service/channel.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <numeric>
#include <thread>
#include <vector>

namespace qora::service {
namespace {

TEST(Channel, WritesAllThroughASmallPipe) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  std::vector<uint8_t> sent(400020), got(400020);
  std::iota(sent.begin(), sent.end(), 0);
  std::thread reader([&] { EXPECT_EQ(readChannel(ends[0], got.data(), 0, 400020), 400020); });
  EXPECT_EQ(writeChannelPair(ends[1], sent.data(), 20, &sent[20], 300000), 300020);
  EXPECT_EQ(writeChannel(ends[1], &sent[300020], 100000), 100000);
  reader.join();
  EXPECT_TRUE(got == sent);
  EXPECT_EQ(writeChannel(-1, sent.data(), 20), -1);
  EXPECT_EQ(errno, EBADF);
}

}  // namespace
}  // namespace qora::service
