#include "qora/tools/live_encoder.h"

#include <cerrno>

#include "qora/base/error_text.h"
#include "qora/tools/interrupt.h"
#include "qora/tools/service_paths.h"

namespace qora::tools {
namespace {

constexpr uint8_t kStream = 0;
constexpr int32_t kReplyTimeout = 10'000;  // milliseconds

}  // namespace

int32_t LiveEncoder::fail(const std::string& problem) {
  problem_ = problem;
  return -1;
}

int32_t LiveEncoder::failService() {
  const int error = errno;
  return fail(client_.endText().empty() ? std::string("talking to the service: ") + errorText(error)
                                        : client_.endText());
}

int32_t LiveEncoder::start(const LiveSettings& settings) {
  settings_ = settings;
  if (completePaths(settings_.service, settings_.codecRoot, problem_) == -1) return -1;
  control_.setRate(int64_t{settings_.bitrate} * 1000 / 8);
  control_.setQuality(settings_.quality);
  return launch();
}

int32_t LiveEncoder::launch() {
  const std::string sandbox = settings_.sandbox ? sandboxBeside(settings_.service) : "";
  const int32_t started = client_.start(
      {.servicePath = settings_.service, .codecRoot = settings_.codecRoot, .sandboxPath = sandbox});
  proven_ = false;
  streamAdded_ = false;
  if (started == 1) return 1;
  return fail("cannot start the service " + settings_.service +
              (sandbox.empty() ? "" : " with " + sandbox) + ": " + errorText(errno));
}

int32_t LiveEncoder::resize(int32_t width, int32_t height, LivePicture& picture) {
  if (streamAdded_ && client_.removeStream(kStream) == -1 && restart() == -1) return -1;
  streamAdded_ = false;
  if (segment_.create(width, height, 1) == -1) {
    return fail(std::string("no shared memory for a picture: ") + errorText(errno));
  }
  width_ = width;
  height_ = height;
  picture.begin(segment_.picture(0));
  return addStream();
}

// The quality control is told of a new stream: all of the picture is coded anew.
int32_t LiveEncoder::addStream() {
  control_.reset(width_, height_);
  const service::AddStreamRequest request{.flags = service::kAnnexBFlag,
                                          .streamId = kStream,
                                          .threads = static_cast<uint8_t>(settings_.threads),
                                          .bitrate = 0,
                                          .qpMin = 0,
                                          .qpMax = 51,
                                          .width = static_cast<uint16_t>(width_),
                                          .height = static_cast<uint16_t>(height_)};
  if (client_.attachSegment(segment_.id()) == -1 || client_.addStream(request) == -1) {
    return failService();
  }
  streamAdded_ = true;
  return 1;
}

// A service that gave no frame since its start would not give one to its successor either.
int32_t LiveEncoder::restart() {
  if (!proven_) return failService();
  client_.stop(0);
  ++restarts_;
  if (launch() == -1) return -1;
  return addStream();
}

int32_t LiveEncoder::encode(Time now, LivePicture& picture, bool keyFrame, LiveFrame& frame,
                            Time& wakeAt) {
  control_.plan(now, picture.changed(), segment_.picture(0), {}, keyFrame, plan_);
  wakeAt = plan_.step == client::QualityStep::wait ? plan_.until : Time::max();
  if (plan_.step != client::QualityStep::encode) return 0;
  frame.copies = plan_.copies;
  frame.changed = picture.changed().count();
  frame.moved = 0;
  picture.keep();
  if (send(plan_.keyFrame, frame) == -1) {
    return restart() == -1 ? -1 : encode(now, picture, keyFrame, frame, wakeAt);
  }
  control_.encoded(now, static_cast<int64_t>(frame.reply.frame.size()),
                   frame.reply.fields.keyFrame != 0);
  wakeAt = now;  // there may be more to sharpen
  return 1;
}

int32_t LiveEncoder::send(bool invalidate, LiveFrame& frame) {
  service::EncodeRequest request{};
  request.streamId = kStream;
  request.invalidate = invalidate ? 1 : 0;
  segment_.place(0, request);
  if (client_.encode(request, plan_.rectangles, frame.copies) == -1) return -1;
  const int32_t taken = client_.readReply(frame.reply, kReplyTimeout);
  if (taken == 1) proven_ = true;
  return taken == 1 ? 1 : -1;
}

int32_t LiveEncoder::encodeNothing(Time now, LivePicture& picture, LiveFrame& frame) {
  plan_.rectangles.assign(1, client::nothingChanged());
  frame.copies.clear();
  frame.changed = frame.moved = 0;
  if (send(false, frame) == 1) return 1;
  Time wakeAt{};
  return restart() == -1 ? -1 : encode(now, picture, true, frame, wakeAt);
}

int32_t LiveEncoder::stop() {
  return client_.stop() == -1 ? fail(client_.endText()) : 1;
}

}  // namespace qora::tools
