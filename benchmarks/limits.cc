// SPDX-License-Identifier: BSD-2-Clause
// bench_limits [CLIP.y4m...] -- Every bound that we hold ourselves to, measured in one run, as a
// table. The status tells nothing of the verdicts: what is fast enough depends on the machine, too.
#include <filesystem>

#include "benchmarks/clip.h"
#include "benchmarks/footprint.h"
#include "benchmarks/pairs.h"
#include "benchmarks/scripted_pair.h"
#include "benchmarks/session_pair.h"

namespace qora::bench {
namespace {

using namespace std::chrono_literals;
constexpr StreamShape kDesktop = {.width = 1920, .height = 1080};

void printRow(const std::string& what, double value, const char* unit, double limit) {
  printf("%-78s %8.3f %-6s", what.c_str(), value, unit);
  if (limit > 0) printf(" at most %-6g %s", limit, value <= limit ? "pass" : "FAIL");
  printf("\n");
  fflush(stdout);
}

void printMicroPairs() {
  for (const Pair& pair : microPairs()) {
    const Comparison result = compare(pair.ours, pair.floor, 101, 1000us);
    printRow(pair.what + ": times " + pair.against, result.ratio, "", pair.limit);
  }
}

void printScripted() {
  ScriptedPair pair(10, 2000);
  pinToOneCpu();
  const Comparison result =
      compare([&] { pair.callService(); }, [&] { pair.callEcho(); }, 201, 2000us);
  unpin();
  printRow("round trip with a scripted encoder: times a bare echo", result.ratio, "", 1.3);
  printRow("  the same: microseconds", result.ours, "us", 0);
}

void printSession() {
  const struct {
    const char* what;
    client::Area area;
    double limit;  // microseconds
  } rows[] = {
      {"session and rate control beside the client: a typed letter", {800, 400, 10, 20}, 20},
      {"session and rate control beside the client: all of 1920x1080", {0, 0, 1920, 1080}, 1500},
  };
  for (const auto& [what, area, limit] : rows) {
    SessionPair pair(area);
    pinToOneCpu();
    const Comparison result =
        compare([&] { pair.callSession(); }, [&] { pair.callClient(); }, 201, 2000us);
    unpin();
    printRow(what, result.ours - result.floor, "us", limit);
  }
}

void printStart() {
  std::vector<double> later;
  for (int32_t run = 0; run < 41; ++run) {
    later.push_back(firstReplyOfService(kDesktop) - firstFrameInProcess(kDesktop));
  }
  printRow("first reply of a 1920x1080 stream: later than in-process", median(later), "ms", 5);
  printRow("memory of the service over the encoder's, 1920x1080",
           memoryOfService(kDesktop) - memoryInProcess(kDesktop), "MiB", 4);
}

// Over four runs: every frame comes first and second as often in both.
void printClip(const std::string& path) {
  const std::string name = std::filesystem::path(path).filename();
  std::vector<double> overheads, ratios;
  double service = 0, floor = 0;
  pinToOneCpu();
  for (int32_t run = 0; run < 4; ++run) {
    encodeClip(path, run, [&](const ClipFrame& frame) {
      overheads.push_back(frame.service - frame.encoder);
      ratios.push_back(overheads.back() / frame.bare);
      service += frame.service;
      floor += frame.floor;
    });
  }
  unpin();
  printRow(name + ": round trip less the encoder's time, times two bare pipes", median(ratios), "",
           1.5);
  printRow("  the same: microseconds", median(overheads), "us", 0);
  printRow(name + ": time a frame, times the encoder's", service / floor, "", 1.02);
}

}  // namespace
}  // namespace qora::bench

int main(int argc, char* argv[]) {
  using namespace qora::bench;
  printMicroPairs();
  printScripted();
  printSession();
  printStart();
  for (int clip = 1; clip < argc; ++clip) printClip(argv[clip]);
  return 0;
}
