#include "qora/client/link_rate.h"

#include <gtest/gtest.h>

namespace qora::client {
namespace {

using std::chrono::milliseconds;

// A link with 40 milliseconds of round trip; a frame each 40 milliseconds at the rate found so far.
TEST(LinkRateTest, FollowsTheLinkDownAndUp) {
  LinkRate rate(100'000, 600'000);
  double queued = 0;  // bytes
  LinkRate::Time now{};
  const auto play = [&](double link, int32_t seconds) {
    double longest = 0;
    for (int32_t tick = 0; tick < seconds * 25; ++tick) {
      now += milliseconds(40);
      queued = std::max(queued - link / 25, 0.0) + static_cast<double>(rate.rate()) / 25;
      const double delay = queued / link * 1000;
      if (tick > seconds * 12) longest = std::max(longest, delay);
      rate.acknowledged(now, static_cast<int64_t>(std::min(queued, link / 25)),
                        milliseconds(40 + static_cast<int64_t>(delay)));
    }
    return longest;
  };
  EXPECT_LT(play(400'000, 40), 150);
  EXPECT_GT(rate.rate(), 250'000);
  EXPECT_LT(play(100'000, 10), 150);
  EXPECT_LT(rate.rate(), 130'000);
  EXPECT_LT(play(2'000'000, 60), 150);
  EXPECT_EQ(rate.rate(), 600'000) << "at most";
  play(1'000, 30);
  EXPECT_EQ(rate.rate(), 12'500) << "at least";
}

}  // namespace
}  // namespace qora::client
