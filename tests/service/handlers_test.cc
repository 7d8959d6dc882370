// The handlers against a scripted encoder, with real pipes and a real segment.
#include <gtest/gtest.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "service/channel.h"
#include "service/frame.h"
#include "service/messages.h"
#include "service/segment.h"
#include "service/streams.h"
#include "tests/support/captured_log.h"
#include "tests/support/scoped_process_state.h"

namespace qora::service {
namespace {

using Bytes = std::vector<uint8_t>;
using encoder::encoderApi;
using encoder::x264_nal_t;
using encoder::x264_picture_t;
using encoder::x264_t;

// What the scripted encoder was asked, and what it answers.
struct Script {
  std::vector<std::string> calls;
  int32_t frameSize = 3;
  int32_t quantizer = 0x11F;
  Bytes payload = {7, 8, 9};
  x264_nal_t nal = {};
  x264_picture_t seen = {};
  Bytes luma = Bytes(64 * 64, 1);
  Bytes chroma = Bytes(64 * 32, 2);
};
Script* script;

int32_t encode(x264_t*, x264_nal_t** nals, int32_t* count, x264_picture_t* in,
               x264_picture_t* out) {
  script->calls.emplace_back("encode");
  script->seen = *in;
  script->nal.p_payload = script->payload.data();
  *nals = &script->nal;
  *count = 1;
  out->b_keyframe = 0x101;
  out->img.plane[0] = script->luma.data();
  out->img.plane[1] = script->chroma.data();
  out->img.i_stride[0] = out->img.i_stride[1] = 64;
  return script->frameSize;
}

class Handlers : public testing::Test {
 protected:
  Handlers() {
    script = &script_;
    auto& api = encoderApi();
    api.fillParameters = [](encoder::EncoderStream*, int32_t, int32_t, int32_t, int32_t, int32_t,
                            int32_t, int32_t) { return 1; };
    api.x264_encoder_open = [](encoder::x264_param_t*) {
      script->calls.emplace_back("open");
      return reinterpret_cast<x264_t*>(script);
    };
    api.x264_encoder_close = [](x264_t*) { script->calls.emplace_back("close"); };
    api.x264_picture_init = [](x264_picture_t* picture) { *picture = {}; };
    api.x264_encoder_encode = encode;
    api.x264_encoder_invalidate_reference = [](x264_t*, int64_t pts) -> int32_t {
      script->calls.push_back("invalidate " + std::to_string(pts));
      return 0;
    };
    api.x264_encoder_get_last_quantizer = [](x264_t*) { return script->quantizer; };
    openChannel();
    EXPECT_EQ(pipe(replies_), 0);
    channelState().output = replies_[1];
    channelState().input = -1;
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
    close(replies_[0]);
    close(replies_[1]);
  }

  template <typename Message>
  int32_t call(int32_t (*handler)(uint8_t*, int32_t), const Message& bytes) {
    auto& channel = channelState();
    std::copy(bytes.begin(), bytes.end(), channel.data);
    channel.offset = kHeaderSize;
    channel.available = static_cast<int32_t>(bytes.size()) - kHeaderSize;
    return handler(channel.data, static_cast<int32_t>(bytes.size()));
  }
  int32_t add(uint8_t id, uint16_t bitrate = 0, uint16_t width = 64, uint16_t height = 48) {
    return call(addStream, buildAddStream({0, id, 1, bitrate, 0, 51, width, height}));
  }
  void attach() {
    ASSERT_EQ(call(attachSegment, buildSegmentMessage(CommandType::attachSegment, segment_)), 1);
  }
  int32_t encodeWith(const std::vector<Rectangle>& rectangles,
                     const std::vector<RegionCopy>& copies = {}, uint8_t invalidate = 0) {
    const auto r = static_cast<uint32_t>(rectangles.size() * kRectangleSize);
    const auto k = static_cast<uint32_t>(copies.size() * kRegionCopySize);
    const auto head = buildEncodeHead({0, invalidate, r, {0, 4096, 5120}, {64, 32, 33}, k});
    Bytes message(head.begin(), head.end());
    message.resize(kEncodeFixedSize + r + k);
    uint8_t* entry = message.data() + kEncodeFixedSize;
    for (const auto& rectangle : rectangles) {
      buildRectangle(rectangle, entry);
      entry += kRectangleSize;
    }
    for (const auto& copy : copies) {
      buildRegionCopy(copy, entry);
      entry += kRegionCopySize;
    }
    return call(encodeFrame, message);
  }

