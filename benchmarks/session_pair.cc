// SPDX-License-Identifier: BSD-2-Clause
#include "benchmarks/session_pair.h"

#include "benchmarks/give_up.h"

namespace qora::bench {
namespace {

constexpr int32_t kWidth = 1920;
constexpr int32_t kHeight = 1080;
constexpr int32_t kNoLimit = 2'000'000;  // kbit/s: the control works, and every frame has room

}  // namespace

SessionPair::SessionPair(const client::Area& area)
    : area_(area), root_({std::pair("lib/libx264.so", SCRIPTED_ENCODER)}) {
  setenv("SCRIPTED_ENCODER", "encode=2000", 1);
  const client::ServiceOptions options = {.servicePath = SERVICE, .codecRoot = root_.path()};
  check(client_.start(options), "starting the service");
  check(segment_.create(kWidth, kHeight, 1), "making the pictures");
  check(client_.attachSegment(segment_.id()), "attaching");
  check(client_.addStream({.flags = service::kAnnexBFlag,
                           .streamId = 0,
                           .threads = 1,
                           .bitrate = 0,
                           .qpMin = 0,
                           .qpMax = 51,
                           .width = kWidth,
                           .height = kHeight}),
        "adding a stream");
  segment_.place(0, request_);
  client::Damage damage(kWidth, kHeight);
  damage.add(area);
  check(damage.list(rectangles_), "listing");
  check(session_.addStream({.width = kWidth, .height = kHeight, .bitrate = kNoLimit, .threads = 1}),
        "adding a stream");
  check(session_.start({.service = options}), "starting the service");
  callSession();  // the first frame, of all; then what is still is sealed
  while (session_.readFrame(frame_, 500) == 1) continue;
}

void SessionPair::callSession() {
  client::Picture picture{};
  check(session_.acquire(0, picture), "acquiring");
  check(session_.encode(0, picture, {&area_, 1}), "encoding");
  check(session_.readFrame(frame_), "reading");
}

void SessionPair::callClient() {
  check(client_.encode(request_, rectangles_, {}), "encoding");
  check(client_.readReply(reply_), "reading");
}

}  // namespace qora::bench
