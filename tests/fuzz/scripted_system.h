// tests/fuzz/scripted_system.h -- The service with nothing real around it: input and replies are
// blocks of memory, segments are one static block, the encoder obeys a script, and the end of the
// process is a return. One thread; linked with --wrap for each system function named in the .cc.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qora::fuzz {

// The one call that goes wrong, at its occurrence number `faultAt` (0: the first).
enum class Fault : uint8_t {
  none,
  preset,
  profile,
  open,
  encodeNothing,  // the encoder returns 0
  encodeFails,    // the encoder returns -1
  allocation,     // a map cannot be had
  attach,
  detach,
  write,
  readEnd,  // the input ends with an error instead of its end
};
inline constexpr uint8_t kFaultCount = 11;

struct Script {
  Fault fault = Fault::none;
  int32_t faultAt = 0;
  size_t readChunk = SIZE_MAX;   // bytes a read gives at most, at least 1
  size_t writeChunk = SIZE_MAX;  // bytes a gathered write takes at most, at least 1
  bool planes = false;           // the encoder hands out its reconstructed picture
  bool quantizer = true;         // the encoder can tell its quantizer
};

// The errno of every scripted failure; none of the service's own statuses.
inline constexpr int32_t kScriptedError = 28;

struct Outcome {
  int32_t status;
  std::string replies;
  std::string expected;  // what the encoder was asked for, as replies
  int32_t capacity;      // bytes of the receive buffer at the end
  int32_t attached;      // segments attached at the end
};

// Runs the service from start to end over `input`. Leaves nothing behind.
Outcome runScripted(const std::vector<uint8_t>& input, const Script& script);

}  // namespace qora::fuzz
