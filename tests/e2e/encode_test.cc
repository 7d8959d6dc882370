// The built service with the real encoder behind the bridge: its coded bytes, and what a decoder
// makes of them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "qora/client/codec_client.h"
#include "qora/client/frame_segment.h"
#include "qora/service/wire/byte_order.h"
#include "tests/support/captured_log.h"
#include "tests/support/direct_encoder.h"
#include "tests/support/temporary_root.h"

namespace qora::service {
namespace {

using test::Bytes;
using test::DirectEncoder;
using test::FrameHints;

AddStreamRequest stream(uint8_t id, int32_t width, int32_t height, uint16_t bitrate = 0,
                        uint8_t flags = kAnnexBFlag) {
  return {
      flags, id, 1, bitrate, 10, 51, static_cast<uint16_t>(width), static_cast<uint16_t>(height)};
}

// Streams in the service and the same in this process, which must give the same bytes.
class Session {
 public:
  Session() {
    EXPECT_EQ(segment_.create(322, 240, 1), 1);  // no stream is larger
    EXPECT_EQ(client_.start({SERVICE, CODEC_ROOT, fileno(log_)}), 1);
    client_.attachSegment(segment_.id());
  }
  ~Session() { fclose(log_); }

  void add(const AddStreamRequest& settings) {
    Stream& stream = streams_[settings.streamId];
    if (stream.direct != nullptr) client_.removeStream(settings.streamId);
    client_.addStream(settings);
    stream = {settings, std::make_unique<DirectEncoder>(settings)};
  }
  // Encodes a textured ground with a lighter box that crosses it and is told of; `moving`:
  // everything changes.
  client::Reply encode(uint8_t id, int32_t number, bool moving, FrameHints hints = {}) {
    const auto& [settings, direct] = streams_[id];
    draw(settings, number, moving);
    const bool box = number > 0 && !moving;
    const auto height = static_cast<uint16_t>(box ? 48 : settings.height);
    hints.rectangles.insert(hints.rectangles.begin(),
                            {0, 0, static_cast<uint16_t>(box ? 16 : 0), settings.width, height});
    EncodeRequest request{};
    segment_.place(0, request);
    request.streamId = id;
    request.invalidate = hints.invalidate;
    client::Reply reply;
    EXPECT_EQ(client_.encode(request, hints.rectangles, {}), 1);
    EXPECT_EQ(client_.readReply(reply), 1) << client_.endText();
    const auto& [planes, strides, w, h] = segment_.picture(0);
    const auto coded = direct->encodeView(
        {{planes[0], planes[1], planes[2]}, {strides[0], strides[1], strides[2]}}, hints);
    EXPECT_TRUE(std::ranges::equal(coded, reply.frame)) << "stream " << +id << " frame " << number;
    EXPECT_EQ(reply.fields.keyFrame, number == 0 || hints.invalidate == 1 ? 1 : 0);
    EXPECT_EQ(reply.fields.quantizer, direct->quantizer());
    EXPECT_LE(reply.fields.startTime, reply.fields.endTime);
    return reply;
  }
  const uint8_t* lumaRow(int32_t y) const {
    return segment_.picture(0).plane[0] + y * segment_.picture(0).stride[0];
  }
  // Ends the service in order; what it had to say.
  std::string finish() {
    EXPECT_EQ(client_.stop(), 1) << client_.endText();
    std::string text(65536, '\0');
    text.resize(static_cast<size_t>(pread(fileno(log_), text.data(), text.size(), 0)));
    return test::replaceTimePrefixes(text, "");
  }

 private:
  struct Stream {
    AddStreamRequest settings;
    std::unique_ptr<DirectEncoder> direct;
  };

  void draw(const AddStreamRequest& settings, int32_t number, bool moving) {
    const int32_t drift = moving ? number * 29 : 0, left = number * 5 % (settings.width - 48);
    for (int32_t y = 0; y < settings.height; ++y) {
      for (int32_t x = 0; x < settings.width; ++x) {
        const bool inBox = x >= left && x < left + 48 && y >= 16 && y < 64;
        const_cast<uint8_t*>(lumaRow(y))[x] = static_cast<uint8_t>(
            60 + ((x + drift) * 7 ^ (y * 13 + drift)) % 83 + (inBox ? 60 + x - left : 0));
      }
    }
  }