  test::ScopedProcessState state_;
  test::CapturedLog log_;
  Script script_;
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
    stream.picture_out.img.plane[0] = script_.luma.data();  // of an encoder long closed
    ASSERT_EQ(add(7, 0, c.width, c.height), 1);
    EXPECT_EQ(stream.mb_width, c.columns);
    EXPECT_EQ(stream.mb_height, c.rows);
    EXPECT_EQ(stream.in_use, 1U);
    EXPECT_EQ(stream.picture.prop.mb_info, stream.mb_info_map);
    EXPECT_EQ(stream.picture.prop.quant_offsets, stream.quant_offsets_map);
    EXPECT_EQ(stream.picture.img.i_csp * 10 + stream.picture.img.i_plane, 13);
    EXPECT_EQ(stream.picture_out.img.plane[0], nullptr);
    stream.frame_count = 5;
    ASSERT_EQ(call(removeStream, buildRemoveStream(7)), 1);
    EXPECT_EQ(stream.in_use + stream.frame_count, 0U);
    EXPECT_EQ(stream.mb_width + stream.mb_height, 0);
    EXPECT_EQ(stream.encoder, nullptr);
    EXPECT_EQ(stream.mb_info_map, nullptr);
    EXPECT_EQ(stream.quant_offsets_map, nullptr);
    EXPECT_EQ(stream.picture.prop.mb_info, nullptr);
  }
  EXPECT_EQ(call(removeStream, buildRemoveStream(7)), 0);
  EXPECT_EQ(log_.withoutPrefixes(),
            "CodecFrame: WARNING! Cannot close invalid encoder for stream ID#7.\n");
}

TEST_F(Handlers, AddingTwiceLeavesTheFirstEncoderAndItsMapsBehind) {
  ASSERT_EQ(add(0), 1);
  uint8_t* info = streamTable()[0].mb_info_map;
  float* quantizer = streamTable()[0].quant_offsets_map;
  ASSERT_EQ(add(0), 1);
  EXPECT_NE(streamTable()[0].mb_info_map, info);
  EXPECT_EQ(script_.calls, (std::vector<std::string>{"open", "open"}));
  free(info);
  free(quantizer);
}

TEST_F(Handlers, TheStreamAddedLastDecidesTheBitrateModeOfAll) {
  attach();
  ASSERT_EQ(add(0, 0), 1);
  ASSERT_EQ(add(1, 1), 1);
  ASSERT_EQ(encodeWith({{-2, 0, 0, 16, 16}}), 3);
  EXPECT_EQ(streamTable()[0].quant_offsets_map[0], -2.0F);
  ASSERT_EQ(add(2, 0), 1);
  ASSERT_EQ(encodeWith({{-2, 0, 0, 16, 16}}), 3);
  EXPECT_EQ(streamTable()[0].quant_offsets_map[0], -3.0F);
}

TEST_F(Handlers, EncodeGivesTheEncoderPicturesMapsAndReplies) {
  attach();
  ASSERT_EQ(add(0), 1);
  ASSERT_EQ(encodeWith({{5, 0, 0, 16, 16}, {9, 999, 0, 8, 8}, {7, 8, 0, 16, 16}}, {}, 1), 3);
  EXPECT_EQ(script_.calls, (std::vector<std::string>{"open", "invalidate 0", "encode"}));
  EXPECT_EQ(script_.seen.img.plane[0], segmentAddress());
  EXPECT_EQ(script_.seen.img.plane[2], segmentAddress() + 5120);
  EXPECT_EQ(script_.seen.img.i_stride[1] * 100 + script_.seen.img.i_stride[2], 3233);
  const auto& stream = streamTable()[0];
  EXPECT_EQ(Bytes(stream.mb_info_map, stream.mb_info_map + 5), (Bytes{0, 0, 1, 1, 1}));
  EXPECT_EQ(stream.quant_offsets_map[0], 6.0F);
  EXPECT_EQ(stream.quant_offsets_map[2], 0.0F);
  EXPECT_EQ(stream.frame_count, 1U);
  uint8_t reply[24];
  ASSERT_EQ(read(replies_[0], reply, sizeof reply), 23);
  EXPECT_EQ(Bytes(reply, reply + 12), (Bytes{20, 0, 0, 0, 5, 1, 0x1F, 0, 3, 0, 0, 0}));
  EXPECT_EQ(Bytes(reply + 20, reply + 23), script_.payload);
  EXPECT_EQ(log_.withoutPrefixes(),
            "CodecFrame: WARNING! Skipping invalid rectangle [999,0,1007,8].\n");

  // Without rectangles both maps stay; with others the quantizers stay where nothing covers them.
  encoderApi().x264_encoder_get_last_quantizer = nullptr;
  ASSERT_EQ(encodeWith({}, {}, 2), 3);
  EXPECT_EQ(script_.calls.back() + script_.calls[script_.calls.size() - 2], "encodeencode");
  EXPECT_EQ(stream.mb_info_map[0], 0);
  ASSERT_EQ(read(replies_[0], reply, sizeof reply), 23);
  EXPECT_EQ(reply[6], 255);
  ASSERT_EQ(encodeWith({{0, 32, 0, 1, 1}}), 3);
  EXPECT_EQ(stream.mb_info_map[0], 1);
  EXPECT_EQ(stream.quant_offsets_map[0], 6.0F);
}

TEST_F(Handlers, CopiesNeedAReferenceAndAReconstruction) {
  attach();
  ASSERT_EQ(add(0), 1);
  const RegionCopy move = {0, 0, 0, 8, 8, 4, 1};
  const Rectangle some = {0, 0, 0, 16, 16};
  ASSERT_EQ(encodeWith({some}, {move}), 3);
  script_.luma[0] = 42;
  script_.chroma[0] = 42;
  ASSERT_EQ(encodeWith({}, {move}), 3);
  EXPECT_EQ(log_.withoutPrefixes(),
            "CodecFrame: WARNING! Reference frame is empty.\n"
            "CodecFrame: WARNING! Cannot update maps with no rectangle.\n"
            "CodecFrame: WARNING! Reference frame is empty.\n");
  EXPECT_EQ(script_.luma[8 * 64 + 8], 1);
  ASSERT_EQ(encodeWith({some}, {move}), 3);
  EXPECT_EQ(script_.luma[8 * 64 + 8], 42);
  EXPECT_EQ(script_.chroma[4 * 64 + 8], 2);  // one luma row is half a chroma row
  encoderApi().x264_encoder_encode = [](x264_t* a, x264_nal_t** b, int32_t* c, x264_picture_t* d,
                                        x264_picture_t* out) {
    const int32_t size = encode(a, b, c, d, out);
    out->img.plane[0] = nullptr;
    return size;
  };
  ASSERT_EQ(encodeWith({some}, {move}), 3);
  EXPECT_NE(log_.text().find("CodecFrame: WARNING! Reconstructed frame is empty.\n"),
            std::string::npos);
}

TEST_F(Handlers, AnEncoderThatGivesNothingEndsTheService) {
  attach();
  ASSERT_EQ(add(0), 1);
  for (const int32_t size : {0, -5}) {
    script_.frameSize = size;
    EXPECT_EQ(encodeWith({{0, 0, 0, 16, 16}}), -1);
  }
  EXPECT_EQ(streamTable()[0].frame_count, 0U);
  script_.frameSize = 3;
  channelState().output = -1;
  EXPECT_EQ(encodeWith({{0, 0, 0, 16, 16}}), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(Handlers, SegmentsAreReplacedRemovedAndCountedByTheSystem) {
  shmid_ds status;
  const auto attached = [&] {
    shmctl(segment_, IPC_STAT, &status);
    return status.shm_nattch;
  };
  attach();
  attach();
  EXPECT_EQ(attached(), 1U);
  EXPECT_EQ(call(removeSegment, buildSegmentMessage(CommandType::removeSegment, segment_ + 1)), -1);
  EXPECT_EQ(attached(), 1U);
  EXPECT_EQ(call(removeSegment, buildSegmentMessage(CommandType::removeSegment, segment_)), 1);
  EXPECT_EQ(attached(), 0U);
  EXPECT_EQ(segmentAddress(), nullptr);
  EXPECT_EQ(call(removeSegment, buildSegmentMessage(CommandType::removeSegment, -1)), 1);

  // A failing detach is told, clears the record all the same and leaves its errno.
  const std::string before = log_.withoutPrefixes();
  pictureSegment() = {5, reinterpret_cast<void*>(0x1000)};
  errno = EIO;
  EXPECT_EQ(detachSegment(), 1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(pictureSegment().id, -1);
  EXPECT_EQ(log_.withoutPrefixes().substr(before.size()),
            "CodecSegment: ERROR! Failed to detach from segment id 5 with address 0x1000.\n"
            "CodecSegment: ERROR! Error is 22 'Invalid argument'.\n");
}

}  // namespace
}  // namespace qora::service
