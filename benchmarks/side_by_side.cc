// SPDX-License-Identifier: BSD-2-Clause
#include "benchmarks/side_by_side.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <fstream>

#include "benchmarks/give_up.h"
#include "qora/service/channel.h"

namespace qora::bench {
namespace {

// Where the service's encoder library, told of the file, leaves the time of each frame.
const double* shareTime(const std::string& path) {
  const Descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  check(ftruncate(file.get(), sizeof(double)), path);
  void* page = mmap(nullptr, sizeof(double), PROT_READ, MAP_SHARED, file.get(), 0);
  if (page == MAP_FAILED) giveUp(path);
  setenv("TIMED_ENCODER", path.c_str(), 1);
  return static_cast<const double*>(page);
}

pid_t lastChild() {
  std::ifstream children("/proc/self/task/" + std::to_string(getpid()) + "/children");
  pid_t child = -1;
  for (pid_t next; children >> next;) child = next;
  return child;
}

struct BareReply {
  double encoderTime;
  size_t size;  // of the coded frame after it
};

// In the child, up to the end of its input. A command is a cell's number and rectangles.
void serveBarely(const StreamShape& shape, const client::Picture (&cells)[2]) {
  test::DirectEncoder encoder(addRequest(shape, 0));
  std::vector<uint8_t> message(1 << 20);
  for (ssize_t size; (size = ::read(STDIN_FILENO, message.data(), message.size())) > 0;) {
    Rectangles rectangles;
    for (ssize_t at = 1; at < size; at += service::kRectangleSize) {
      rectangles.push_back(service::parseRectangle(&message[static_cast<size_t>(at)]));
    }
    const auto coded = encoder.encode(cells[message[0]], rectangles);
    const BareReply reply = {microseconds(encoder.encoderTime()), coded.size()};
    if (service::writeChannelPair(STDOUT_FILENO, reinterpret_cast<const uint8_t*>(&reply),
                                  sizeof reply, coded.data(),
                                  static_cast<int32_t>(coded.size())) == -1) {
      return;
    }
  }
}

}  // namespace

service::AddStreamRequest addRequest(const StreamShape& shape, int32_t stream) {
  const auto width = static_cast<uint16_t>(shape.width),
             height = static_cast<uint16_t>(shape.height);
  return {service::kAnnexBFlag,
          static_cast<uint8_t>(stream),
          static_cast<uint8_t>(shape.threads),
          0,
          0,
          51,
          width,
          height};
}

SideBySide::SideBySide(const StreamShape& shape, int32_t firstTurn)
    : encoderTime_(shareTime(root_.path() + "/time")), turn_(firstTurn) {
  check(segment_.create(shape.width, shape.height, 2), "making the segment");
  setenv("LD_LIBRARY_PATH", TIMED_ENCODER_FOLDER, 1);
  check(client_.start({.servicePath = SERVICE, .codecRoot = CODEC_ROOT}), "starting the service");
  unsetenv("LD_LIBRARY_PATH");
  servicePid_ = lastChild();
  check(client_.attachSegment(segment_.id()), "attaching the segment");
  for (int32_t stream = 0; stream < shape.streams; ++stream) {
    const auto request = addRequest(shape, stream);
    check(client_.addStream(request), "adding a stream");
    direct_.push_back(std::make_unique<test::DirectEncoder>(request));
  }
}

double SideBySide::encodeInService(int32_t cell, const Rectangles& rectangles, int32_t stream) {
  service::EncodeRequest request{};
  request.streamId = static_cast<uint8_t>(stream);
  segment_.place(cell, request);
  const auto start = Clock::now();
  const bool taken = client_.encode(request, rectangles, {}) == 1 && client_.readReply(reply_) == 1;
  const double time = microseconds(Clock::now() - start);
  if (!taken) giveUp("encoding in the service: " + client_.endText());
  return time;
}

double SideBySide::encodeHere(int32_t cell, const Rectangles& rectangles, int32_t stream) {
  test::DirectEncoder& encoder = *direct_[static_cast<size_t>(stream)];
  if (encoder.encode(picture(cell), rectangles).empty()) giveUp("encoding in-process");
  return microseconds(encoder.encoderTime());
}

FrameCost SideBySide::encode(int32_t cell, const Rectangles& rectangles, int32_t stream) {
  FrameCost cost{};
  const bool floorFirst = turn_++ % 2 == 1;
  if (floorFirst) cost.floor = encodeHere(cell, rectangles, stream);
  cost.service = encodeInService(cell, rectangles, stream);
  cost.encoder = *encoderTime_;
  if (!floorFirst) cost.floor = encodeHere(cell, rectangles, stream);
  cost.bytes = reply_.frame.size();
  return cost;
}

BareService::BareService(const StreamShape& shape, const client::Picture (&cells)[2])
    : child_([&] { serveBarely(shape, cells); }) {}

double BareService::overhead(int32_t cell, const Rectangles& rectangles) {
  const auto start = Clock::now();
  message_.resize(1 + rectangles.size() * service::kRectangleSize);
  message_[0] = static_cast<uint8_t>(cell);
  for (size_t i = 0; i < rectangles.size(); ++i) {
    service::buildRectangle(rectangles[i], &message_[1 + i * service::kRectangleSize]);
  }
  child_.write(message_.data(), message_.size());
  BareReply reply;
  child_.read(&reply, sizeof reply);
  reply_.resize(reply.size);
  child_.read(reply_.data(), reply_.size());
  return microseconds(Clock::now() - start) - reply.encoderTime;
}

}  // namespace qora::bench
