// SPDX-License-Identifier: BSD-2-Clause
// tests/client/session_fixture.h -- A session with the real service, a clock that the test moves
// and a decoder that looks at what comes.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>

#include "qora/client/screen_session.h"
#include "tests/support/decoder.h"

namespace qora::client {

using std::chrono::milliseconds;
using test::Decoder;

// Lines of text, `shift` pixels up, in colour.
inline void drawPage(const Picture& picture, int32_t shift) {
  for (int32_t plane = 0; plane < 3; ++plane) {
    const int32_t scale = plane == 0 ? 1 : 2;
    for (int32_t y = 0; y < planeHeight(picture, plane); ++y) {
      for (int32_t x = 0; x < planeWidth(picture, plane); ++x) {
        const auto line = static_cast<uint32_t>(y * scale + shift);
        const auto glyph = static_cast<uint32_t>(x * scale) / 4 * 2654435761U ^ line / 4 * 40503U;
        const bool ink = line % 16 > 4 && (glyph >> 9 & 1) != 0;
        picture.plane[plane][y * picture.stride[plane] + x] =
            static_cast<uint8_t>(plane == 0 ? (ink ? 30 : 220)
                                 : ink      ? 90
                                            : 128 + plane);
      }
    }
  }
}

inline Area all(const Picture& picture) {
  return {0, 0, picture.width, picture.height};
}

// A session whose clock the test moves.
struct ScreenSessionTest : testing::Test, ScreenSession {
  SessionOptions options() {
    return {.service = {.servicePath = SERVICE, .codecRoot = CODEC_ROOT, .keepLog = true},
            .clock = [this] { return time; }};
  }
  Picture page(int32_t stream, int32_t shift) {
    Picture picture{};
    EXPECT_EQ(1, acquire(stream, picture)) << errorText();
    drawPage(picture, shift);
    return picture;
  }
  // All that comes until nothing is in flight, decoded; the bytes of it.
  size_t show(int32_t stream = 0) {
    size_t bytes = 0;
    int32_t result;
    while ((result = readFrame(frame)) == 1) {
      bytes += frame.bytes.size();
      if (frame.stream != stream) continue;
      keyFrames += frame.keyFrame ? 1 : 0;
      ++frames;
      EXPECT_TRUE(decoder.decode(frame.bytes));
      if (!frame.copies.empty()) decoder.copy(frame.copies);
    }
    EXPECT_EQ(0, result) << errorText();
    return bytes;
  }
  // Lets time pass until nothing more is sent.
  size_t settle() {
    size_t bytes = show();
    for (int32_t ticks = 0; ticks < 200; ++ticks) {
      time += milliseconds(40);
      EXPECT_NE(-1, process()) << errorText();
      bytes += show();
    }
    return bytes;
  }

  std::chrono::microseconds time{1'000'000};
  CodedFrame frame;
  Decoder decoder;
  int32_t frames = 0, keyFrames = 0;
};

}  // namespace qora::client
