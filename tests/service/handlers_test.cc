// The handlers against a scripted encoder, with real pipes and a real segment.
#include <gtest/gtest.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "service/channel.h"
#include "service/frame.h"
#include "service/segment.h"
#include "service/streams.h"
#include "tests/support/captured_log.h"
#include "tests/support/message_bytes.h"
#include "tests/support/scoped_process_state.h"

namespace qora::service {
namespace {

using encoder::encoderApi;
using encoder::x264_nal_t;
using encoder::x264_picture_t;
using encoder::x264_t;
using test::Bytes;
using test::bytesOf;

// What the scripted encoder was asked, and what it answers with.
struct Script {
  std::string calls;
  Bytes payload = {7, 8, 9};
  x264_nal_t nal = {};
  x264_picture_t seen = {};
  Bytes planes[2] = {Bytes(64 * 64, 1), Bytes(64 * 32, 2)};
  bool reconstructs = true;
} script;

int32_t encode(x264_t*, x264_nal_t** nals, int32_t*, x264_picture_t* in, x264_picture_t* out) {
  script.calls += "encode ";
  script.seen = *in;
  script.nal.p_payload = script.payload.data();
  *nals = &script.nal;
  out->b_keyframe = 0x101;
  for (int32_t plane = 0; plane < 2; ++plane) {
    out->img.plane[plane] = script.reconstructs ? script.planes[plane].data() : nullptr;
    out->img.i_stride[plane] = 64;
  }
  return 3;
}

class Handlers : public testing::Test {
 protected:
  Handlers() {
    script = {};
    auto& api = encoderApi();
    api.fillParameters = [](auto...) { return 1; };
    api.x264_encoder_open = [](encoder::x264_param_t*) {
      script.calls += "open ";
      return reinterpret_cast<x264_t*>(&script);
    };
    api.x264_encoder_close = [](x264_t*) { script.calls += "close "; };
    api.x264_picture_init = [](x264_picture_t* picture) { *picture = {}; };
    api.x264_encoder_encode = encode;
    api.x264_encoder_invalidate_reference = [](x264_t*, int64_t pts) -> int32_t {
      script.calls += "invalidate" + std::to_string(pts) + " ";
      return 0;
    };
    api.x264_encoder_get_last_quantizer = [](x264_t*) { return 0x11F; };
    openChannel();
    EXPECT_EQ(pipe(replies_), 0);
    channelState().output = replies_[1];
    segment_ = shmget(IPC_PRIVATE, 65536, 0600);
  }
  ~Handlers() override {
    detachSegment();
    shmctl(segment_, IPC_RMID, nullptr);
    for (auto& stream : streamTable()) {
      free(stream.mb_info_map);
      free(stream.quant_offsets_map);
    }
    closeChannel();
    for (const int end : replies_) close(end);
  }

  int32_t call(int32_t (*handler)(uint8_t*, int32_t), const Bytes& message) {
    auto& channel = channelState();
    std::copy(message.begin(), message.end(), channel.data);
    channel.offset = kHeaderSize;
    channel.available = static_cast<int32_t>(message.size()) - kHeaderSize;
    return handler(channel.data, static_cast<int32_t>(message.size()));
  }
  int32_t add(uint8_t id, uint16_t bitrate = 0, uint16_t width = 64, uint16_t height = 48) {
    return call(addStream, bytesOf(buildAddStream({0, id, 1, bitrate, 0, 51, width, height})));
  }
  int32_t remove(uint8_t id) { return call(removeStream, bytesOf(buildRemoveStream(id))); }
  int32_t attach(int32_t id) {
    return call(attachSegment, bytesOf(buildSegmentMessage(CommandType::attachSegment, id)));
  }
  int32_t detach(int32_t id) {
    return call(removeSegment, bytesOf(buildSegmentMessage(CommandType::removeSegment, id)));
  }
  int32_t encodeWith(const test::FrameHints& hints) {
    return call(encodeFrame, encodeMessage({0, 0, 0, {0, 4096, 5120}, {64, 32, 33}, 0}, hints));
  }
  Bytes reply() {
    Bytes bytes(64);
    bytes.resize(static_cast<size_t>(read(replies_[0], bytes.data(), bytes.size())));
    return bytes;
  }

