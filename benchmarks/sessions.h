// benchmarks/sessions.h -- The built service beside what it is held against: the encoder called in
// this process, or a process that only echoes.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "benchmarks/timing.h"
#include "qora/client/codec_client.h"
#include "qora/client/frame_segment.h"
#include "tests/support/direct_encoder.h"
#include "tests/support/temporary_root.h"

namespace qora::bench {

// Ends the program with the text: a measurement that cannot be made has no use.
[[noreturn]] void giveUp(const std::string& what);

struct StreamShape {
  int32_t width, height;
  int32_t threads = 1;
  int32_t streams = 1;
  int32_t bitrate = 0;  // kbit/s; 0: constant quality
};

// One frame, encoded both ways; microseconds.
struct FrameCost {
  double service;  // from the call of encode() until the reply was taken
  double encoder;  // of that, the encoder's own function in the service
  double floor;    // the same function in this process, nothing else
  size_t bytes;    // of the coded frame
};

// A child behind two plain pipes, which runs `body` with them as its standard input and output.
class PipedProcess {
 public:
  explicit PipedProcess(const std::function<void()>& body);
  // A program, with extra environment entries ("NAME=value").
  PipedProcess(const std::string& program, const std::vector<std::string>& environment);
  ~PipedProcess();
  PipedProcess(const PipedProcess&) = delete;
  PipedProcess& operator=(const PipedProcess&) = delete;

  void write(const test::Bytes& bytes);
  void read(void* bytes, size_t size);  // all of it

 private:
  pid_t process_;
  Descriptor input_;
  Descriptor output_;
};

// Real streams in the service and the same in this process, over the same two picture cells.
class SideBySide {
 public:
  explicit SideBySide(const StreamShape& shape, int32_t firstTurn = 0);

  client::Picture picture(int32_t cell) const { return segment_.picture(cell); }
  // Encodes a cell in both. The one that goes second finds the picture in the caches: at even turns
  // the floor.
  FrameCost encode(int32_t cell, const std::vector<service::Rectangle>& rectangles,
                   int32_t stream = 0);
  const client::Reply& lastReply() const { return reply_; }
  pid_t servicePid() const { return servicePid_; }

 private:
  double encodeInService(int32_t cell, const std::vector<service::Rectangle>& rectangles,
                         int32_t stream);
  double encodeHere(int32_t cell, const std::vector<service::Rectangle>& rectangles,
                    int32_t stream);

  const test::TemporaryRoot root_;
  const double* encoderTime_;  // in microseconds, of the service's last frame
  client::FrameSegment segment_;
  client::CodecClient client_;
  std::vector<std::unique_ptr<test::DirectEncoder>> direct_;
  client::Reply reply_;
  pid_t servicePid_ = -1;
  int64_t turn_;
};

// The encoder in a process of its own behind two plain pipes and nothing more: what a round trip
// costs at least, when the encoder has just been through the caches.
class BareService {
 public:
  BareService(const StreamShape& shape, const client::Picture (&cells)[2]);
  // Encodes a cell. Microseconds of the round trip less the encoder's own function.
  double overhead(int32_t cell, const std::vector<service::Rectangle>& rectangles);

 private:
  void serve(const StreamShape& shape, const client::Picture (&cells)[2]);

  test::Bytes message_;
  test::Bytes reply_;
  PipedProcess child_;  // starts with what stands above
};

// A text-like picture in a cell, and another one with a share of its macroblocks drawn anew. The
// result is the list of those, at least one rectangle.
void drawPicture(const client::Picture& picture);
std::vector<service::Rectangle> redrawShare(const client::Picture& before,
                                            const client::Picture& after, double share,
                                            uint32_t seed);

// The service over an encoder that returns at once, and a bare echo of the same sizes; both behind
// the same plain pipes. A call is one round trip.
class ScriptedPair {
 public:
  ScriptedPair(int32_t rectangles, int32_t replyBytes);
  void callService() { call(service_); }
  void callEcho() { call(echo_); }

 private:
  void call(PipedProcess& process);

  test::TemporaryRoot root_;
  PipedProcess service_;
  PipedProcess echo_;
  std::unique_ptr<uint8_t, void (*)(uint8_t*)> memory_;
  test::Bytes message_;
  test::Bytes reply_;
};

// Milliseconds from nothing to the first coded frame: the service started, a segment attached, a
// stream added, a picture encoded; and the encoder opened and called in a fresh process.
double firstReplyOfService(const StreamShape& shape);
double firstFrameInProcess(const StreamShape& shape);

// Memory in KiB that would be free without the process: no shared pictures, no libraries' code that
// others run as well.
int64_t privateKilobytes(pid_t process);
// After a few frames: of the service, and what the same streams add to a process of their own.
int64_t memoryOfService(const StreamShape& shape);
int64_t memoryInProcess(const StreamShape& shape);

}  // namespace qora::bench
