// The handlers against a scripted encoder: what only a look inside can tell.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "service/channel.h"
#include "service/frame.h"
#include "service/segment.h"
#include "service/streams.h"
#include "tests/support/captured_log.h"
#include "tests/support/scoped_process_state.h"

namespace qora::service {
namespace {

using encoder::encoderApi;
using encoder::x264_nal_t;
using encoder::x264_picture_t;
using encoder::x264_t;
using Bytes = std::vector<uint8_t>;

// What the scripted encoder was asked, and what it answers with.
struct Script {
  std::string calls;
  Bytes payload = {7, 8, 9};
  x264_nal_t nal = {};
  x264_picture_t seen = {};
} script;

int32_t encode(x264_t*, x264_nal_t** nals, int32_t*, x264_picture_t* in, x264_picture_t* out) {
  script.calls += "encode ";
  script.seen = *in;
  script.nal.p_payload = script.payload.data();
  *nals = &script.nal;
  out->b_keyframe = 0x101;
  return 3;
}

class Handlers : public testing::Test {
 protected:
  Handlers() {
    script = {};
    auto& api = encoderApi();
    api.fillParameters = [](auto...) { return 1; };
    api.x264_encoder_open = [](auto) { return reinterpret_cast<x264_t*>(&script); };
    api.x264_encoder_close = [](auto) { script.calls += "close "; };
    api.x264_picture_init = [](x264_picture_t* picture) { *picture = {}; };
    api.x264_encoder_encode = encode;
    api.x264_encoder_invalidate_reference = [](auto, int64_t pts) {
      script.calls += "invalidate" + std::to_string(pts) + " ";
      return 0;
    };
    api.x264_encoder_get_last_quantizer = [](auto) { return 0x11F; };
    openChannel();
    EXPECT_EQ(pipe(replies_), 0);
    channelState().output = replies_[1];
    pictureSegment().address = script.payload.data();  // looked at by nobody
  }
  ~Handlers() override {
    for (uint8_t id = 0; id < kStreamCount; ++id) remove(id);
    closeChannel();
    for (const int end : replies_) close(end);
  }

  template <typename Message>
  int32_t call(int32_t (*handler)(uint8_t*, int32_t), const Message& message) {
    auto& channel = channelState();
    std::copy(message.begin(), message.end(), channel.data);
    channel.offset = kHeaderSize;
    channel.available = static_cast<int32_t>(message.size()) - kHeaderSize;
    return handler(channel.data, static_cast<int32_t>(message.size()));
  }
  int32_t add(uint8_t id, uint16_t bitrate = 0, uint16_t width = 64, uint16_t height = 48) {
    return call(addStream, buildAddStream({0, id, 1, bitrate, 0, 51, width, height}));
  }
  int32_t remove(uint8_t id) { return call(removeStream, buildRemoveStream(id)); }
  // Encodes with the rectangle, unless it is null. Returns the reply.
  Bytes encodeWith(const Rectangle* rectangle, uint8_t invalidate = 0) {
    const uint32_t r = rectangle == nullptr ? 0 : kRectangleSize;
    const auto head = buildEncodeHead({0, invalidate, r, {0, 4096, 5120}, {64, 32, 33}, 0});
    Bytes message(head.begin(), head.end());
    message.resize(kEncodeFixedSize + r);
    if (r != 0) buildRectangle(*rectangle, &message[kEncodeFixedSize]);
    EXPECT_EQ(call(encodeFrame, message), 3);
    Bytes reply(64);
    reply.resize(static_cast<size_t>(read(replies_[0], reply.data(), reply.size())));
    return reply;
  }

  test::ScopedProcessState state_;
  test::CapturedLog log_;
  int replies_[2];
};

TEST_F(Handlers, AddMakesASlotAndRemoveEmptiesIt) {
  const struct {
    uint16_t width, height;
    int32_t columns, rows;
  } cases[] = {{1, 1, 1, 1}, {17, 33, 2, 3}, {0, 48, 0, 3}, {65535, 16, 4096, 1}};
  auto& stream = streamTable()[7];
  for (const auto& c : cases) {
    stream.picture_out.img.plane[0] = script.payload.data();  // of an encoder long closed
    ASSERT_EQ(add(7, 0, c.width, c.height), 1);
    EXPECT_EQ(stream.mb_width * 10000 + stream.mb_height, c.columns * 10000 + c.rows);
    EXPECT_EQ(stream.picture.prop.mb_info, stream.mb_info_map);
    EXPECT_EQ(stream.picture.prop.quant_offsets, stream.quant_offsets_map);
    EXPECT_EQ(stream.picture.img.i_csp * 100 + stream.picture.img.i_plane * 10 + stream.in_use,
              131U);
    EXPECT_EQ(stream.picture_out.img.plane[0], nullptr);
    stream.frame_count = 5;
    ASSERT_EQ(remove(7), 1);
    EXPECT_EQ(stream.in_use + stream.frame_count + stream.mb_width + stream.mb_height, 0U);
    EXPECT_TRUE(stream.encoder == nullptr && stream.picture.prop.mb_info == nullptr);
  }
  EXPECT_EQ(remove(7), 0);
  // A second add leaves the first encoder and its maps behind.
  ASSERT_EQ(add(7), 1);
  uint8_t* info = stream.mb_info_map;
  float* quantizer = stream.quant_offsets_map;
  ASSERT_EQ(add(7), 1);
  EXPECT_NE(stream.mb_info_map, info);
  EXPECT_EQ(script.calls, "close close close close ");
  free(info);
  free(quantizer);
}

TEST_F(Handlers, EncodeGivesTheEncoderPicturesAndMapsAndReplies) {
  ASSERT_EQ(add(0), 1);
  const auto& stream = streamTable()[0];
  const Rectangle first = {5, 8, 0, 16, 16}, later = {-2, 32, 0, 1, 1};
  Bytes reply = encodeWith(&first, 1);
  EXPECT_EQ(script.seen.img.plane[2] - script.seen.img.plane[0], 5120);
  EXPECT_EQ(script.seen.img.i_stride[1] * 100 + script.seen.img.i_stride[2], 3233);
  EXPECT_EQ(Bytes(stream.mb_info_map, stream.mb_info_map + 4), (Bytes{0, 0, 1, 1}));
  EXPECT_EQ(stream.quant_offsets_map[0], 4.0F);
  std::fill_n(reply.begin() + 12, 8, 0);
  EXPECT_EQ(reply,
            (Bytes{20, 0, 0, 0, 5, 1, 0x1F, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7, 8, 9}));
  // Without rectangles both maps stay; with others the quantizers stay where nothing covers them.
  encoderApi().x264_encoder_get_last_quantizer = nullptr;
  EXPECT_EQ(encodeWith(nullptr, 2)[6], 255);
  EXPECT_EQ(stream.mb_info_map[0], 0);
  ASSERT_EQ(add(1, 1), 1);  // the stream added last decides how offsets are taken in all of them
  encodeWith(&later);
  EXPECT_EQ(stream.mb_info_map[0], 1);
  EXPECT_EQ(stream.quant_offsets_map[0] * 100 + stream.quant_offsets_map[2], 398.0F);
  ASSERT_EQ(add(2, 0), 1);
  encodeWith(&later);
  EXPECT_EQ(stream.quant_offsets_map[2], -3.0F);
  EXPECT_EQ(stream.frame_count, 4U);
  EXPECT_EQ(script.calls, "invalidate0 encode encode encode encode ");
}

}  // namespace
}  // namespace qora::service