  test::ScopedProcessState state_;
  test::CapturedLog log_;
  int replies_[2];
  int segment_;
};

TEST_F(Handlers, AddMakesASlotAndRemoveEmptiesIt) {
  struct {
    uint16_t width, height;
    int32_t columns, rows;
  } const cases[] = {
      {1, 1, 1, 1}, {16, 16, 1, 1}, {17, 33, 2, 3}, {0, 48, 0, 3}, {65535, 16, 4096, 1}};
  for (const auto& c : cases) {
    auto& stream = streamTable()[7];
    stream.picture_out.img.plane[0] = script.planes[0].data();  // of an encoder long closed
    ASSERT_EQ(add(7, 0, c.width, c.height), 1);
    EXPECT_EQ(stream.mb_width * 10000 + stream.mb_height, c.columns * 10000 + c.rows);
    EXPECT_EQ(stream.in_use, 1U);
    EXPECT_EQ(stream.picture.prop.mb_info, stream.mb_info_map);
    EXPECT_EQ(stream.picture.prop.quant_offsets, stream.quant_offsets_map);
    EXPECT_EQ(stream.picture.img.i_csp * 10 + stream.picture.img.i_plane, 13);
    EXPECT_EQ(stream.picture_out.img.plane[0], nullptr);
    stream.frame_count = 5;
    ASSERT_EQ(remove(7), 1);
    EXPECT_EQ(stream.in_use + stream.frame_count + stream.mb_width + stream.mb_height, 0U);
    EXPECT_TRUE(stream.encoder == nullptr && stream.mb_info_map == nullptr &&
                stream.quant_offsets_map == nullptr && stream.picture.prop.mb_info == nullptr);
  }
  EXPECT_EQ(remove(7), 0);
}

TEST_F(Handlers, AddingTwiceLeavesTheFirstEncoderAndItsMapsBehind) {
  ASSERT_EQ(add(0), 1);
  uint8_t* info = streamTable()[0].mb_info_map;
  float* quantizer = streamTable()[0].quant_offsets_map;
  ASSERT_EQ(add(0), 1);
  EXPECT_NE(streamTable()[0].mb_info_map, info);
  EXPECT_EQ(script.calls, "open open ");
  free(info);
  free(quantizer);
}

TEST_F(Handlers, EncodeGivesTheEncoderPicturesAndMapsAndReplies) {
  ASSERT_EQ(attach(segment_), 1);
  ASSERT_EQ(add(0), 1);
  const auto& stream = streamTable()[0];
  ASSERT_EQ(encodeWith({{{5, 0, 0, 16, 16}, {9, 999, 0, 8, 8}, {7, 8, 0, 16, 16}}, {}, 1}), 3);
  EXPECT_EQ(script.calls, "open invalidate0 encode ");
  EXPECT_EQ(script.seen.img.plane[0], segmentAddress());
  EXPECT_EQ(script.seen.img.plane[2], segmentAddress() + 5120);
  EXPECT_EQ(script.seen.img.i_stride[1] * 100 + script.seen.img.i_stride[2], 3233);
  EXPECT_EQ(Bytes(stream.mb_info_map, stream.mb_info_map + 5), (Bytes{0, 0, 1, 1, 1}));
  EXPECT_EQ(stream.quant_offsets_map[0] * 100 + stream.quant_offsets_map[2], 600.0F);
  Bytes bytes = reply();
  ASSERT_EQ(bytes.size(), 23U);
  EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + 12),
            (Bytes{20, 0, 0, 0, 5, 1, 0x1F, 0, 3, 0, 0, 0}));
  EXPECT_EQ(Bytes(bytes.begin() + 20, bytes.end()), script.payload);

