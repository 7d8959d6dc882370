// SPDX-License-Identifier: BSD-2-Clause
#include "benchmarks/footprint.h"

#include <malloc.h>
#include <unistd.h>

#include <fstream>

#include "benchmarks/drawing.h"
#include "benchmarks/give_up.h"
#include "qora/client/changed_rectangles.h"

namespace qora::bench {
namespace {

// The body's result out of a process of its own, which has nothing that an earlier one left.
template <typename Body>
double inChild(const Body& body) {
  PipedProcess child([&] {
    const double result = body();
    if (writeAll(STDOUT_FILENO, &result, sizeof result)) _exit(0);
  });
  double result = 0;
  child.read(&result, sizeof result);
  return result;
}

double privateMemory(pid_t process) {
  std::ifstream rollup("/proc/" + std::to_string(process) + "/smaps_rollup");
  int64_t kilobytes = 0;
  for (std::string line; std::getline(rollup, line);) {
    if (line.starts_with("Private_")) kilobytes += atoll(line.c_str() + line.find(':') + 1);
  }
  return static_cast<double>(kilobytes) / 1024;
}

void drawFirst(client::FrameSegment& segment, const StreamShape& shape) {
  check(segment.create(shape.width, shape.height, 2), "making the segment");
  drawPicture(segment.picture(0));
}

}  // namespace

double firstReplyOfService(const StreamShape& shape) {
  client::FrameSegment segment;
  drawFirst(segment, shape);
  client::CodecClient client;
  client::Reply reply;
  service::EncodeRequest request{};
  segment.place(0, request);
  const Rectangles all = {client::wholePicture(shape.width, shape.height)};
  const auto start = Clock::now();
  check(client.start({.servicePath = SERVICE, .codecRoot = CODEC_ROOT}), "starting the service");
  check(client.attachSegment(segment.id()), "attaching the segment");
  check(client.addStream(addRequest(shape, 0)), "adding a stream");
  check(client.encode(request, all, {}), "encoding");
  check(client.readReply(reply), "taking the reply");
  return microseconds(Clock::now() - start) / 1000;
}

double firstFrameInProcess(const StreamShape& shape) {
  return inChild([&shape] {
    client::FrameSegment segment;
    drawFirst(segment, shape);
    const auto start = Clock::now();
    test::DirectEncoder encoder(addRequest(shape, 0));
    encoder.encode(segment.picture(0), {client::wholePicture(shape.width, shape.height)});
    return microseconds(Clock::now() - start) / 1000;
  });
}

double memoryOfService(const StreamShape& shape) {
  SideBySide both(shape);
  drawPicture(both.picture(0));
  for (int32_t frame = 0; frame < 3; ++frame) {
    const auto list = redrawShare(both.picture(frame % 2), both.picture(1 - frame % 2), 0.1, 5);
    for (int32_t stream = 0; stream < shape.streams; ++stream) {
      both.encode(1 - frame % 2, list, stream);
    }
  }
  return privateMemory(both.servicePid());
}

double memoryInProcess(const StreamShape& shape) {
  return inChild([&shape] {
    client::FrameSegment segment;
    drawFirst(segment, shape);
    const auto rectangles = redrawShare(segment.picture(0), segment.picture(1), 0.1, 5);
    malloc_trim(0);  // what earlier work left free would be used without being seen
    const double before = privateMemory(getpid());
    std::vector<std::unique_ptr<test::DirectEncoder>> encoders;
    for (int32_t stream = 0; stream < shape.streams; ++stream) {
      encoders.push_back(std::make_unique<test::DirectEncoder>(addRequest(shape, stream)));
      for (int32_t frame = 0; frame < 3; ++frame) {
        encoders.back()->encode(segment.picture(frame % 2), rectangles);
      }
    }
    return privateMemory(getpid()) - before;
  });
}

}  // namespace qora::bench
