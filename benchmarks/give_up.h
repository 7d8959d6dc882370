// SPDX-License-Identifier: BSD-2-Clause
// benchmarks/give_up.h -- A measurement that cannot be made has no use: the program ends.
#pragma once

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace qora::bench {

[[noreturn]] inline void giveUp(const std::string& what) {
  fprintf(stderr, "benchmark: %s\n", what.c_str());
  exit(1);
}

// Ends it when `result` is -1.
inline void check(int64_t result, const std::string& what) {
  if (result == -1) giveUp(what + ": " + strerror(errno));
}

}  // namespace qora::bench
