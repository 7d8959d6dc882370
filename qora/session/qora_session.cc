// SPDX-License-Identifier: BSD-2-Clause
#include "qora/session/qora_session.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <type_traits>

#include "qora/client/screen_session.h"

using qora::client::Area;
using qora::client::CodedFrame;
using qora::client::Damage;
using qora::client::Picture;
using qora::client::RateControl;
using qora::client::ScreenSession;
using qora::client::SessionOptions;
using qora::client::StreamSettings;
using qora::service::RegionCopy;

// A record with a hole would take its next field in without growing.
static_assert(std::has_unique_object_representations_v<qora_session_options>);
static_assert(std::has_unique_object_representations_v<qora_session_stream>);
static_assert(std::has_unique_object_representations_v<qora_session_frame>);

struct qora_session {
  ScreenSession session;
  std::string errorText;
  // What the caller gave or was given, in the other form; members for their memory.
  std::vector<Area> areas;
  std::vector<RegionCopy> copies;
  Damage changed;
  CodedFrame frame;
  std::vector<qora_session_rectangle> frameRectangles;
  std::vector<qora_session_copy> frameCopies;
};

namespace {

int32_t refuse(qora_session& session, int error, const char* problem) {
  session.errorText = problem;
  return -error;
}

// A result of the session as this library's.
int32_t resultOf(qora_session& session, int32_t result) {
  if (result != -1) return result;
  const int error = errno;
  return refuse(session, error, session.session.errorText().c_str());
}

// Puts as much of a record as the caller knows to its place, and nothing into the rest.
template <typename Record>
void putRecord(const Record& record, void* place, size_t size) {
  const size_t known = std::min(size, sizeof record);
  std::memcpy(place, &record, known);
  std::memset(static_cast<uint8_t*>(place) + known, 0, size - known);
  const auto ownSize = static_cast<uint32_t>(size);
  std::memcpy(place, &ownSize, sizeof ownSize);
}

// Takes what the caller knows of a record over what it has already.
template <typename Record>
int32_t takeRecord(qora_session& session, const Record* given, Record& record) {
  uint32_t size = 0;
  if (given != nullptr) std::memcpy(&size, given, sizeof size);
  if (size < sizeof size) return refuse(session, EINVAL, "a record without its struct_size");
  const auto* bytes = reinterpret_cast<const uint8_t*>(given);
  const size_t known = std::min<size_t>(size, sizeof record);
  if (std::any_of(bytes + known, bytes + size, [](uint8_t byte) { return byte != 0; })) {
    return refuse(session, E2BIG, "a record has fields that this version does not know");
  }
  std::memcpy(&record, given, known);
  return 1;
}

qora_session_options defaultOptions() {
  const SessionOptions options;
  qora_session_options result{};
  result.error_descriptor = options.service.errorDescriptor;
  result.keep_log = options.service.keepLog;
  result.command_timeout_ms = options.service.commandTimeout;
  result.reply_timeout_ms = static_cast<int32_t>(options.replyTimeout.count());
  result.max_reply_bytes = options.service.maxReplyBytes;
  result.frame_interval_us = options.frameInterval.count();
  return result;
}

qora_session_stream defaultStream() {
  const StreamSettings settings;
  qora_session_stream result{};
  result.quality = settings.quality;
  result.highest_quantizer = settings.highestQuantizer;
  result.start_codes = settings.startCodes;
  result.frames_in_flight = settings.framesInFlight;
  return result;
}

const char* orEmpty(const char* text) {
  return text == nullptr ? "" : text;
}

SessionOptions fromC(const qora_session_options& options) {
  SessionOptions result = {
      .service = {.servicePath = orEmpty(options.service_path),
                  .codecRoot = orEmpty(options.codec_root),
                  .errorDescriptor = options.error_descriptor,
                  .sandboxPath = orEmpty(options.sandbox_path),
                  .commandTimeout = options.command_timeout_ms,
                  .maxReplyBytes = options.max_reply_bytes,
                  .keepLog = options.keep_log != 0},
      .frameInterval = std::chrono::microseconds(options.frame_interval_us),
      .replyTimeout = std::chrono::milliseconds(options.reply_timeout_ms),
  };
  if (options.clock_us == nullptr) return result;
  result.clock = [clock = options.clock_us, context = options.clock_context] {
    return std::chrono::microseconds(clock(context));
  };
  return result;
}

StreamSettings fromC(const qora_session_stream& stream) {
  return {.id = stream.id,
          .width = stream.width,
          .height = stream.height,
          .rateControl = static_cast<RateControl>(stream.rate_control),
          .bitrate = stream.bitrate,
          .quality = stream.quality,
          .lowestQuantizer = stream.lowest_quantizer,
          .highestQuantizer = stream.highest_quantizer,
          .threads = stream.threads,
          .startCodes = stream.start_codes != 0,
          .framesInFlight = stream.frames_in_flight};
}

// One without planes, which no stream has acquired, for none.
Picture fromC(const qora_session_picture* picture) {
  Picture result{};
  if (picture == nullptr) return result;
  std::copy_n(picture->plane, 3, result.plane);
  std::copy_n(picture->stride, 3, result.stride);
  result.width = picture->width;
  result.height = picture->height;
  return result;
}

qora_session_picture toC(const Picture& picture) {
  qora_session_picture result{};
  std::copy_n(picture.plane, 3, result.plane);
  std::copy_n(picture.stride, 3, result.stride);
  result.width = picture.width;
  result.height = picture.height;
  return result;
}

Area fromC(const qora_session_area& area) {
  return {area.x, area.y, area.width, area.height};
}

// The two flags that there are stand in the low byte.
RegionCopy fromC(const qora_session_copy& copy) {
  return {static_cast<uint8_t>(copy.flags),
          copy.source_x,
          copy.source_y,
          copy.destination_x,
          copy.destination_y,
          copy.width,
          copy.height};
}

qora_session_copy toC(const RegionCopy& copy) {
  return {copy.flags,        copy.sourceX, copy.sourceY, copy.destinationX,
          copy.destinationY, copy.width,   copy.height};
}

qora_session_rectangle toC(const qora::service::Rectangle& rectangle) {
  return {rectangle.x, rectangle.y, rectangle.width, rectangle.height, rectangle.quantizerOffset};
}

template <typename From, typename To>
void takeList(const From* list, size_t count, std::vector<To>& result) {
  result.clear();
  for (size_t index = 0; index < count; ++index) result.push_back(fromC(list[index]));
}

template <typename From, typename To>
void giveList(const std::vector<From>& list, std::vector<To>& result) {
  result.clear();
  for (const From& entry : list) result.push_back(toC(entry));
}

qora_session_frame describeFrame(qora_session& session) {
  const CodedFrame& frame = session.frame;
  giveList(frame.rectangles, session.frameRectangles);
  giveList(frame.copies, session.frameCopies);
  return {.struct_size = 0,
          .stream = frame.stream,
          .key_frame = frame.keyFrame,
          .quantizer = frame.quantizer,
          .bytes = frame.bytes.data(),
          .size = frame.bytes.size(),
          .encode_us = int64_t{frame.encodeMilliseconds} * 1000,
          .round_trip_us = frame.roundTrip.count(),
          .picture = frame.picture,
          .picture_time_us = frame.pictureTime.count(),
          .rectangles = session.frameRectangles.data(),
          .rectangle_count = session.frameRectangles.size(),
          .copies = session.frameCopies.data(),
          .copy_count = session.frameCopies.size()};
}

}  // namespace

