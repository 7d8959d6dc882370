// SPDX-License-Identifier: BSD-2-Clause
// bench_micro -- Every pure function and what it is held against, under Google Benchmark.
#include <benchmark/benchmark.h>

#include "benchmarks/pairs.h"

int main(int argc, char* argv[]) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  const auto repeat = [](const qora::bench::Body& body) {
    return [&body](benchmark::State& state) {
      for (auto step : state) body();
    };
  };
  const auto pairs = qora::bench::microPairs();
  for (const auto& pair : pairs) {
    benchmark::RegisterBenchmark(pair.what.c_str(), repeat(pair.ours));
    benchmark::RegisterBenchmark(("  " + pair.against).c_str(), repeat(pair.floor));
  }
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
