// SPDX-License-Identifier: BSD-2-Clause
// Calls at random. QORA_CALLS says how many (4000).
#include <cerrno>
#include <climits>
#include <map>
#include <random>

#include "tests/client/session_fixture.h"

namespace qora::client {
namespace {

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