const char* qora_session_version() noexcept {
  return QORA_VERSION;
}

qora_session* qora_session_create() noexcept {
  return new (std::nothrow) qora_session;
}

void qora_session_destroy(qora_session* session) noexcept {
  delete session;
}

const char* qora_session_error_text(const qora_session* session) noexcept {
  return session->errorText.c_str();
}

void qora_session_options_init(qora_session_options* options, size_t size) noexcept {
  putRecord(defaultOptions(), options, size);
}

void qora_session_stream_init(qora_session_stream* stream, size_t size) noexcept {
  putRecord(defaultStream(), stream, size);
}

int32_t qora_session_start(qora_session* session, const qora_session_options* options) noexcept {
  qora_session_options taken = defaultOptions();
  const int32_t result = takeRecord(*session, options, taken);
  return result < 0 ? result : resultOf(*session, session->session.start(fromC(taken)));
}

int32_t qora_session_restart(qora_session* session) noexcept {
  return resultOf(*session, session->session.restart());
}

int32_t qora_session_stop(qora_session* session) noexcept {
  return resultOf(*session, session->session.stop());
}

int32_t qora_session_is_running(const qora_session* session) noexcept {
  return session->session.isRunning();
}

int32_t qora_session_add_stream(qora_session* session, const qora_session_stream* stream) noexcept {
  qora_session_stream taken = defaultStream();
  const int32_t result = takeRecord(*session, stream, taken);
  if (result < 0) return result;
  if (taken.rate_control != QORA_SESSION_RATE_QUALITY &&
      taken.rate_control != QORA_SESSION_RATE_ENCODER) {
    return refuse(*session, EINVAL, "rate_control is none of the two");
  }
  return resultOf(*session, session->session.addStream(fromC(taken)));
}

