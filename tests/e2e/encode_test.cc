// The built service with the real encoder behind the bridge: its coded bytes, and what a decoder
// makes of them.
#include <gtest/gtest.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "checks/direct_encoder.h"
#include "client/codec_client.h"
#include "service/byte_order.h"
#include "tests/support/captured_log.h"
#include "tests/support/temporary_root.h"

namespace qora::service {
namespace {

using test::Bytes;
using test::DirectEncoder;
using test::FrameHints;
using test::Picture;

constexpr int32_t kSegmentBytes = 8 << 20;

// A service with one segment, driven frame by frame.
class Session {
 public:
  Session() : segment_(shmget(IPC_PRIVATE, kSegmentBytes, 0600)) {
    memory_ = static_cast<uint8_t*>(shmat(segment_, nullptr, 0));
    shmctl(segment_, IPC_RMID, nullptr);
    EXPECT_EQ(client_.start({SERVICE, CODEC_ROOT, fileno(log_)}), 1);
    client_.attachSegment(segment_);
  }
  ~Session() {
    shmdt(memory_);
    fclose(log_);
  }

  client::CodecClient& client() { return client_; }
  client::Reply encode(uint8_t id, const Picture& picture, const FrameHints& hints) {
    memcpy(memory_, picture.data.data(), picture.data.size());
    EncodeRequest request{};
    request.streamId = id;
    request.invalidate = hints.invalidate;
    for (int32_t plane = 0; plane < 3; ++plane) {
      request.planeOffset[plane] = static_cast<uint32_t>(picture.offset(plane));
      request.planeStride[plane] = static_cast<uint32_t>(picture.stride(plane));
    }
    client::Reply reply;
    EXPECT_EQ(client_.encode(request, hints.rectangles, hints.copies), 1);
    EXPECT_EQ(client_.readReply(reply), 1) << client_.endText();
    return reply;
  }
  // Ends the service in order; what it had to say.
  std::string finish() {
    EXPECT_EQ(client_.stop(), 1) << client_.endText();
    std::string text(65536, '\0');
    text.resize(static_cast<size_t>(pread(fileno(log_), text.data(), text.size(), 0)));
    return test::replaceTimePrefixes(text, "");
  }