  FILE* log_ = tmpfile();
  client::FrameSegment segment_;
  client::CodecClient client_;
  Stream streams_[kStreamCount];
};

std::string outputOf(const std::string& command) {
  std::string text(32 << 20, '\0');
  FILE* pipe = popen(command.c_str(), "r");
  text.resize(fread(text.data(), 1, text.size(), pipe));
  pclose(pipe);
  return text;
}

TEST(Encode, AQualityStreamDecodesAlmostWithoutLoss) {
  constexpr int32_t kWidth = 322, kHeight = 240, kFrames = 50;  // not a whole number of macroblocks
  const test::TemporaryRoot folder;
  const std::string file = folder.path() + "/clip.264";
  std::ofstream coded(file);
  std::string luma;
  Session session;
  session.add(stream(0, kWidth, kHeight));
  for (int32_t number = 0; number < kFrames; ++number) {
    const Bytes frame = session.encode(0, number, false).frame;
    coded.write(reinterpret_cast<const char*>(frame.data()), static_cast<ptrdiff_t>(frame.size()));
    for (int32_t y = 0; y < kHeight; ++y)
      luma.append(session.lumaRow(y), session.lumaRow(y) + kWidth);
  }
  coded.close();
  EXPECT_EQ(outputOf("ffprobe -v error -show_entries stream=profile -of csv=p=0 " + file),
            "Constrained Baseline\n");
  const std::string decoded =
      outputOf("ffmpeg -v error -i " + file + " -vf extractplanes=y -f rawvideo -");
  ASSERT_EQ(decoded.size(), luma.size());
  for (int32_t number = 0, pixels = kWidth * kHeight; number < kFrames; ++number) {
    double sum = 0;
    for (int32_t i = number * pixels; i < (number + 1) * pixels; ++i) {
      sum += std::pow(static_cast<uint8_t>(luma[i]) - static_cast<uint8_t>(decoded[i]), 2);
    }
    EXPECT_GE(10 * std::log10(255.0 * 255.0 * pixels / sum), 45.0) << number;
  }
  EXPECT_EQ(session.finish(), "");
}

TEST(Encode, ABitrateStreamKeepsItsRateOnMovingContent) {
  constexpr int32_t kFrames = 200;
  Session session;
  session.add(stream(1, 320, 240, 800));
  size_t bytes = 0;
  for (int32_t n = 0; n < kFrames; ++n) bytes += session.encode(1, n, true).frame.size();
  EXPECT_NEAR(static_cast<double>(bytes) * 8 * 25 / kFrames / 1000, 800, 80);
}

TEST(Encode, StartCodesOrLengthsStandBeforeTheNalUnits) {
  Session session;
  session.add(stream(0, 64, 80));
  session.add(stream(1, 64, 80, 0, 0x03));
  const Bytes coded = session.encode(0, 0, false).frame;
  const Bytes lengths = session.encode(1, 0, false).frame;
  EXPECT_EQ(Bytes(coded.begin(), coded.begin() + 5), (Bytes{0, 0, 0, 1, 0x67}));
  size_t at = 0;  // from one length to the next, exactly to the end
  while (at + 4 <= lengths.size()) at += 4 + readUint32(&lengths[at], 1);
  EXPECT_EQ(at, lengths.size());
}

TEST(Encode, EightStreamsSideBySideAndResizedDoNotDisturbEachOther) {
  Session session;
  for (const int32_t wider : {0, 32}) {  // the second time the same ids in other sizes
    for (uint8_t id = 0; id < kStreamCount; ++id) {
      session.add(stream(id, 96 + 16 * id + wider, 80 + 6 * id));
    }
    for (int32_t number = 0; number < 12; ++number) {
      for (uint8_t id = 0; id < kStreamCount; ++id) {
        session.encode(id, number, number > 6, {{{-3, 0, 0, 40, 40}}, {}, number == 9});
      }
    }
  }
  EXPECT_EQ(session.finish(), "");
}

}  // namespace
}  // namespace qora::service