int32_t qora_session_remove_stream(qora_session* session, int32_t stream) noexcept {
  return resultOf(*session, session->session.removeStream(stream));
}

int32_t qora_session_resize(qora_session* session, int32_t stream, int32_t width,
                            int32_t height) noexcept {
  return resultOf(*session, session->session.resize(stream, width, height));
}

int32_t qora_session_set_bitrate(qora_session* session, int32_t stream, int32_t bitrate) noexcept {
  return resultOf(*session, session->session.setBitrate(stream, bitrate));
}

int32_t qora_session_set_quality(qora_session* session, int32_t stream, int32_t quality) noexcept {
  return resultOf(*session, session->session.setQuality(stream, quality));
}

int32_t qora_session_request_key_frame(qora_session* session, int32_t stream) noexcept {
  return resultOf(*session, session->session.requestKeyFrame(stream));
}

int32_t qora_session_acknowledged(qora_session* session, int32_t stream, int64_t bytes,
                                  int64_t round_trip_us) noexcept {
  return resultOf(*session, session->session.acknowledged(
                                stream, bytes, std::chrono::microseconds(round_trip_us)));
}

int32_t qora_session_acquire(qora_session* session, int32_t stream, int32_t latest,
                             qora_session_picture* picture) noexcept {
  Picture acquired{};
  const int32_t result = session->session.acquire(stream, acquired, latest != 0);
  if (result == 1) *picture = toC(acquired);
  return resultOf(*session, result);
}

int32_t qora_session_release(qora_session* session, int32_t stream,
                             const qora_session_picture* picture) noexcept {
  return resultOf(*session, session->session.release(stream, fromC(picture)));
}

int32_t qora_session_encode(qora_session* session, int32_t stream,
                            const qora_session_picture* picture, const qora_session_area* areas,
                            size_t area_count, const qora_session_copy* copies,
                            size_t copy_count) noexcept {
  takeList(areas, area_count, session->areas);
  takeList(copies, copy_count, session->copies);
  return resultOf(*session,
                  session->session.encode(stream, fromC(picture), session->areas, session->copies));
}

int32_t qora_session_encode_changes(qora_session* session, int32_t stream,
                                    const qora_session_picture* picture) noexcept {
  const Picture given = fromC(picture);
  int32_t result = session->session.findChanges(stream, given, session->changed);
  if (result != -1) result = session->session.encodeDamage(stream, given, session->changed);
  return resultOf(*session, result);
}

int32_t qora_session_read_frame(qora_session* session, qora_session_frame* frame,
                                int32_t timeout_ms) noexcept {
  const uint32_t size = frame->struct_size;
  if (size < sizeof size) return refuse(*session, EINVAL, "a record without its struct_size");
  const int32_t result = session->session.readFrame(session->frame, timeout_ms);
  if (result == 1) putRecord(describeFrame(*session), frame, size);
  return resultOf(*session, result);
}

int32_t qora_session_process(qora_session* session) noexcept {
  return resultOf(*session, session->session.process());
}

int32_t qora_session_reply_descriptor(const qora_session* session) noexcept {
  return session->session.replyDescriptor();
}

int32_t qora_session_timeout(const qora_session* session) noexcept {
  return session->session.timeout();
}

int32_t qora_session_frames_in_flight(const qora_session* session) noexcept {
  return session->session.framesInFlight();
}
