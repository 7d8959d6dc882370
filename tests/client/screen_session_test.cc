// SPDX-License-Identifier: BSD-2-Clause
// The session against the real service. QORA_CALLS says how many random calls are made (4000).
#include "qora/client/screen_session.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <cerrno>
#include <climits>
#include <fstream>
#include <map>
#include <random>

#include "tests/support/decoder.h"

namespace qora::client {
namespace {

using std::chrono::milliseconds;
using test::Decoder;

// Lines of text, `shift` pixels up, in colour.
void drawPage(const Picture& picture, int32_t shift) {
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

Area all(const Picture& picture) {
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

TEST_F(ScreenSessionTest, RefusesWhatWouldEndTheService) {
  ASSERT_EQ(1, start(options()));
  EXPECT_EQ(-1, start(options()));
  EXPECT_EQ(EBUSY, errno);
  ASSERT_EQ(1, addStream({.width = 101, .height = 67}));
  ASSERT_EQ(1, addStream({.id = 7, .width = 64, .height = 64}));
  Picture picture{}, other{}, given = page(0, 0);
  EXPECT_EQ(1, encode(0, given, {{all(given)}}));
  ASSERT_TRUE(acquire(0, picture) == 1 && acquire(7, other) == 1);
  const auto refused = [&](int32_t result, int error, const char* text) {
    EXPECT_EQ(std::make_pair(-1, error), std::make_pair(result, errno)) << text;
    EXPECT_EQ(text, errorText());
  };
  refused(encode(-1, picture, {}), EINVAL, "stream -1 is not from 0 to 7");
  refused(addStream({.id = 8}), EINVAL, "stream 8 is not from 0 to 7");
  refused(addStream({.id = 7, .width = 64, .height = 64}), EBUSY, "stream 7 is in use");
  refused(removeStream(3), ENOENT, "stream 3 is not in use");
  refused(acquire(3, given), ENOENT, "stream 3 is not in use");
  refused(resize(0, 64, 16385), EINVAL, "height 16385 is not from 16 to 16384");
  refused(setBitrate(0, -1), EINVAL, "bitrate -1 is not from 0 to 2147483647");
  refused(setQuality(0, 45), EINVAL, "quality 45 is not from -12 to 44");
  refused(resize(7, 80, 80), EBUSY, "a picture of stream 0 is acquired");
  refused(removeStream(7), EBUSY, "a picture of stream 0 is acquired");

  const std::tuple<int32_t StreamSettings::*, int32_t, const char*> settings[] = {
      {&StreamSettings::width, 15, "width 15 is not from 16 to 16384"},
      {&StreamSettings::bitrate, 65536, "bitrate 65536 is not from 1 to 65535"},
      {&StreamSettings::highestQuantizer, 52, "highest quantizer 52 is not from 10 to 51"},
      {&StreamSettings::highestQuantizer, 9, "highest quantizer 9 is not from 10 to 51"},
      {&StreamSettings::threads, 129, "threads 129 is not from 0 to 128"},
      {&StreamSettings::framesInFlight, 0, "frames in flight 0 is not from 1 to 16"}};
  for (const auto& [field, value, text] : settings) {
    StreamSettings wrong{.id = 1, .width = 64, .height = 64, .lowestQuantizer = 10};
    wrong.rateControl = RateControl::encoder;
    wrong.*field = value;
    refused(addStream(wrong), EINVAL, text);
  }

  Picture forged[] = {picture, picture, picture, other, given, Picture{}};
  forged[0].plane[2] += 64;
  forged[1].stride[1] = 1 << 20;
  ++forged[2].width;
  for (const Picture& wrong : forged) {
    refused(encode(0, wrong, {}), EINVAL, "the picture is not one that was acquired for stream 0");
  }
  const std::pair<Area, const char*> areas[] = {
      {{100, 0, 2, 9}, "area 1, 2x9 at 100,0, is not inside the picture of 101x67"},
      {{0, 0, -1, 1}, "area 1, -1x1 at 0,0, is not inside the picture of 101x67"},
      {{0, INT_MAX, 1, INT_MAX},
       "area 1, 1x2147483647 at 0,2147483647, is not inside the picture of 101x67"}};
  for (const auto& [area, text] : areas) {
    refused(encode(0, picture, {{{0, 0, 101, 67}, area}}), EINVAL, text);
  }
  refused(encodeDamage(0, picture, Damage(64, 64)), EINVAL,
          "the damage is that of a picture of another size");
  const std::pair<service::RegionCopy, const char*> copies[] = {
      {{0, 16, 16, 16, 16, 0, 16}, "copy 0 is empty"},
      {{0, 16, 16, 18, 16, 16, 16}, "copy 0 is not of whole macroblocks"},
      {{8, 16, 16, 16, 16, 16, 16}, "copy 0 has unknown flags"},
      {{0, 16, 16, 0, 16, 16, 16}, "copy 0 comes within 2 pixels of the picture's edge"},
      {{4, 83, 16, 16, 16, 16, 16}, "copy 0 comes within 2 pixels of the picture's edge"}};
  for (const auto& [copy, text] : copies) {
    refused(encode(0, picture, {}, {{copy}}), EINVAL, text);
  }
  for (const Picture& taken : {picture, page(0, 1), page(0, 2)}) encode(0, taken, {});
  show();
  EXPECT_TRUE(frames > 0 && isRunning());
  for (int32_t y = 0; y < 68; ++y) EXPECT_NEAR(decoder.luma(100, y), decoder.luma(101, y), 20) << y;
  EXPECT_EQ(1, stop()) << errorText();
}

// What is held back, added up and sharpened by and by is in the end what was given, at 100 kbit/s;
// then nothing is sent.
TEST_F(ScreenSessionTest, ShowsWhatWasGivenAndFallsSilent) {
  ASSERT_EQ(1, start(options()));
  ASSERT_EQ(1, addStream({.width = 321, .height = 183, .bitrate = 100}));
  EXPECT_EQ(1, encode(0, page(0, 0), {}));
  settle();  // or sharpening would repair what is lost
  int32_t held = 0;
  for (int32_t step = 0; step < 40; ++step) {  // windows, each beside the one before
    Picture picture{};
    ASSERT_EQ(1, acquire(0, picture, true));
    const Area window{step % 9 * 32, step / 9 * 32, 48, 32};
    const int32_t at = window.y * picture.stride[0] + window.x;
    const int32_t chroma = window.y / 2 * picture.stride[1] + window.x / 2;
    drawPage({{picture.plane[0] + at, picture.plane[1] + chroma, picture.plane[2] + chroma},
              {picture.stride[0], picture.stride[1], picture.stride[2]},
              window.width,
              window.height},
             step * 77);
    held += encode(0, picture, {{window}}) == 0 ? 1 : 0;
    show();
    time += milliseconds(4);
  }
  EXPECT_LT(5, held);
  settle();
  EXPECT_EQ(1, keyFrames);
  Picture last{};
  ASSERT_EQ(1, acquire(0, last, true));
  EXPECT_GT(4, decoder.loss(last));  // 42 dB and better
  const int32_t before = frames;
  settle();
  EXPECT_EQ(before, frames);
  EXPECT_EQ(-1, timeout());
  // A viewer that joins now gets all of it again.
  ASSERT_EQ(1, requestKeyFrame(0));
  settle();
  EXPECT_EQ(2, keyFrames);
  EXPECT_GT(4, decoder.loss(last));
}

TEST_F(ScreenSessionTest, HoldsABitrateThatChanges) {
  ASSERT_EQ(1, addStream({.width = 320, .height = 240, .bitrate = 2000}));
  ASSERT_EQ(1, start(options()));  // what was added before is there
  size_t bytes[2] = {};
  for (int32_t i = 0; i < 200; ++i) {
    if (i == 100) setBitrate(0, 500);
    const Picture picture = page(0, i * 999);
    encode(0, picture, {{all(picture)}});
    bytes[i / 100] += show();
    time += milliseconds(40);
  }
  EXPECT_GT(2000 * 125 * 4 * 1.2, bytes[0]);
  EXPECT_GT(500 * 125 * 4 * 1.2, bytes[1]);
  EXPECT_LT(500 * 125 * 4 * 0.5, bytes[1]);
  EXPECT_EQ(1, keyFrames);
}

// Offsets mean the same whatever stream was added last, and a still picture becomes sharp with the
// encoder's own bitrate too.
TEST_F(ScreenSessionTest, StreamsWithAndWithoutTheEncodersBitrateLiveTogether) {
  const StreamSettings own{
      .id = 1, .width = 128, .height = 96, .rateControl = RateControl::encoder, .bitrate = 20};
  std::vector<uint8_t> units[2];
  for (auto& unit : units) {
    ScreenSession session;
    ASSERT_EQ(1, session.start(options()));
    ASSERT_EQ(1, session.addStream({.width = 128, .height = 96, .threads = 1}));
    EXPECT_TRUE(&unit == units || session.addStream(own) == 1);
    Picture picture{};
    ASSERT_EQ(1, session.acquire(0, picture));
    drawPage(picture, 0);
    EXPECT_EQ(1, session.encode(0, picture, {}));
    ASSERT_EQ(1, session.readFrame(frame));
    unit = frame.bytes;
  }
  EXPECT_EQ(units[0], units[1]);

  ASSERT_EQ(1, start(options()));
  ASSERT_EQ(1, addStream(own));
  EXPECT_EQ(1, encode(1, page(1, 3), {}));
  show(1);
  ASSERT_EQ(1, addStream({.id = 0, .width = 64, .height = 64}));  // pictures move
  Picture same{};
  ASSERT_EQ(1, acquire(1, same, true));
  const double first = decoder.loss(same);
  EXPECT_GT(2000, first);
  for (int32_t i = 0; i < 60; ++i) {
    time += milliseconds(40);
    process();
    show(1);
  }
  EXPECT_GT(first / 4, decoder.loss(same));
  const int32_t before = frames;
  time += milliseconds(1000);
  process();
  show(1);
  EXPECT_EQ(before, frames);  // and silent
  release(1, same);
  ASSERT_EQ(1, setBitrate(1, 10));
  show(1);
  EXPECT_EQ(2, keyFrames);
  EXPECT_EQ(1, repeat(1));
  show(1);
  EXPECT_EQ(before + 2, frames);
  EXPECT_EQ(1, encode(1, page(1, 9), {{{0, 0, 128, 96}}}));
  EXPECT_TRUE(removeStream(1) == 1 && readFrame(frame) == 0);  // nobody wants it any more
}

// Faint text stays in place beside a scroll, at the top of a slice too, where nothing above the
// cell tells the encoder that it stands still.
TEST_F(ScreenSessionTest, WhatIsSealedStandsStillBesideMotion) {
  ASSERT_EQ(1, start(options()));
  ASSERT_EQ(1, addStream({.width = 480, .height = 288, .threads = 2}));
  for (int32_t shift = 0; shift < 170; shift += 17) {
    const Picture picture = page(0, 0);
    drawPage({{picture.plane[0] + 144 * picture.stride[0], picture.plane[1], picture.plane[2]},
              {picture.stride[0], picture.stride[1], picture.stride[2]},
              240,
              96},
             shift);
    for (int32_t y = 0; y < 288; ++y) {
      uint8_t* row = picture.plane[0] + y * picture.stride[0];
      for (int32_t x = 240; x < 480; ++x) row[x] = x % 16 / 2 == 4 && y % 16 / 4 == 2 ? 100 : 220;
    }
    EXPECT_EQ(1, encode(0, picture, {{shift == 0 ? all(picture) : Area{0, 144, 240, 96}}}));
    shift == 0 ? settle() : show();
    EXPECT_GT(4, decoder.loss(picture)) << shift;
    time += milliseconds(40);
  }
}

// A scroll by copies is right for a viewer that makes them, and for all where they cannot be made.
TEST_F(ScreenSessionTest, CopiesFollowWhatWasSent) {
  ASSERT_EQ(1, start(options()));
  ASSERT_EQ(1, addStream({.width = 256, .height = 192, .framesInFlight = 1}));
  int32_t copied = 0;
  for (int32_t shift = 0; shift < 120; shift += 4) {
    const Picture picture = page(0, shift);
    const service::RegionCopy copy{0, 16, 20, 16, 16, 224, 144};
    const Area rest[] = {{0, 0, 256, 16}, {0, 0, 16, 192}, {240, 0, 16, 192}, {0, 160, 256, 32}};
    if (shift == 60) requestKeyFrame(0);
    const bool isHeld = shift == 60 || shift == 84 || shift == 88;  // one is in flight
    EXPECT_EQ(isHeld ? 0 : 1, encode(0, picture, rest, std::span(&copy, shift == 0 ? 0 : 1)));
    if (shift == 80 || shift == 84) continue;
    show();
    copied += frame.copies.empty() ? 0 : 1;
    EXPECT_GT(8, decoder.loss(picture)) << shift;
    time += milliseconds(40);
  }
  EXPECT_EQ(26, copied);  // not in the first frame, nor from 80 to 88
  EXPECT_EQ(2, keyFrames);
}

TEST_F(ScreenSessionTest, ComesBackAfterTheServicesDeath) {
  ASSERT_EQ(1, start(options()));
  ASSERT_EQ(1, addStream({.width = 128, .height = 96}));
  EXPECT_EQ(1, encode(0, page(0, 0), {}));
  show();
  std::ifstream children("/proc/thread-self/children");
  pid_t service = 0;
  children >> service;
  ASSERT_EQ(0, kill(service, SIGKILL));
  siginfo_t end;
  waitid(P_PID, static_cast<id_t>(service), &end, WEXITED | WNOWAIT);
  EXPECT_EQ(-1, readFrame(frame));
  EXPECT_EQ(EPIPE, errno);
  EXPECT_EQ("service ended by signal 9 (SIGKILL)", errorText());
  EXPECT_EQ(0, readFrame(frame));  // told once
  EXPECT_EQ(0, process());
  EXPECT_TRUE(setBitrate(0, 9000) == 1 && addStream({.id = 1, .width = 64, .height = 64}) == 1);
  EXPECT_EQ(0, encode(1, page(1, 16), {}));
  ASSERT_EQ(1, restart());
  show();
  EXPECT_EQ(2, keyFrames);
  Picture same{};
  ASSERT_EQ(1, acquire(0, same, true));
  EXPECT_GT(8, decoder.loss(same));
}

// A service that takes commands and answers none.
TEST_F(ScreenSessionTest, EndsAServiceThatDoesNotAnswer) {
  SessionOptions hanging = options();
  hanging.service.servicePath = "/usr/bin/wc";  // until the end of its input
  hanging.replyTimeout = milliseconds(30);
  ASSERT_EQ(1, start(hanging));
  ASSERT_EQ(1, addStream({.width = 64, .height = 64}));
  EXPECT_EQ(1, encode(0, page(0, 0), {}));
  EXPECT_EQ(-1, readFrame(frame));
  EXPECT_EQ(ETIMEDOUT, errno);
  EXPECT_EQ("the service did not answer for 30 milliseconds", errorText());
  EXPECT_FALSE(isRunning());
}

// Any calls in any order with any values: the service never ends, what is accepted is shown, what
// is refused is told why.
class RandomCalls : public ScreenSessionTest {
 protected:
  int32_t below(int32_t end) {
    return static_cast<int32_t>(random_() % static_cast<uint32_t>(end));
  }
  bool chance(int32_t of) { return below(of) == 0; }
  // Mostly one of those that are right.
  int32_t any(std::initializer_list<int32_t> right) {
    constexpr int32_t kOdd[] = {-1, 0, 1, 8, 15, 255, 16385, 65536, INT_MAX, INT_MIN};
    if (chance(10)) return kOdd[below(std::size(kOdd))];
    return right.begin()[below(static_cast<int32_t>(right.size()))];
  }
  int32_t stream() { return any({0, 1, 2, 5}); }
  int32_t side() { return any({16, 17, 33, 48, 64, 95}); }
  StreamSettings anySettings() {
    return {.id = stream(),
            .width = side(),
            .height = side(),
            .rateControl = chance(3) ? RateControl::encoder : RateControl::quality,
            .bitrate = any({1, 50, 500, 8000}),
            .quality = any({-12, 0, 8, 30}),
            .lowestQuantizer = any({0, 5}),
            .highestQuantizer = any({51, 40}),
            .threads = any({0, 1, 2}),
            .startCodes = true,
            .framesInFlight = any({1, 2, 3})};
  }
  Picture& anyPicture() {
    if (pictures_.empty()) pictures_.emplace_back();
    return pictures_[static_cast<size_t>(below(static_cast<int32_t>(pictures_.size())))].second;
  }
  int32_t call();

  std::mt19937 random_{5};
  std::vector<std::pair<int32_t, Picture>> pictures_;  // acquired, and some that were
};

int32_t RandomCalls::call() {
  const auto bit = [&] { return static_cast<uint16_t>(any({0, 16, 18, 32})); };
  Picture picture = anyPicture();
  const int32_t owner = pictures_.empty() || chance(10) ? stream() : pictures_[0].first;
  switch (below(16)) {
    case 0:
      return chance(2) ? addStream(anySettings()) : 0;
    case 1:
      return chance(15) ? removeStream(stream()) : process();
    case 2:
      return chance(3) ? resize(stream(), side(), side()) : 0;
    case 3:
      return setBitrate(stream(), any({0, 1, 50, 500, 8000}));
    case 4:
      return chance(2) ? setQuality(stream(), any({-12, 8, 30})) : requestKeyFrame(stream());
    case 5:
      return repeat(stream());
    case 6:
      return acknowledged(stream(), any({100, 4000}), milliseconds(any({0, 20})));
    case 7:
      for (auto& [id, held] : pictures_) release(id, held);
      pictures_.clear();
      return 0;
    case 8:
      return chance(60) ? restart() : 0;
    case 9:
      time += milliseconds(below(90));
      return process();
    default:
      break;
  }
  const int32_t id = stream();
  int32_t result = acquire(id, picture, chance(2));
  if (result != 1) return result;
  drawPage(picture, below(9000));
  if (chance(20)) {
    pictures_.push_back({id, picture});
    return 1;
  }
  Area areas[] = {{any({0, 3, 20}), any({0, 5}), any({1, 16, 11}), any({2, 9})},
                  {0, 0, picture.width, picture.height}};
  service::RegionCopy copies[] = {
      {static_cast<uint8_t>(any({0, 2, 4, 6})), bit(), bit(), 16, 16, bit(), 16}};
  Picture given = picture;
  if (chance(9)) given.plane[below(3)] += any({2, 64});
  if (chance(9)) given.stride[below(3)] = any({16, 128});
  result = encode(chance(20) ? owner : id, given, std::span(areas, below(3)),
                  std::span(copies, chance(3) ? 1 : 0));
  EXPECT_TRUE(result != -1 || release(id, picture) == 1) << errorText();  // still ours
  return result;
}

TEST_F(RandomCalls, NeverEndTheService) {
  const char* calls = getenv("QORA_CALLS");
  std::map<int32_t, Decoder> viewers;
  const auto watch = [&] {
    EXPECT_TRUE(viewers[frame.stream].decode(frame.bytes)) << frame.bytes.size() << " bytes";
  };
  ASSERT_EQ(1, start(options()));
  int64_t accepted = 0, refused = 0, shown = 0;
  for (int32_t left = calls == nullptr ? 4000 : atoi(calls); left > 0; --left) {
    errno = 0;
    const int32_t result = call();
    (result == -1 ? refused : accepted) += 1;
    ASSERT_TRUE(result != -1 || (errno != 0 && !errorText().empty())) << "refused without a word";
    ASSERT_TRUE(isRunning() && !HasFailure());
    while (framesInFlight() > below(6) && readFrame(frame, below(2) - 1) == 1) watch(), ++shown;
  }
  for (auto& [id, picture] : pictures_) release(id, picture);
  while (readFrame(frame) == 1) watch();
  for (int32_t id = 0; id < service::kStreamCount; ++id) {
    if (settings(id) == nullptr) continue;
    ASSERT_NE(-1, encode(id, page(id, 1), {}));
    ASSERT_EQ(1, requestKeyFrame(id));
    bool came = false;
    for (int32_t tick = 0; tick < 5 && !came; ++tick) {
      while (readFrame(frame) == 1) watch(), came |= frame.keyFrame && frame.stream == id;
      time += std::chrono::hours(1);  // whatever the rate is, and what did not arrive
      ASSERT_EQ(1, acknowledged(id, INT_MAX, {}));
    }
    EXPECT_TRUE(came) << id;
  }
  EXPECT_EQ(1, stop()) << errorText();
  EXPECT_TRUE(shown > accepted / 10 && refused > accepted / 10) << shown << " of " << accepted;
}

}  // namespace
}  // namespace qora::client
