// SPDX-License-Identifier: BSD-2-Clause
// benchmarks/timing.h -- Clocks, medians and the one way in which two things are compared here.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <vector>

namespace qora::bench {

using Clock = std::chrono::steady_clock;

inline double microseconds(Clock::duration time) {
  return std::chrono::duration<double, std::micro>(time).count();
}

// The value that `share` (0 to 1) of the values do not exceed; 0 of none.
double percentile(std::vector<double> values, double share);
double median(std::vector<double> values);

// Two bodies run in turn, so that what disturbs the machine disturbs both.
struct Comparison {
  double ours;   // median microseconds a call
  double floor;  // the same of what we are held against
  double ratio;  // median of the ratios of neighbouring samples
};
using Body = std::function<void()>;
// A sample is as many calls as last about `sampleTime`; a first one of each is not counted.
Comparison compare(const Body& ours, const Body& floor, int32_t samples,
                   std::chrono::microseconds sampleTime);

// This process and its later children run on one CPU, and again on all that there were.
void pinToOneCpu();
void unpin();

// Keeps the compiler from leaving out what made the value.
template <typename Value>
void keep(const Value& value) {
  asm volatile("" : : "r,m"(value) : "memory");
}

}  // namespace qora::bench
