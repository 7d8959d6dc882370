// SPDX-License-Identifier: BSD-2-Clause
// The C library: its records in all versions, and that every field arrives where it belongs.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "qora/session/qora_session.h"

namespace {

TEST(CSession, FieldsArriveFromOlderAndNewerCallers) {
  qora_session* session = qora_session_create();
  qora_session_options options;
  qora_session_options_init(&options, sizeof options);
  options.service_path = SERVICE;
  options.codec_root = CODEC_ROOT;
  int64_t time = 1'234'567;
  options.clock_us = [](void* context) { return *static_cast<int64_t*>(context); };
  options.clock_context = &time;
  ASSERT_EQ(1, qora_session_start(session, &options)) << qora_session_error_text(session);

  struct {
    qora_session_stream known;
    int32_t later;
  } newer;
  qora_session_stream_init(&newer.known, sizeof newer);
  newer.known.width = newer.known.height = 128;
  newer.later = 1;
  EXPECT_EQ(-E2BIG, qora_session_add_stream(session, &newer.known));
  newer.later = 0;
  EXPECT_EQ(1, qora_session_add_stream(session, &newer.known));
  EXPECT_EQ(-EBUSY, qora_session_add_stream(session, &newer.known));
  EXPECT_STREQ("stream 0 is in use", qora_session_error_text(session));
  // Who knows no quality gets the default, whatever stands where it would be.
  qora_session_stream older = newer.known;
  older.struct_size = offsetof(qora_session_stream, quality);
  older.id = 1;
  older.quality = -1000;
  EXPECT_EQ(1, qora_session_add_stream(session, &older));

  qora_session_picture picture;
  ASSERT_EQ(1, qora_session_acquire(session, 0, 0, &picture));
  EXPECT_EQ(1, qora_session_encode_changes(session, 0, &picture));
  // And who knows no copies finds nothing written where they would be.
  const qora_session_copy copy = {0, 34, 44, 16, 48, 80, 32};
  qora_session_frame frame;
  frame.struct_size = offsetof(qora_session_frame, copies);
  frame.copies = &copy;
  ASSERT_EQ(1, qora_session_read_frame(session, &frame, -1));
  EXPECT_EQ(&copy, frame.copies);
  const qora_session_rectangle row = {0, 16, 128, 16, newer.known.quality};
  ASSERT_EQ(8U, frame.rectangle_count);
  EXPECT_EQ(0, std::memcmp(&row, frame.rectangles + 1, sizeof row));

  ASSERT_EQ(1, qora_session_acquire(session, 0, 1, &picture));
  const qora_session_area all = {0, 0, 128, 128};
  EXPECT_EQ(1, qora_session_encode(session, 0, &picture, &all, 1, &copy, 1));
  frame.struct_size = sizeof frame;
  ASSERT_EQ(1, qora_session_read_frame(session, &frame, -1));
  EXPECT_EQ(time, frame.picture_time_us);
  ASSERT_EQ(1U, frame.copy_count);
  EXPECT_EQ(0, std::memcmp(&copy, frame.copies, sizeof copy));
  qora_session_destroy(session);
}

}  // namespace
