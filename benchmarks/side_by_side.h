// SPDX-License-Identifier: BSD-2-Clause
// benchmarks/side_by_side.h -- The built service and what it is held against, over the same
// pictures: the encoder called in this process, and the encoder behind two bare pipes.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "benchmarks/piped_process.h"
#include "benchmarks/timing.h"
#include "qora/client/codec_client.h"
#include "qora/client/frame_segment.h"
#include "tests/support/direct_encoder.h"
#include "tests/support/temporary_root.h"

namespace qora::bench {

using Rectangles = std::vector<service::Rectangle>;

struct StreamShape {
  int32_t width, height;
  int32_t threads = 1;
  int32_t streams = 1;
};
service::AddStreamRequest addRequest(const StreamShape& shape, int32_t stream);

// One frame, encoded both ways; microseconds.
struct FrameCost {
  double service;  // from the call of encode() until the reply was taken
  double encoder;  // of that, the encoder's own function in the service
  double floor;    // the same function in this process, nothing else
  size_t bytes;    // of the coded frame
};

// Real streams in the service and the same in this process, over the same two picture cells.
class SideBySide {
 public:
  explicit SideBySide(const StreamShape& shape, int32_t firstTurn = 0);

  client::Picture picture(int32_t cell) const { return segment_.picture(cell); }
  // Encodes a cell in both. The one that goes second finds the picture in the caches: at even turns
  // the floor.
  FrameCost encode(int32_t cell, const Rectangles& rectangles, int32_t stream = 0);
  pid_t servicePid() const { return servicePid_; }

 private:
  double encodeInService(int32_t cell, const Rectangles& rectangles, int32_t stream);
  double encodeHere(int32_t cell, const Rectangles& rectangles, int32_t stream);

  const test::TemporaryRoot root_;
  const double* encoderTime_;  // in microseconds, of the service's last frame
  client::FrameSegment segment_;
  client::CodecClient client_;
  std::vector<std::unique_ptr<test::DirectEncoder>> direct_;
  client::Reply reply_;
  pid_t servicePid_;
  int64_t turn_;
};

// The encoder in a process of its own behind two plain pipes and nothing more: what a round trip
// costs at least, when the encoder has just been through the caches.
class BareService {
 public:
  BareService(const StreamShape& shape, const client::Picture (&cells)[2]);
  // Encodes a cell. Microseconds of the round trip less the encoder's own function.
  double overhead(int32_t cell, const Rectangles& rectangles);

 private:
  std::vector<uint8_t> message_, reply_;
  PipedProcess child_;
};

}  // namespace qora::bench
