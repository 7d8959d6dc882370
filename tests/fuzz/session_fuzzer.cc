// tests/fuzz/session_fuzzer.cc -- The whole loop: arbitrary bytes as the parent's commands, with a
// scripted encoder and one scripted fault. Replies are exactly what the encoder was asked for, the
// end has a documented status, and none of it depends on how the bytes arrive.

#include <algorithm>
#include <iterator>

#include "qora/service/channel.h"
#include "qora/service/wire/byte_order.h"
#include "qora/service/wire/limits.h"
#include "qora/service/wire/messages.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/scripted_system.h"

namespace qora::fuzz {
namespace {

constexpr int32_t kStatuses[] = {0, 12, 22, 42, kScriptedError};
constexpr int32_t kBodySizes[] = {10, 2, -1, 6, 6};  // by CommandType; -1: what the header says

// Copy coordinates are the parent's and are trusted, so the parent that plays here keeps copies
// small enough for the scripted pictures: up to 255 x 15 pixels, anywhere.
void boundCopies(std::vector<uint8_t>& bytes) {
  using namespace service;
  for (size_t at = 0; bytes.size() - at >= kHeaderSize;) {
    uint8_t* message = bytes.data() + at;
    const uint32_t size = readUint32(message, 0);
    if (message[4] >= std::size(kBodySizes)) return;
    const bool isEncode = kBodySizes[message[4]] == -1;
    const size_t whole =
        isEncode ? size : static_cast<size_t>(kHeaderSize + kBodySizes[message[4]]);
    if (whole > bytes.size() - at || (isEncode && whole < kEncodeFixedSize)) return;
    if (isEncode) {
      const EncodeRequest request = parseEncodeRequest(message);
      const uint64_t lists = uint64_t{request.rectangleBytes} + request.copyBytes;
      if (lists != whole - kEncodeFixedSize) return;
      uint8_t* entry = message + kEncodeFixedSize + request.rectangleBytes;
      for (uint32_t i = 0; i < request.copyBytes / kRegionCopySize; ++i, entry += kRegionCopySize) {
        entry[13] = 0;
        entry[14] &= 15;
        entry[15] = 0;
      }
    }
    at += whole;
  }
}

}  // namespace
}  // namespace qora::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace qora::fuzz;
  Input in(data, size);
  Script script;
  script.fault = static_cast<Fault>(in.byte() % kFaultCount);
  const uint8_t details = in.byte();
  script.faultAt = details & 7;
  script.planes = (details & 8) != 0;
  script.quantizer = (details & 16) == 0;
  script.writeChunk = 1 + in.byte() % 40;
  const size_t chunk = 1 + in.byte() % 64;
  std::vector<uint8_t> bytes = in.rest();
  boundCopies(bytes);

  const Outcome whole = runScripted(bytes, script);
  require(
      std::find(std::begin(kStatuses), std::end(kStatuses), whole.status) != std::end(kStatuses),
      "the service ends with a status that nobody knows");
  const bool lostReply = script.fault == Fault::write && whole.status == kScriptedError;
  require(lostReply ? whole.expected.starts_with(whole.replies) : whole.expected == whole.replies,
          "a reply is not what the encoder gave");

  script.readChunk = chunk;
  const Outcome dripped = runScripted(bytes, script);
  // How far the buffer has to grow does depend on what else it holds.
  if (whole.capacity > qora::service::kBufferStep ||
      dripped.capacity > qora::service::kBufferStep) {
    return 0;
  }
  if (whole.status == 22 || dripped.status == 22) return 0;
  require(whole.status == dripped.status && whole.replies == dripped.replies &&
              whole.attached == dripped.attached,
          "the way that the bytes arrive makes a difference");
  return 0;
}
