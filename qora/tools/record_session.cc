// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/record_session.h"

#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "qora/base/error_text.h"
#include "qora/client/sequence_parameters.h"
#include "qora/tools/interrupt.h"

namespace qora::tools {
namespace {

using std::chrono::microseconds;

constexpr int32_t kSavedUp = 2;              // pictures
constexpr int32_t kDefaultKeyInterval = 10;  // seconds, where somebody will seek
constexpr microseconds kProgressInterval{1'000'000};
constexpr microseconds kPaymentInterval{200'000};
constexpr int32_t kStream = 0;
constexpr uint8_t kSrgbTransfer = 13;
constexpr int32_t kEnd = 2;  // a step's result: the recording is over

double secondsOf(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

double processorSeconds(int who) {
  rusage usage{};
  ::getrusage(who, &usage);
  return secondsOf(usage.ru_utime) + secondsOf(usage.ru_stime);
}

int64_t macroblocksIn(const auto& list) {
  int64_t pixels = 0;
  for (const auto& entry : list) pixels += int64_t{entry.width} * entry.height;
  return pixels / (client::kMacroblockSize * client::kMacroblockSize);
}

OutputKind kindOf(const std::string& path) {
  if (isMovie(path)) return OutputKind::movie;
  return path.ends_with(".264") ? OutputKind::raw : OutputKind::moves;
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
      facts_{.rateNumerator = static_cast<uint32_t>(options.framesASecond),
             .transfer = kSrgbTransfer,
             .chromaLocation = 1},
      progress_(!options.quiet && ::isatty(STDERR_FILENO) == 1) {}

int32_t RecordSession::fail(const std::string& problem) {
  problem_ = problem;
  return -1;
}

// 0: it is gone, what was recorded is complete.
int32_t RecordSession::failScreen() {
  const bool gone = errno == EPIPE;
  problem_ = screen_->problem();
  return gone ? 0 : -1;
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
  output_ = makeOutput(options_.output,
                       {.kind = kindOf(options_.output), .facts = facts_, .isLive = true});
  ignoreInterrupts();
  const int32_t started = startService();
  noteInterrupts();
  start_ = Clock::now();
  return started;
}

int32_t RecordSession::startService() {
  client::ServiceOptions service;
  if (findService(options_.service, service, problem_) == -1) return -1;
  // A picture that is due goes before one that is only to be sharpened, and takes that along.
  if (session_.start({.service = service, .frameInterval = interval_ * 5 / 4}) == 1) return 1;
  return fail("cannot start the service " + service.servicePath + ": " + session_.errorText());
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
  if (takeFrames(0) == -1) return -1;
  const Time time = now();
  if (started_ && options_.duration.count() > 0 && time >= options_.duration) return kEnd;
  if (time >= output_->flushDue() && output_->flush(time) == -1) return fail(output_->problem());
  payDebt();
  if (time < nextPicture_) return 1;
  const int32_t looked = lookAtScreen();
  if (looked != 1 || !damaged_) return looked;
  const int32_t acquired = acquirePicture();
  return acquired == 1 ? capture() : (acquired == 0 ? 1 : -1);
}

int32_t RecordSession::lookAtScreen() {
  const int32_t found = screen_->dispatch();
  if (found == -1) return failScreen();
  damaged_ = found == 1 || !due_.isEmpty();
  return screen_->size() == size_ ? 1 : changeSize();
}

// What was recorded with the size before is completed first.
int32_t RecordSession::changeSize() {
  const Time time = started_ ? now() : Time{};
  if (acquired_ && session_.release(kStream, picture_) == -1) return fail(session_.errorText());
  acquired_ = false;
  if (started_ && (takeFrames(-1) == -1 || endFile(time) == -1)) return -1;
  const bool added = session_.settings(kStream) != nullptr;
  size_ = screen_->size();
  const int32_t set = added ? session_.resize(kStream, size_.width, size_.height)
                            : session_.addStream({.id = kStream,
                                                  .width = size_.width,
                                                  .height = size_.height,
                                                  .bitrate = options_.bitrate,
                                                  .quality = options_.quality,
                                                  .threads = options_.threads});
  if (set == -1) return fail(session_.errorText());
  for (client::Damage* cells : {&changed_, &owed_, &owedLately_, &due_}) {
    cells->resize(size_.width, size_.height);
  }
  nextPayment_ = Time::max();
  first_ = true;
  lastPicture_ = -1;
  const auto settled = output_->setSize(size_.width, size_.height, time);
  return settled == 1 ? 1 : fail(output_->problem());
}

// A picture that turned out to be as before stays acquired. 0: the service reads all that there
// are.
int32_t RecordSession::acquirePicture() {
  if (acquired_) return 1;
  const int32_t acquired = session_.acquire(kStream, picture_);
  if (acquired == -1) return fail(session_.errorText());
  acquired_ = acquired == 1;
  if (acquired_ && first_) fillBlack(picture_);
  return acquired;
}

int32_t RecordSession::capture() {
  const Time time = now();
  const int32_t read = reader_.read(*screen_, due_);
  if (read == -1) return failScreen();
  damaged_ = false;
  if (read == 0) return 1;
  due_.clear();
  if (session_.bringUpToDate(kStream, picture_, reader_.drawn()) == -1) {
    return fail(session_.errorText());
  }
  reader_.convert(*screen_, picture_, changed_);
  if (session_.refineChanges(kStream, picture_, changed_) == -1) return fail(session_.errorText());
  if (changed_.isEmpty()) return 1;
  // A screen that stood still has some pictures saved up: a change close after another is not kept
  // waiting. A timer that woke us late does not make the rate lower either.
  nextPicture_ = std::max(nextPicture_, time - kSavedUp * interval_) + interval_;
  return give();
}

int32_t RecordSession::give() {
  if (!started_) {
    started_ = true;
    start_ = Clock::now();
    nextPicture_ = interval_;
  }
  findMoves();
  if (wantsKeyFrame() && session_.requestKeyFrame(kStream) == -1) return fail(session_.errorText());
  if (session_.encodeDamage(kStream, picture_, changed_, moves_.copies) == -1) {
    return fail(session_.errorText());
  }
  acquired_ = first_ = false;
  changed_.clear();
  return 1;
}

void RecordSession::findMoves() {
  moves_.copies.clear();
  client::Picture before;
  if (options_.moves == 0 || !output_->takesCopies()) return;
  if (session_.present(kStream, before) != 1) return;
  owed_.subtract(changed_);
  detector_.find(before, picture_, changed_, moves_, client::kUnseenTolerance);
  if (adoptMoves(before, picture_, moves_, owedLately_) == 0) return;
  owed_.add(owedLately_);
  nextPayment_ = std::min(nextPayment_, now() + kPaymentInterval);
}

// What moved and has been still since is read again, with its true colours.
void RecordSession::payDebt() {
  if (now() < nextPayment_) return;
  due_.add(owed_);
  due_.subtract(owedLately_);
  owed_.subtract(due_);
  owedLately_.clear();
  nextPayment_ = owed_.isEmpty() ? Time::max() : now() + kPaymentInterval;
}

bool RecordSession::wantsKeyFrame() const {
  const int32_t standard = output_->isSeekable() ? kDefaultKeyInterval : 0;
  const int32_t seconds = options_.keyInterval == -1 ? standard : options_.keyInterval;
  return seconds > 0 && frames_ > 0 && now() - lastKey_ >= std::chrono::seconds(seconds);
}

// Writes what is coded: what there is for a timeout of 0, all that is under way for -1.
int32_t RecordSession::takeFrames(int32_t timeout) {
  for (;;) {
    const int32_t taken = session_.readFrame(frame_, timeout);
    if (taken == 0) return 1;
    if (taken == -1 && restartService() == -1) return -1;
    if (taken == 1 && writeFrame(timeOfFrame()) == -1) return -1;
  }
}

// One that gave no frame since its start would not give one after another.
int32_t RecordSession::restartService() {
  const std::string reason = session_.errorText();
  if (framesSinceStart_ == 0) return fail(reason);
  framesSinceStart_ = 0;
  return session_.restart() == 1 ? 1 : fail(session_.errorText());
}

// When the screen looked so; of a picture that was only sharpened, when that began.
RecordSession::Time RecordSession::timeOfFrame() {
  const bool isNew = frame_.picture != lastPicture_;
  lastPicture_ = frame_.picture;
  const Time given =
      frame_.pictureTime - std::chrono::duration_cast<Time>(start_.time_since_epoch());
  return std::max(isNew ? given : now() - frame_.roundTrip, lastFrame_ + Time{1000});
}

// The encoder's own parameter sets promise 25 frames a second and say nothing of colour.
std::span<const uint8_t> RecordSession::trueAccessUnit() {
  if (!frame_.keyFrame) return frame_.bytes;
  const bool rewritten = client::rewriteSequenceParameters(
                             frame_.bytes, client::NalFraming::startCodes, facts_, rewritten_) == 1;
  return rewritten ? rewritten_ : frame_.bytes;
}

int32_t RecordSession::writeFrame(Time time) {
  const OutputFrame recorded{.time = time,
                             .keyFrame = frame_.keyFrame,
                             .accessUnit = trueAccessUnit(),
                             .copies = frame_.copies};
  if (output_->write(recorded) == -1) return fail(output_->problem());
  lastFrame_ = time;
  if (frame_.keyFrame) lastKey_ = time;
  ++framesSinceStart_;
  ++frames_;
  bytes_ += static_cast<int64_t>(recorded.accessUnit.size());
  encodeSeconds_ += frame_.encodeMilliseconds / 1000.0;
  macroblocks_ += changed_.columns() * changed_.rows();
  changedCount_ +=
      macroblocksIn(std::span(frame_.rectangles).subspan(static_cast<size_t>(frame_.keeping)));
  movedCount_ += macroblocksIn(frame_.copies);
  return 1;
}

// When there is something to do even if nothing happens.
RecordSession::Time RecordSession::wakeTime() const {
  const Time time = now();
  const auto earlier = [time](Time wake, int32_t milliseconds) {
    return milliseconds == -1
               ? wake
               : std::min<Time>(wake, time + std::chrono::milliseconds(milliseconds));
  };
  Time wake = std::min(earlier(output_->flushDue(), session_.timeout()), nextPayment_);
  if (options_.duration.count() > 0) wake = std::min<Time>(wake, options_.duration);
  if (progress_.isShown()) wake = std::min(wake, time + kProgressInterval);
  return time < nextPicture_ ? std::min(wake, nextPicture_) : earlier(wake, screen_->nextLook());
}

int32_t RecordSession::wait() {
  showProgress();
  // Until the next picture may be made, or while there is none to draw into, nothing that the
  // screen says is of use.
  const bool resting = now() < nextPicture_ || (damaged_ && session_.framesInFlight() > 0);
  // Reading pixels takes events in as well: the descriptor would stay silent about them.
  if (!resting && screen_->dispatch() != 0) return 1;
  const Time wake = wakeTime();
  pollfd waits[] = {{interruptDescriptor(), POLLIN, 0},
                    {session_.replyDescriptor(), POLLIN, 0},
                    {resting ? -1 : screen_->descriptor(), POLLIN, 0}};
  const auto left = std::max(wake - now(), Time{0}).count();
  const timespec timeout{.tv_sec = left / 1'000'000, .tv_nsec = left % 1'000'000 * 1000};
  const int ready =
      ::ppoll(waits, std::size(waits), wake == Time::max() ? nullptr : &timeout, nullptr);
  if (ready == -1 && errno != EINTR) return fail(std::string("waiting: ") + errorText(errno));
  return 1;
}

// The last picture stands until the end.
int32_t RecordSession::endFile(Time end) {
  if (!output_->endsBefore(end)) return 1;
  const int32_t repeated = session_.repeat(kStream);
  if (repeated == -1) return fail(session_.errorText());
  return takeFrames(-1);
}

int32_t RecordSession::finish() {
  const Time limit = options_.duration.count() > 0 ? Time(options_.duration) : Time::max();
  const Time end = std::max(std::min(now(), limit), lastFrame_);
  if (started_ && (takeFrames(-1) == -1 || endFile(end) == -1)) return -1;
  if (output_->close(end) == -1) return fail(output_->problem());
  return session_.stop() == -1 ? fail(session_.errorText()) : 1;
}

RecordFigures RecordSession::figures() const {
  const double seconds = std::chrono::duration<double>(now()).count();
  // The service's share is known when it has ended; until then, the time that it encoded.
  const double used =
      processorSeconds(RUSAGE_SELF) + std::max(processorSeconds(RUSAGE_CHILDREN), encodeSeconds_);
  const double all = static_cast<double>(std::max<int64_t>(macroblocks_, 1));
  return {.seconds = seconds,
          .frames = frames_,
          .bytes = bytes_,
          .quantizer = frame_.quantizer,
          .changedPercent = 100 * static_cast<double>(changedCount_) / all,
          .movedPercent = 100 * static_cast<double>(movedCount_) / all,
          .processorPercent = 100 * used / std::max(seconds, 0.001)};
}

void RecordSession::showProgress() {
  if (progress_.isDue()) progress_.show(recordText(figures()));
}

}  // namespace qora::tools
