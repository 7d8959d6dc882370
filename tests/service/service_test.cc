// What the built service cannot be brought to from outside.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <numeric>
#include <thread>
#include <vector>

#include "qora/service/channel.h"
#include "qora/service/fatal.h"

namespace qora::service {
namespace {

TEST(WriteChannel, WritesAllThroughASmallPipe) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  std::vector<uint8_t> sent(400020), got;
  std::iota(sent.begin(), sent.end(), 0);
  std::thread reader([&] {
    uint8_t part[4096];
    while (const ssize_t count = read(ends[0], part, sizeof part))
      got.insert(got.end(), part, part + count);
  });
  EXPECT_EQ(writeChannel(ends[1], sent.data(), 400020), 400020);
  close(ends[1]);
  reader.join();
  close(ends[0]);
  EXPECT_TRUE(got == sent);
  EXPECT_EQ(writeChannel(-1, sent.data(), 20), -1);
  EXPECT_EQ(errno, EBADF);
}

// The quotes inside the brackets are one reporter's own.
TEST(FatalOptions, EndWithStatus22) {
  EXPECT_EXIT(fatalOption("width", nullptr, "A"), testing::ExitedWithCode(22),
              "Error: Invalid option 'width' value 'nil' in context \\['A'\\].\n");
  EXPECT_EXIT(fatalOptionValue("width", "many"), testing::ExitedWithCode(22),
              "Error: Invalid option 'width' 'many'.\n");
}

}  // namespace
}  // namespace qora::service
