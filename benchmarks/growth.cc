// SPDX-License-Identifier: BSD-2-Clause
// bench_growth -- How cost grows with what a parent can make larger: CSV lines on standard output,
// "figure,x,service,floor". Each figure's unit is in its name.
#include <cstdio>

#include "benchmarks/drawing.h"
#include "benchmarks/footprint.h"
#include "benchmarks/scripted_pair.h"

namespace qora::bench {
namespace {

using namespace std::chrono_literals;

constexpr StreamShape kSizes[] = {{320, 240},   {640, 480},   {1280, 720},
                                  {1920, 1080}, {2560, 1440}, {3840, 2160}};

double megapixels(const StreamShape& shape) {
  return shape.width * shape.height / 1e6;
}

void printRow(const char* figure, double x, double service, double floor) {
  printf("%s,%g,%.4g,%.4g\n", figure, x, service, floor);
  fflush(stdout);
}

void printScripted(const char* figure, double x, int32_t rectangles, int32_t replyBytes) {
  ScriptedPair pair(rectangles, replyBytes);
  const Comparison result =
      compare([&] { pair.callService(); }, [&] { pair.callEcho(); }, 51, 1000us);
  printRow(figure, x, result.ours, result.floor);
}

// Median milliseconds a frame in one stream; the first, a key frame, is not counted.
void printFrames(const char* figure, double x, const StreamShape& shape, double share) {
  SideBySide both(shape);
  drawPicture(both.picture(0));
  std::vector<double> service, floor;
  for (int32_t frame = 0; frame < 24; ++frame) {
    const int32_t cell = 1 - frame % 2;
    const auto list = redrawShare(both.picture(1 - cell), both.picture(cell), share, 11 + frame);
    double serviceSum = 0, floorSum = 0;
    for (int32_t stream = 0; stream < shape.streams; ++stream) {
      const FrameCost cost = both.encode(cell, list, stream);
      serviceSum += cost.service / 1000;
      floorSum += cost.floor / 1000;
    }
    if (frame == 0) continue;
    service.push_back(serviceSum);
    floor.push_back(floorSum);
  }
  printRow(figure, x, median(service), median(floor));
}

void printFirstReply(const StreamShape& shape) {
  std::vector<double> service, floor;
  for (int32_t run = 0; run < 7; ++run) {
    service.push_back(firstReplyOfService(shape));
    floor.push_back(firstFrameInProcess(shape));
  }
  printRow("first_reply_ms", megapixels(shape), median(service), median(floor));
}

void printMemory(const char* figure, double x, const StreamShape& shape) {
  printRow(figure, x, memoryOfService(shape), memoryInProcess(shape));
}

}  // namespace
}  // namespace qora::bench

int main() {
  using namespace qora::bench;
  printf("figure,x,service,floor\n");
  for (const int32_t count : {1, 10, 100, 1000, 10000}) {
    printScripted("rectangles_us", count, count, 100);
  }
  for (const int32_t bytes : {100, 1000, 10000, 100000, 1000000}) {
    printScripted("reply_bytes_us", bytes, 1, bytes);
  }
  pinToOneCpu();
  for (const StreamShape& size : kSizes) {
    printFrames("picture_ms", megapixels(size), size, 0.01);
  }
  for (const double share : {0.0, 0.01, 0.1, 1.0}) {
    printFrames("changed_percent_ms", share * 100, {1920, 1080}, share);
  }
  for (int32_t streams = 1; streams <= 8; ++streams) {
    printFrames("streams_ms", streams, {640, 480, 1, streams}, 0.01);
  }
  unpin();
  for (const int32_t threads : {1, 2}) {
    printFrames("threads_ms", threads, {1920, 1080, threads}, 1.0);
  }
  for (const StreamShape& size : kSizes) {
    printFirstReply(size);
    printMemory("picture_mib", megapixels(size), size);
  }
  for (int32_t streams = 1; streams <= 8; ++streams) {
    printMemory("streams_mib", streams, {640, 480, 1, streams});
  }
  return 0;
}
