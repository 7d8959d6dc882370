// SPDX-License-Identifier: BSD-2-Clause
// The session against the real service.
#include <signal.h>
#include <sys/wait.h>

#include <cerrno>
#include <climits>
#include <fstream>

#include "tests/client/session_fixture.h"

namespace qora::client {
namespace {

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
      {{0, 16, 16, 17, 16, 16, 16}, "copy 0 is not at even pixels"},
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
    const service::RegionCopy copy{0, 18, 22, 18, 18, 220, 142};
    const Area rest[] = {{0, 0, 256, 16}, {0, 0, 18, 192}, {238, 0, 18, 192}, {0, 160, 256, 32}};
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

// A window carried over text costs what it uncovers, wherever its edges are.
TEST_F(ScreenSessionTest, WhatIsCarriedCostsItsTrail) {
  ASSERT_EQ(1, start(options()));
  ASSERT_EQ(1, addStream({.width = 480, .height = 288}));
  std::vector<service::RegionCopy> copies;
  Damage changed;
  for (int32_t step = 0; step < 12; ++step) {
    const Picture picture = page(0, 0);
    const auto x = static_cast<uint16_t>(50 + std::min(step, 9) * 6);
    const auto y = static_cast<uint16_t>(40 + std::min(step, 9) * 2);
    drawPage({{picture.plane[0] + y * picture.stride[0] + x,
               picture.plane[1] + y / 2 * picture.stride[1] + x / 2,
               picture.plane[2] + y / 2 * picture.stride[2] + x / 2},
              {picture.stride[0], picture.stride[1], picture.stride[2]},
              200,
              140},
             1000);
    if (step > 0)
      copies = {{0, static_cast<uint16_t>(x - 6), static_cast<uint16_t>(y - 2), x, y, 200, 140}};
    if (step > 9) copies.clear();
    findChanges(0, picture, changed);
    EXPECT_NE(-1, encodeDamage(0, picture, changed, copies));
    const size_t bytes = show();
    EXPECT_EQ(frame.copies.size(), copies.size());
    EXPECT_GT(4, decoder.loss(picture)) << step;
    EXPECT_GT(step == 0 ? 100'000U : 4000U, bytes) << step;  // without copies 10,000 to 17,000
    time += milliseconds(40);
  }
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

}  // namespace
}  // namespace qora::client
