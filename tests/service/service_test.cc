// SPDX-License-Identifier: BSD-2-Clause
// What the built service cannot be brought to from outside.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <numeric>
#include <thread>
#include <vector>

#include "qora/encoder/encoder_api.h"
#include "qora/service/channel.h"
#include "qora/service/fatal.h"
#include "qora/service/frame.h"
#include "qora/service/segment.h"
#include "qora/service/streams.h"

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
}

// The quotes inside the brackets are one reporter's own.
TEST(FatalOptions, EndWithStatus22) {
  EXPECT_EXIT(fatalOption("width", nullptr, "A"), testing::ExitedWithCode(22),
              "Error: Invalid option 'width' value 'nil' in context \\['A'\\].\n");
  EXPECT_EXIT(fatalOptionValue("width", "many"), testing::ExitedWithCode(22),
              "Error: Invalid option 'width' 'many'.\n");
}

// No library that the loader accepts lacks the function.
TEST(Reply, SaysWhenTheQuantizerIsNotKnown) {
  static encoder::x264_nal_t nal = {};
  uint8_t frame[4] = {0, 0, 0, 1};
  nal.p_payload = frame;
  encoder::encoderApi().x264_encoder_get_last_quantizer = nullptr;
  encoder::encoderApi().x264_encoder_encode = [](auto, auto nals, auto, auto, auto) {
    *nals = &nal;
    return 4;
  };
  streamTable()[0].in_use = 1;
  pictureSegment() = {1, frame};
  int replies[2];
  ASSERT_EQ(pipe(replies), 0);
  openChannel();
  const auto command = buildEncodeHead({});
  memcpy(channelState().data, command.data(), command.size());
  channelState().available = kEncodeFixedSize;
  channelState().output = replies[1];
  uint8_t* message;
  ASSERT_EQ(nextMessage(message), kHeaderSize);
  EXPECT_EQ(encodeFrame(message, kEncodeFixedSize), 4);
  uint8_t head[kReplyHeadSize];
  ASSERT_EQ(read(replies[0], head, sizeof head), kReplyHeadSize);
  EXPECT_EQ(parseReplyHead(head).quantizer, 255);
}

}  // namespace
}  // namespace qora::service
