// tests/support/message_bytes.h -- Whole messages as byte strings that can be joined.
#pragma once

#include <cstdint>
#include <vector>

#include "service/messages.h"

namespace qora::test {

using Bytes = std::vector<uint8_t>;

inline Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

template <typename Message>
Bytes bytesOf(const Message& message) {
  return {message.begin(), message.end()};
}

// What steers one frame.
struct FrameHints {
  std::vector<service::Rectangle> rectangles;
  std::vector<service::RegionCopy> copies = {};
  uint8_t invalidate = 0;
};

// The request's lengths and its invalidate byte are those of the hints.
inline Bytes encodeMessage(service::EncodeRequest request, const FrameHints& hints) {
  request.invalidate = hints.invalidate;
  request.rectangleBytes = static_cast<uint32_t>(hints.rectangles.size() * service::kRectangleSize);
  request.copyBytes = static_cast<uint32_t>(hints.copies.size() * service::kRegionCopySize);
  Bytes message = bytesOf(service::buildEncodeHead(request));
  message.resize(message.size() + request.rectangleBytes + request.copyBytes);
  uint8_t* entry = message.data() + service::kEncodeFixedSize;
  for (const auto& rectangle : hints.rectangles) {
    service::buildRectangle(rectangle, entry);
    entry += service::kRectangleSize;
  }
  for (const auto& copy : hints.copies) {
    service::buildRegionCopy(copy, entry);
    entry += service::kRegionCopySize;
  }
  return message;
}

}  // namespace qora::test
