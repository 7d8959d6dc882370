// bench_limits [CLIP.y4m...] -- Every bound that we hold ourselves to, measured in one run, as a
// table. The status tells nothing of the verdicts: what is fast enough depends on the machine, too.
#include <cstdio>
#include <cstring>

#include "benchmarks/clip.h"
#include "benchmarks/pairs.h"
#include "benchmarks/sessions.h"

namespace qora::bench {
namespace {

constexpr StreamShape kDesktop = {.width = 1920, .height = 1080};

void printRow(const std::string& what, double value, const char* unit, double limit) {
  printf("%-78s %8.3f %-6s", what.c_str(), value, unit);
  if (limit > 0) printf(" at most %-6g %s", limit, value <= limit ? "pass" : "FAIL");
  printf("\n");
  fflush(stdout);
}

void printMicroPairs() {
  using namespace std::chrono_literals;
  for (const Pair& pair : microPairs()) {
    const Comparison result = compare(pair.ours, pair.floor, 101, 1000us);
    printRow(pair.what + ": times " + pair.against, result.ratio, "", pair.limit);
  }
}

void printScripted() {
  using namespace std::chrono_literals;
  ScriptedPair pair(10, 2000);
  pinToOneCpu();
  const Comparison result =
      compare([&] { pair.callService(); }, [&] { pair.callEcho(); }, 201, 2000us);
  unpin();
  printRow("round trip with a scripted encoder: times a bare echo", result.ratio, "", 1.3);
  printRow("  the same: microseconds", result.ours, "us", 0);
}

void printStart() {
  std::vector<double> later;
  for (int32_t run = 0; run < 41; ++run) {
    later.push_back(firstReplyOfService(kDesktop) - firstFrameInProcess(kDesktop));
  }
  printRow("first reply of a 1920x1080 stream: later than in-process", median(later), "ms", 5);
  const int64_t own = memoryOfService(kDesktop) - memoryInProcess(kDesktop);
  printRow("memory of the service over the encoder's, 1920x1080", static_cast<double>(own) / 1024,
           "MiB", 4);
}

void printClip(const char* path) {
  const char* slash = strrchr(path, '/');
  const std::string name = slash == nullptr ? path : slash + 1;
  const ClipCost cost = measureClip(path);
  // Replies of the other clips are large, so the bound on the overhead is for typing.
  const double limit = name.find("typing") != std::string::npos ? 30 : 0;
  printRow(name + ": round trip less the encoder's time", cost.overhead, "us", limit);
  printRow("  the same with two bare pipes around the encoder", cost.bare, "us", 0);
  printRow(name + ": time a frame, times the encoder's", cost.ratio, "", 1.02);
}

}  // namespace
}  // namespace qora::bench

int main(int argc, char* argv[]) {
  using namespace qora::bench;
  printMicroPairs();
  printScripted();
  printStart();
  for (int clip = 1; clip < argc; ++clip) printClip(argv[clip]);
  return 0;
}
