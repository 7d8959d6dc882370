// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/serve/frame_message.h"

#include <algorithm>
#include <array>
#include <span>
#include <string_view>
#include <vector>

#include "qora/client/sequence_parameters.h"
#include "qora/client/stream_format.h"

namespace qora::serve {
namespace {

std::string_view textOf(std::span<const uint8_t> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// Where the picture is another than before: what was coded and a macroblock around it, because the
// decoder smooths its edges. The whole of a key frame; 0 0 0 0 where nothing was coded.
std::array<int32_t, 4> drawnBox(const client::CodedFrame& frame, const capture::ScreenSize& size) {
  if (frame.keyFrame) return {0, 0, size.width, size.height};
  int32_t left = size.width, top = size.height, right = 0, bottom = 0;
  const auto keeping = static_cast<size_t>(frame.keeping);
  for (const service::Rectangle& coded : std::span(frame.rectangles).subspan(keeping)) {
    left = std::min<int32_t>(left, coded.x);
    top = std::min<int32_t>(top, coded.y);
    right = std::max(right, coded.x + coded.width);
    bottom = std::max(bottom, coded.y + coded.height);
  }
  if (right == 0) return {};
  left = std::max(left - client::kMacroblockSize, 0);
  top = std::max(top - client::kMacroblockSize, 0);
  right = std::min(right + client::kMacroblockSize, size.width);
  bottom = std::min(bottom + client::kMacroblockSize, size.height);
  return {left, top, right - left, bottom - top};
}

}  // namespace

SharedMessage frameMessage(const client::CodedFrame& frame, const capture::ScreenSize& size) {
  std::vector<uint8_t> body;
  // Browsers guess the colours of a stream that does not say.
  if (client::rewriteSequenceParameters(frame.bytes, client::NalFraming::startCodes,
                                        {.fullRange = true}, body) != 1) {
    body = frame.bytes;
  }
  const size_t unitBytes = body.size();
  for (const int32_t number : drawnBox(frame, size)) {
    body.push_back(static_cast<uint8_t>(number));
    body.push_back(static_cast<uint8_t>(number >> 8));
  }
  client::FrameHead head;
  head.time = frame.pictureTime.count();
  head.width = static_cast<uint16_t>(size.width);
  head.height = static_cast<uint16_t>(size.height);
  head.keyFrame = frame.keyFrame;
  const auto bytes = client::buildFrameHead(head, unitBytes, 0, client::checksum(body));
  return std::make_shared<const Message>(true, textOf(bytes), textOf(body));
}

}  // namespace qora::serve
