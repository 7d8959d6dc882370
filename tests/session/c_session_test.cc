// The C library: its records in all versions, and that every field arrives where it belongs.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "qora/session/qora_session.h"

namespace {

struct CSessionTest : testing::Test {
  CSessionTest() {
    qora_session_options_init(&options, sizeof options);
    options.service_path = SERVICE;
    options.codec_root = CODEC_ROOT;
    options.keep_log = 1;
    options.clock_us = [](void* context) { return *static_cast<int64_t*>(context); };
    options.clock_context = &time;
    qora_session_stream_init(&stream, sizeof stream);
    stream.width = stream.height = 128;
  }
  ~CSessionTest() override { qora_session_destroy(session); }
  std::string error() const { return qora_session_error_text(session); }
  // Noise that stands `shift` pixels further left.
  qora_session_picture noise(int32_t shift) {
    qora_session_picture picture{};
    EXPECT_EQ(1, qora_session_acquire(session, 0, 0, &picture)) << error();
    for (int32_t plane = 0; plane < 3; ++plane) {
      for (int32_t i = 0; i < (plane == 0 ? 128 * 128 : 64 * 64); ++i) {
        const int32_t side = plane == 0 ? 128 : 64, x = i % side, y = i / side;
        const auto seed = static_cast<uint32_t>((x + shift * side / 128) * 7919 + y * 104729);
        picture.plane[plane][y * picture.stride[plane] + x] =
            static_cast<uint8_t>(seed * 2654435761U >> 24);
      }
    }
    return picture;
  }

  int64_t time = 1'000'000;
  qora_session* session = qora_session_create();
  qora_session_options options;
  qora_session_stream stream;
  qora_session_frame frame = {};
};

TEST_F(CSessionTest, RecordsOfOlderAndNewerCallers) {
  struct Newer {
    qora_session_stream known;
    int32_t later;
  } newer;
  qora_session_stream_init(&newer.known, sizeof newer);
  newer.known.width = newer.known.height = 64;
  newer.later = 1;
  EXPECT_EQ(-E2BIG, qora_session_add_stream(session, &newer.known));
  EXPECT_NE("", error());
  newer.later = 0;
  EXPECT_EQ(1, qora_session_add_stream(session, &newer.known)) << error();
  // Who knows no quality gets the default, whatever stands where it would be.
  stream.id = 1;
  stream.struct_size = offsetof(qora_session_stream, quality);
  stream.quality = -1000;
  EXPECT_EQ(1, qora_session_add_stream(session, &stream)) << error();
  EXPECT_EQ(-EINVAL, qora_session_start(session, nullptr));
  EXPECT_EQ(-EINVAL, qora_session_read_frame(session, &frame, 0));
  stream.rate_control = 2;
  stream.id = 2;
  EXPECT_EQ(-EINVAL, qora_session_add_stream(session, &stream));
}

TEST_F(CSessionTest, FramesAndCopiesKeepTheirFields) {
  ASSERT_EQ(1, qora_session_start(session, &options)) << error();
  ASSERT_EQ(1, qora_session_add_stream(session, &stream)) << error();
  qora_session_picture picture = noise(0);
  EXPECT_EQ(1, qora_session_encode_changes(session, 0, &picture)) << error();
  // A caller from before the copies: nothing is written where it has no field.
  const auto* const mark = reinterpret_cast<const qora_session_copy*>(this);
  frame.struct_size = offsetof(qora_session_frame, copies);
  frame.copies = mark;
  ASSERT_EQ(1, qora_session_read_frame(session, &frame, -1)) << error();
  EXPECT_EQ(1, frame.key_frame);
  EXPECT_EQ(mark, frame.copies);
  EXPECT_EQ(0, std::memcmp(frame.bytes, "\0\0\0\1\x67", 5));
  const qora_session_rectangle row = {0, 16, 128, 16, stream.quality};
  ASSERT_EQ(8U, frame.rectangle_count);
  EXPECT_EQ(0, std::memcmp(&row, frame.rectangles + 1, sizeof row));

  picture = noise(18);
  time += 40'000;
  const qora_session_area all = {0, 0, 128, 128};
  const qora_session_copy copy = {0, 34, 48, 16, 48, 80, 32};
  EXPECT_EQ(1, qora_session_encode(session, 0, &picture, &all, 1, &copy, 1)) << error();
  EXPECT_EQ(-EINVAL, qora_session_release(session, 0, &picture));
  frame.struct_size = sizeof frame;
  ASSERT_EQ(1, qora_session_read_frame(session, &frame, -1)) << error();
  EXPECT_EQ(1, frame.picture);
  EXPECT_EQ(1'040'000, frame.picture_time_us);
  ASSERT_EQ(1U, frame.copy_count);
  EXPECT_EQ(0, std::memcmp(&copy, frame.copies, sizeof copy));
  EXPECT_EQ(1, qora_session_stop(session)) << error();
}

TEST_F(CSessionTest, ALostServiceIsANegativeErrno) {
  options.codec_root = "/nowhere";
  ASSERT_EQ(1, qora_session_start(session, &options)) << error();
  frame.struct_size = sizeof frame;
  int32_t result;
  while ((result = qora_session_read_frame(session, &frame, 1000)) == 0) {
  }
  EXPECT_EQ(-EPIPE, result);
  EXPECT_NE(std::string::npos, error().find("cannot load its encoder library")) << error();
}

}  // namespace
