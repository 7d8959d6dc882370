// SPDX-License-Identifier: BSD-2-Clause
// benchmarks/pairs.h -- The pure functions, each beside what it is held against.
#pragma once

#include <string>
#include <vector>

#include "benchmarks/timing.h"

namespace qora::bench {

struct Pair {
  std::string what;
  std::string against;
  double limit;  // of the ratio; 0: none, for information
  Body ours;
  Body floor;
};

// Every pair with its own memory, which lives as long as its bodies.
std::vector<Pair> microPairs();

}  // namespace qora::bench
