// SPDX-License-Identifier: BSD-2-Clause
#include "benchmarks/timing.h"

#include <sched.h>

#include <algorithm>
#include <cmath>

namespace qora::bench {
namespace {

cpu_set_t allCpus() {
  static const cpu_set_t cpus = [] {
    cpu_set_t set;
    sched_getaffinity(0, sizeof set, &set);
    return set;
  }();
  return cpus;
}

double timeOf(const Body& body, int32_t calls) {
  const auto start = Clock::now();
  for (int32_t call = 0; call < calls; ++call) body();
  return microseconds(Clock::now() - start) / calls;
}

int32_t callsIn(const Body& body, double sampleTime) {
  const double once = std::max(timeOf(body, 1), 0.001);  // warms up as well
  const double again = std::max(std::min(once, timeOf(body, 8)), 0.001);
  return std::max(1, static_cast<int32_t>(sampleTime / again));
}

}  // namespace

double percentile(std::vector<double> values, double share) {
  if (values.empty()) return 0;
  const auto place =
      static_cast<size_t>(std::lround(share * static_cast<double>(values.size() - 1)));
  std::nth_element(values.begin(), values.begin() + static_cast<ptrdiff_t>(place), values.end());
  return values[place];
}

double median(std::vector<double> values) {
  return percentile(std::move(values), 0.5);
}

Comparison compare(const Body& ours, const Body& floor, int32_t samples,
                   std::chrono::microseconds sampleTime) {
  const double length = microseconds(sampleTime);
  const int32_t ourCalls = callsIn(ours, length);
  const int32_t floorCalls = callsIn(floor, length);
  std::vector<double> ourTimes, floorTimes, ratios;
  for (int32_t sample = 0; sample < samples; ++sample) {
    ourTimes.push_back(timeOf(ours, ourCalls));
    floorTimes.push_back(timeOf(floor, floorCalls));
    ratios.push_back(ourTimes.back() / floorTimes.back());
  }
  return {median(ourTimes), median(floorTimes), median(ratios)};
}

void pinToOneCpu() {
  const cpu_set_t all = allCpus();
  int last = CPU_SETSIZE - 1;
  while (last > 0 && !CPU_ISSET(last, &all)) --last;
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(last, &one);
  sched_setaffinity(0, sizeof one, &one);
}

void unpin() {
  const cpu_set_t all = allCpus();
  sched_setaffinity(0, sizeof all, &all);
}

}  // namespace qora::bench
