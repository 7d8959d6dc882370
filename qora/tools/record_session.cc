#include "qora/tools/record_session.h"

#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "qora/base/error_text.h"
#include "qora/tools/interrupt.h"

namespace qora::tools {
namespace {

using std::chrono::microseconds;

constexpr int32_t kDefaultKeyInterval = 10;  // seconds, where somebody will seek
constexpr microseconds kProgressInterval{1'000'000};
constexpr int32_t kEnd = 2;  // a step's result: the recording is over

double secondsOf(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

double processorSeconds() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return secondsOf(usage.ru_utime) + secondsOf(usage.ru_stime);
}

}  // namespace

std::string recordText(const RecordFigures& figures) {
  const auto whole = static_cast<long long>(figures.seconds);
  const double kilobits =
      figures.seconds > 0 ? static_cast<double>(figures.bytes) * 8 / 1000 / figures.seconds : 0;
  char quantizer[32] = "";
  if (figures.quantizer >= 0)
    std::snprintf(quantizer, sizeof quantizer, ", quantizer %d", figures.quantizer);
  char text[192];
  std::snprintf(text, sizeof text,
                "%lld:%02lld:%02lld  %lld frames, %.1f kbit/s%s, %.1f%% changed, %.1f%% moved, "
                "%.1f%% of a processor",
                whole / 3600, whole / 60 % 60, whole % 60, static_cast<long long>(figures.frames),
                kilobits, quantizer, figures.changedPercent, figures.movedPercent,
                figures.processorPercent);
  return text;
}

RecordSession::RecordSession(const RecordOptions& options)
    : options_(options),
      interval_(1'000'000 / options.framesASecond),
      progress_(!options.quiet && ::isatty(STDERR_FILENO) == 1) {}

int32_t RecordSession::fail(const std::string& problem) {
  problem_ = problem;
  return -1;
}

RecordSession::Time RecordSession::now() const {
  return std::chrono::duration_cast<Time>(Clock::now() - start_);
}

int32_t RecordSession::run() {
  if (open() == -1) return -1;
  const int32_t recorded = record();
  progress_.clear();
  const std::string reason = problem_;
  if (finish() == -1) return -1;
  problem_ = reason;
  if (recorded != -1 && !options_.quiet) {
    std::fprintf(stderr, "recorded %s\n", recordText(figures()).c_str());
  }
  return recorded;
}

int32_t RecordSession::open() {
  screen_ = capture::openScreen({.display = options_.display,
                                 .region = options_.region,
                                 .window = static_cast<uint32_t>(options_.window),
                                 .pointer = options_.pointer != 0},
                                problem_);
  if (screen_ == nullptr) return -1;
  output_ = makeOutput(options_.output);
  ignoreInterrupts();
  const int32_t started = startEncoder();
  noteInterrupts();
  if (started == -1) return fail(encoder_.problem());
  start_ = Clock::now();
  return 1;
}

int32_t RecordSession::startEncoder() {
  return encoder_.start({.service = options_.service,
                         .codecRoot = options_.codecRoot,
                         .sandbox = options_.sandbox,
                         .threads = options_.threads,
                         .bitrate = options_.bitrate,
                         .quality = options_.quality});
}

// 1: stopped in order. 0: the screen is gone. -1: failed.
int32_t RecordSession::record() {
  int32_t result = 1;
  while (result == 1 && !wasInterrupted()) {
    result = step();
    if (result == 1) result = wait();
  }
  return result == kEnd ? 1 : result;
}

int32_t RecordSession::step() {
  const Time time = now();
  if (started_ && options_.duration.count() > 0 && time >= options_.duration) return kEnd;
  if (time >= output_->flushDue() && output_->flush(time) == -1) return fail(output_->problem());
  if (time < nextFrame_) return 1;
  const int32_t looked = lookAtScreen();
  if (looked != 1) return looked;
  if (damaged_) return capture();
  return wakeAt_ <= time ? encode(time) : 1;
}

int32_t RecordSession::lookAtScreen() {
  const int32_t found = screen_->dispatch();
  if (found == -1) {
    problem_ = screen_->problem();
    return errno == EPIPE ? 0 : -1;
  }
  damaged_ = found == 1;
  return screen_->size() == size_ ? 1 : changeSize();
}

int32_t RecordSession::changeSize() {
  if (started_ && endFile(now()) == -1) return -1;
  size_ = screen_->size();
  if (encoder_.resize(size_.width, size_.height, picture_) == -1) return fail(encoder_.problem());
  return output_->setSize(size_.width, size_.height, started_ ? now() : Time{}) == 1
             ? 1
             : fail(output_->problem());
}

int32_t RecordSession::capture() {
  if (!started_) start_ = Clock::now();
  started_ = true;
  const Time time = now();
  const int32_t read = picture_.update(*screen_);
  if (read == -1) {
    problem_ = screen_->problem();
    return errno == EPIPE ? 0 : -1;
  }
  damaged_ = false;
  if (read == 0) return 1;
  captured_ = time;
  return encode(time);
}

int32_t RecordSession::encode(Time time) {
  const int32_t encoded = encoder_.encode(time, picture_, wantsKeyFrame(time), frame_, wakeAt_);
  if (encoded == -1) return fail(encoder_.problem());
  if (encoded == 0) return 1;
  scheduleNext(time);
  if (frame_.reply.fields.keyFrame != 0) lastKey_ = time;
  return write(time);
}

int32_t RecordSession::write(Time time) {
  const RecordedFrame recorded{.time = time,
                               .keyFrame = frame_.reply.fields.keyFrame != 0,
                               .accessUnit = frame_.reply.frame,
                               .copies = frame_.copies};
  if (output_->write(recorded) == -1) return fail(output_->problem());
  ++frames_;
  bytes_ += static_cast<int64_t>(frame_.reply.frame.size());
  macroblocks_ += picture_.changed().columns() * picture_.changed().rows();
  changed_ += frame_.changed;
  moved_ += frame_.moved;
  showProgress();
  return 1;
}

// A timer that woke us a little late must not make the rate lower than it was asked for.
void RecordSession::scheduleNext(Time time) {
  const Time late = time - nextFrame_;
  nextFrame_ = time + interval_ - (late < interval_ / 4 ? late : Time{});
}

bool RecordSession::wantsKeyFrame(Time time) const {
  const int32_t standard = output_->isSeekable() ? kDefaultKeyInterval : 0;
  const int32_t seconds = options_.keyInterval == -1 ? standard : options_.keyInterval;
  return seconds > 0 && frames_ > 0 && !picture_.changed().isEmpty() &&
         time - lastKey_ >= std::chrono::seconds(seconds);
}

// When there is something to do even if nothing happens.
RecordSession::Time RecordSession::wakeTime() const {
  Time wake = output_->flushDue();
  if (damaged_) wake = std::min(wake, nextFrame_);
  if (wakeAt_ != Time::max()) wake = std::min(wake, std::max(wakeAt_, nextFrame_));
  if (options_.duration.count() > 0) wake = std::min<Time>(wake, options_.duration);
  if (progress_.isShown()) wake = std::min(wake, now() + kProgressInterval);
  return wake;
}

int32_t RecordSession::wait() {
  showProgress();
  const Time time = now();
  // Until the next frame may be made, nothing that the screen says is of use.
  const bool resting = time < nextFrame_;
  Time wake = wakeTime();
  if (resting) wake = std::min(wake, nextFrame_);
  const int32_t look = screen_->nextLook();
  if (!resting && look != -1) wake = std::min<Time>(wake, time + std::chrono::milliseconds(look));
  pollfd waits[] = {{interruptDescriptor(), POLLIN, 0},
                    {resting ? -1 : screen_->descriptor(), POLLIN, 0}};
  const auto left =
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::max(wake - time, Time{0}));
  const timespec timeout{.tv_sec = left.count() / 1'000'000'000,
                         .tv_nsec = left.count() % 1'000'000'000};
  if (::ppoll(waits, std::size(waits), wake == Time::max() ? nullptr : &timeout, nullptr) == -1 &&
      errno != EINTR) {
    return fail(std::string("waiting: ") + errorText(errno));
  }
  return 1;
}

// The last picture stands until the end.
int32_t RecordSession::endFile(Time end) {
  if (!output_->endsBefore(end)) return 1;
  if (encoder_.encodeNothing(end, picture_, frame_) == -1) return fail(encoder_.problem());
  return write(end);
}

int32_t RecordSession::finish() {
  const Time limit = options_.duration.count() > 0 ? Time(options_.duration) : Time::max();
  const Time end = std::min(now(), limit);
  if (started_ && endFile(end) == -1) return -1;
  if (output_->close(end) == -1) return fail(output_->problem());
  return encoder_.stop() == -1 ? fail(encoder_.problem()) : 1;
}

RecordFigures RecordSession::figures() const {
  const double seconds = std::chrono::duration<double>(now()).count();
  const double all = static_cast<double>(std::max<int64_t>(macroblocks_, 1));
  const uint8_t quantizer = frame_.reply.fields.quantizer;
  return {.seconds = seconds,
          .frames = frames_,
          .bytes = bytes_,
          .quantizer = quantizer == service::kUnknownQuantizer ? -1 : quantizer,
          .changedPercent = 100 * static_cast<double>(changed_) / all,
          .movedPercent = 100 * static_cast<double>(moved_) / all,
          .processorPercent = 100 * processorSeconds() / std::max(seconds, 0.001)};
}

void RecordSession::showProgress() {
  if (progress_.isDue()) progress_.show(recordText(figures()));
}

}  // namespace qora::tools