  // Without rectangles both maps stay; with others the quantizers stay where nothing covers them.
  encoderApi().x264_encoder_get_last_quantizer = nullptr;
  ASSERT_EQ(encodeWith({{}, {}, 2}), 3);
  EXPECT_EQ(stream.mb_info_map[0], 0);
  EXPECT_EQ(reply()[6], 255);
  // The stream added last decides how offsets are taken in all of them.
  ASSERT_EQ(add(1, 1), 1);
  ASSERT_EQ(encodeWith({{{-2, 32, 0, 1, 1}}}), 3);
  EXPECT_EQ(stream.mb_info_map[0], 1);
  EXPECT_EQ(stream.quant_offsets_map[0] * 100 + stream.quant_offsets_map[2], 598.0F);
  ASSERT_EQ(add(2, 0), 1);
  ASSERT_EQ(encodeWith({{{-2, 32, 0, 1, 1}}}), 3);
  EXPECT_EQ(stream.quant_offsets_map[2], -3.0F);
  EXPECT_EQ(stream.frame_count, 4U);
  EXPECT_EQ(script.calls, "open invalidate0 encode encode open encode open encode ");
}

TEST_F(Handlers, CopiesNeedAReferenceAndAReconstruction) {
  ASSERT_EQ(attach(segment_), 1);
  ASSERT_EQ(add(0), 1);
  const std::vector<RegionCopy> move = {{0, 0, 0, 8, 8, 4, 1}};
  const std::vector<Rectangle> some = {{0, 0, 0, 16, 16}};
  ASSERT_EQ(encodeWith({some, move}), 3);
  script.planes[0][0] = script.planes[1][0] = 42;
  ASSERT_EQ(encodeWith({{}, move}), 3);
  EXPECT_EQ(script.planes[0][8 * 64 + 8], 1);
  ASSERT_EQ(encodeWith({some, move}), 3);
  EXPECT_EQ(script.planes[0][8 * 64 + 8], 42);
  EXPECT_EQ(script.planes[1][4 * 64 + 8], 2);  // one luma row is half a chroma row
  script.reconstructs = false;
  ASSERT_EQ(encodeWith({some, move}), 3);
  EXPECT_EQ(log_.withoutPrefixes(),
            "CodecFrame: WARNING! Reference frame is empty.\n"
            "CodecFrame: WARNING! Cannot update maps with no rectangle.\n"
            "CodecFrame: WARNING! Reference frame is empty.\n"
            "CodecFrame: WARNING! Reconstructed frame is empty.\n");
}

TEST_F(Handlers, SegmentsAreReplacedAndRemoved) {
  const auto attached = [&] {
    shmid_ds status;
    return shmctl(segment_, IPC_STAT, &status) == 0 ? status.shm_nattch : 99;
  };
  ASSERT_EQ(attach(segment_), 1);
  ASSERT_EQ(attach(segment_), 1);
  EXPECT_EQ(attached(), 1U);
  EXPECT_EQ(detach(segment_ + 1), -1);
  EXPECT_EQ(attached(), 1U);
  EXPECT_EQ(detach(segment_), 1);
  EXPECT_EQ(attached(), 0U);
  EXPECT_EQ(segmentAddress(), nullptr);
  EXPECT_EQ(detach(-1), 1);

  // A failing detach is told, clears the record all the same and leaves its errno.
  test::CapturedLog log;
  pictureSegment() = {5, reinterpret_cast<void*>(0x1000)};
  errno = EIO;
  EXPECT_EQ(detachSegment(), 1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(pictureSegment().id, -1);
  EXPECT_EQ(log.withoutPrefixes(),
            "CodecSegment: ERROR! Failed to detach from segment id 5 with address 0x1000.\n"
            "CodecSegment: ERROR! Error is 22 'Invalid argument'.\n");
}

}  // namespace
}  // namespace qora::service
