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
    return test::stripTimePrefixes(text);
  }

 private:
  FILE* log_ = tmpfile();
  int32_t segment_;
  uint8_t* memory_;
  client::CodecClient client_;
};

// A textured ground that stands still and a textured box that crosses it; `moving` lets the whole
// ground drift instead. Returns the picture and what changed since the frame before.
struct Frame {
  Picture picture;
  FrameHints hints;
};

Frame makeFrame(int32_t width, int32_t height, int32_t number, bool moving) {
  Frame frame = {{width, height, Bytes(static_cast<size_t>(width) * height * 3 / 2)}, {}};
  const auto boxAt = [&](int32_t n) { return n * 5 % (width - 48); };
  const int32_t drift = moving ? number * 3 : 0;
  const int32_t box = boxAt(number);
  uint8_t* at = frame.picture.data.data();
  for (int32_t y = 0; y < height; ++y) {
    for (int32_t x = 0; x < width; ++x) {
      const bool inBox = !moving && x >= box && x < box + 48 && y >= 16 && y < 64;
      const int32_t u = x + drift;
      *at++ =
          static_cast<uint8_t>(inBox ? 200 - (x - box) + y % 7 * 4
                                     : 90 + 60 * std::sin(u * 0.13) * std::cos(y * 0.09) +
                                           (u * 7 ^ (y * 13 + (moving ? number * 29 : 0))) % 23);
    }
  }
  for (int32_t i = 0; i < width * height / 2; ++i) {
    *at++ = static_cast<uint8_t>(118 + i % (width / 2) * 20 / width + i / width % 9);
  }
  if (number == 0 || moving) {
    frame.hints.rectangles = {
        {0, 0, 0, static_cast<uint16_t>(width), static_cast<uint16_t>(height)}};
  } else {
    for (const int32_t x : {boxAt(number - 1), box}) {
      frame.hints.rectangles.push_back({0, static_cast<uint16_t>(x), 16, 48, 48});
    }
  }
  return frame;
}

AddStreamRequest stream(uint8_t id, uint16_t width, uint16_t height, uint16_t bitrate = 0,
                        uint8_t flags = kAnnexBFlag) {
  return {flags, id, 1, bitrate, 10, 51, width, height};
}

std::string outputOf(const std::string& command) {
  std::string text;
  FILE* pipe = popen(command.c_str(), "r");
  char chunk[65536];
  for (size_t count; (count = fread(chunk, 1, sizeof chunk, pipe)) > 0;) text.append(chunk, count);
  pclose(pipe);
  return text;
}

// What ffmpeg makes of a stream: I420 pictures back to back, and the profile's name.
struct Decoded {
  std::string pictures, profile;
};

Decoded decode(const Bytes& coded) {
  test::TemporaryRoot folder;
  const std::string file = folder.path() + "/clip.264";
  std::ofstream(file, std::ios::binary)
      .write(reinterpret_cast<const char*>(coded.data()),
             static_cast<std::streamsize>(coded.size()));
  return {outputOf("ffmpeg -v error -i " + file + " -f rawvideo -pix_fmt yuv420p -"),
          outputOf("ffprobe -v error -show_entries stream=profile -of csv=p=0 " + file)};
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
  const Decoded decoded = decode(coded);
  EXPECT_EQ(decoded.profile, "Constrained Baseline\n");
  const size_t pictureSize = pictures[0].data.size();
  ASSERT_EQ(decoded.pictures.size(), pictures.size() * pictureSize);
  for (size_t i = 0; i < pictures.size(); ++i) {
    EXPECT_GE(lumaPsnr(pictures[i], decoded.pictures.data() + i * pictureSize), 45.0) << i;
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
  for (const uint8_t flags : {0x04, 0x03}) {
    Session session;
    session.client().addStream(stream(0, 64, 48, 0, flags));
    const Frame frame = makeFrame(64, 80, 0, false);
    Bytes payload = session.encode(0, frame.picture, frame.hints).frame;
    ASSERT_GT(payload.size(), 8U);
    if (flags == 0x04) {
      EXPECT_EQ(Bytes(payload.begin(), payload.begin() + 5), (Bytes{0, 0, 0, 1, 0x67}));
      continue;
    }
    size_t at = 0;
    while (at + 4 <= payload.size()) {
      at +=
          4 + (payload[at] << 24 | payload[at + 1] << 16 | payload[at + 2] << 8 | payload[at + 3]);
    }
    EXPECT_EQ(at, payload.size());
  }
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
