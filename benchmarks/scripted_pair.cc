// SPDX-License-Identifier: BSD-2-Clause
#include "benchmarks/scripted_pair.h"

#include <unistd.h>

#include "benchmarks/side_by_side.h"

namespace qora::bench {
namespace {

std::vector<uint8_t> encodeMessage(int32_t rectangles) {
  service::EncodeRequest request{};
  request.rectangleBytes = static_cast<uint32_t>(rectangles * service::kRectangleSize);
  const auto head = service::buildEncodeHead(request);
  std::vector<uint8_t> message(head.begin(), head.end());
  message.resize(head.size() + request.rectangleBytes);
  for (int32_t i = 0; i < rectangles; ++i) {
    const service::Rectangle rectangle = {0, static_cast<uint16_t>(i % 64 * 16),
                                          static_cast<uint16_t>(i / 64 % 64 * 16), 16, 16};
    service::buildRectangle(rectangle, &message[head.size() + i * service::kRectangleSize]);
  }
  return message;
}

}  // namespace

ScriptedPair::ScriptedPair(int32_t rectangles, int32_t replyBytes)
    : root_({std::pair("lib/libx264.so", SCRIPTED_ENCODER)}),
      message_(encodeMessage(rectangles)),
      reply_(static_cast<size_t>(service::kReplyHeadSize + replyBytes)),
      service_(SERVICE, {"QORA_SYSTEM=" + root_.path(),
                         "SCRIPTED_ENCODER=encode=" + std::to_string(replyBytes)}),
      echo_([&] {
        while (readAll(STDIN_FILENO, message_.data(), message_.size()) &&
               writeAll(STDOUT_FILENO, reply_.data(), reply_.size())) {
        }
      }) {
  client::FrameSegment segment;
  (void)segment.create(16, 16, 1);  // a picture that nobody looks at
  const auto attach =
      service::buildSegmentMessage(service::CommandType::attachSegment, segment.id());
  const auto add = service::buildAddStream(addRequest({.width = 1024, .height = 1024}, 0));
  service_.write(attach.data(), attach.size());
  service_.write(add.data(), add.size());
  callService();  // it has the segment now
}

void ScriptedPair::call(PipedProcess& process) {
  process.write(message_.data(), message_.size());
  process.read(reply_.data(), reply_.size());
}

}  // namespace qora::bench
