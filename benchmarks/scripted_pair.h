// SPDX-License-Identifier: BSD-2-Clause
// benchmarks/scripted_pair.h -- What a round trip costs without an encoder.
#pragma once

#include <vector>

#include "benchmarks/piped_process.h"
#include "tests/support/temporary_root.h"

namespace qora::bench {

// The service over the scripted encoder, which returns at once, and a bare echo of the same sizes;
// both behind the same plain pipes. A call is one round trip.
class ScriptedPair {
 public:
  ScriptedPair(int32_t rectangles, int32_t replyBytes);
  void callService() { call(service_); }
  void callEcho() { call(echo_); }

 private:
  void call(PipedProcess& process);

  test::TemporaryRoot root_;
  std::vector<uint8_t> message_, reply_;
  PipedProcess service_, echo_;
};

}  // namespace qora::bench