 private:
  FILE* log_ = tmpfile();
  int32_t segment_;
  uint8_t* memory_;
  client::CodecClient client_;
};

struct Frame {
  Picture picture;
  FrameHints hints;
};

// A textured ground with a lighter box that crosses it and is told of; `moving`: everything
// changes.
Frame makeFrame(int32_t width, int32_t height, int32_t number, bool moving) {
  Frame frame = {{width, height, Bytes(static_cast<size_t>(width) * height * 3 / 2, 120)}, {}};
  const int32_t drift = moving ? number * 29 : 0, left = number * 5 % (width - 48);
  for (int32_t y = 0; y < height; ++y) {
    for (int32_t x = 0; x < width; ++x) {
      const bool inBox = x >= left && x < left + 48 && y >= 16 && y < 64;
      frame.picture.data[static_cast<size_t>(y * width + x)] = static_cast<uint8_t>(
          60 + ((x + drift) * 7 ^ (y * 13 + drift)) % 83 + (inBox ? 60 + x - left : 0));
    }
  }
  const auto all = static_cast<uint16_t>(width);
  frame.hints.rectangles = {{0, 0, 16, all, 48}};
  if (number == 0 || moving)
    frame.hints.rectangles = {{0, 0, 0, all, static_cast<uint16_t>(height)}};
  return frame;
}

AddStreamRequest stream(uint8_t id, uint16_t width, uint16_t height, uint16_t bitrate = 0,
                        uint8_t flags = kAnnexBFlag) {
  return {flags, id, 1, bitrate, 10, 51, width, height};
}

std::string outputOf(const std::string& command) {
  std::string text(32 << 20, '\0');
  FILE* pipe = popen(command.c_str(), "r");
  text.resize(fread(text.data(), 1, text.size(), pipe));
  pclose(pipe);
  return text;
}

double lumaPsnr(const Picture& picture, const char* decoded) {
  double sum = 0;
  const int32_t pixels = picture.width * picture.height;
  for (int32_t i = 0; i < pixels; ++i) {
    const int32_t difference = picture.data[i] - static_cast<uint8_t>(decoded[i]);
    sum += difference * difference;
  }
  return sum == 0 ? 99 : 10 * std::log10(255.0 * 255.0 * pixels / sum);
}

TEST(Encode, AQualityStreamEqualsTheInProcessCallsAndDecodesAlmostWithoutLoss) {
  Session session;
  const auto settings = stream(0, 322, 240);  // not a whole number of macroblocks
  session.client().addStream(settings);
  DirectEncoder direct(settings);
  Bytes coded;
  std::vector<Picture> pictures;
  for (int32_t number = 0; number < 50; ++number) {
    const Frame frame = makeFrame(322, 240, number, false);
    const client::Reply reply = session.encode(0, frame.picture, frame.hints);
    ASSERT_TRUE(reply.frame == direct.encode(frame.picture, frame.hints)) << number;
    EXPECT_EQ(reply.fields.keyFrame, number == 0 ? 1 : 0);
    EXPECT_EQ(reply.fields.quantizer, direct.quantizer());
    EXPECT_LE(reply.fields.startTime, reply.fields.endTime);
    coded.insert(coded.end(), reply.frame.begin(), reply.frame.end());
    pictures.push_back(frame.picture);
  }
  const test::TemporaryRoot folder;
  const std::string file = folder.path() + "/clip.264";
  std::ofstream(file) << std::string(coded.begin(), coded.end());
  EXPECT_EQ(outputOf("ffprobe -v error -show_entries stream=profile -of csv=p=0 " + file),
            "Constrained Baseline\n");
  const std::string decoded = outputOf("ffmpeg -v error -i " + file + " -f rawvideo -");
  const size_t pictureSize = pictures[0].data.size();
  ASSERT_EQ(decoded.size(), pictures.size() * pictureSize);
  for (size_t i = 0; i < pictures.size(); ++i) {
    EXPECT_GE(lumaPsnr(pictures[i], decoded.data() + i * pictureSize), 45.0) << i;
  }
  EXPECT_EQ(session.finish(), "");
}

TEST(Encode, ABitrateStreamKeepsItsRateOnMovingContent) {
  constexpr int32_t kFrames = 200;
  Session session;
  session.client().addStream(stream(1, 320, 240, 800));
  size_t bytes = 0;
  for (int32_t number = 0; number < kFrames; ++number) {
    const Frame frame = makeFrame(320, 240, number, true);
    bytes += session.encode(1, frame.picture, frame.hints).frame.size();
  }
  EXPECT_NEAR(static_cast<double>(bytes) * 8 * 25 / kFrames / 1000, 800, 80);
}

TEST(Encode, StartCodesOrLengthsStandBeforeTheNalUnits) {
  Session session;
  const Frame frame = makeFrame(64, 80, 0, false);
  session.client().addStream(stream(0, 64, 80));
  session.client().addStream(stream(1, 64, 80, 0, 0x03));
  const Bytes coded = session.encode(0, frame.picture, frame.hints).frame;
  const Bytes lengths = session.encode(1, frame.picture, frame.hints).frame;
  EXPECT_EQ(Bytes(coded.begin(), coded.begin() + 5), (Bytes{0, 0, 0, 1, 0x67}));
  size_t at = 0;  // from one length to the next, exactly to the end
  while (at + 4 <= lengths.size()) at += 4 + readUint32(&lengths[at], 1);
  EXPECT_EQ(at, lengths.size());
}

TEST(Encode, EightStreamsSideBySideAndResizedDoNotDisturbEachOther) {
  Session session;
  std::vector<std::unique_ptr<DirectEncoder>> direct;
  const auto settingsOf = [](uint8_t id, int32_t round) {
    return stream(id, static_cast<uint16_t>(96 + 16 * id + 32 * round),
                  static_cast<uint16_t>(80 + 6 * id));
  };
  for (int32_t round = 0; round < 2; ++round) {  // the second: the same ids in other sizes
    direct.clear();
    for (uint8_t id = 0; id < kStreamCount; ++id) {
      if (round == 1) session.client().removeStream(id);
      session.client().addStream(settingsOf(id, round));
      direct.push_back(std::make_unique<DirectEncoder>(settingsOf(id, round)));
    }
    for (int32_t number = 0; number < 12; ++number) {
      for (uint8_t id = 0; id < kStreamCount; ++id) {
        const auto settings = settingsOf(id, round);
        const Frame frame = makeFrame(settings.width, settings.height, number + id, number > 6);
        FrameHints hints = frame.hints;
        hints.rectangles.push_back({-3, 0, 0, 40, 40});
        hints.invalidate = number == 9 ? 1 : 0;
        const client::Reply reply = session.encode(id, frame.picture, hints);
        ASSERT_TRUE(reply.frame == direct[id]->encode(frame.picture, hints))
            << "stream " << +id << " frame " << number << " round " << round;
      }
    }
  }
  EXPECT_EQ(session.finish(), "");
}

}  // namespace
}  // namespace qora::service
