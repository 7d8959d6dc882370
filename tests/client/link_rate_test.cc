// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/link_rate.h"

#include <gtest/gtest.h>

#include <deque>

namespace qora::client {
namespace {

using std::chrono::milliseconds;

// A link with 40 milliseconds of round trip; a frame each 40 milliseconds at the rate found so far,
// acknowledged when the link has carried it. Time passes a millisecond a step.
TEST(LinkRateTest, FollowsTheLinkDownAndUp) {
  LinkRate rate(100'000, 600'000);
  LinkRate::Time now{};
  double carried = 0;  // bytes of the oldest frame that are through
  std::deque<std::pair<LinkRate::Time, double>> queue;  // sent at, bytes
  std::deque<LinkRate::Time> acknowledgements;          // due at
  rate.probed(now, milliseconds(40));
  const auto play = [&](double link, int32_t length) {
    LinkRate::Time longest{};
    for (int32_t step = 0; step < length * 1000; ++step, now += milliseconds(1)) {
      if (step % 40 == 0) {
        queue.emplace_back(now, static_cast<double>(rate.rate()) / 25);
        rate.sent(now, rate.rate() / 25);
      }
      for (carried += link / 1000; !queue.empty() && carried >= queue.front().second;) {
        carried -= queue.front().second;
        if (step > length * 500) longest = std::max(longest, now - queue.front().first);
        acknowledgements.push_back(now + milliseconds(40));
        queue.pop_front();
      }
      if (queue.empty()) carried = 0;
      for (; !acknowledgements.empty() && acknowledgements.front() <= now;
           acknowledgements.pop_front()) {
        rate.acknowledged(now);
      }
    }
    return longest / milliseconds(1);
  };
  EXPECT_LT(play(400'000, 40), 200);
  EXPECT_GT(rate.rate(), 250'000);
  EXPECT_LT(play(100'000, 10), 200);
  EXPECT_LT(rate.rate(), 130'000);
  EXPECT_LT(play(2'000'000, 60), 200);
  EXPECT_EQ(rate.rate(), 600'000) << "at most";
  play(1'000, 30);
  EXPECT_EQ(rate.rate(), 12'500) << "at least";
}

}  // namespace
}  // namespace qora::client
