// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/view/view_session.h"

#include <poll.h>

#include <algorithm>
#include <cstdio>

#include "qora/tools/interrupt.h"
#include "qora/tools/view/png_writer.h"

namespace qora::tools {
namespace {

// SDL has no descriptor that its events could be waited for with.
constexpr int32_t kEventWait = 10;  // milliseconds
// A viewer that cannot keep up shows something all the same.
constexpr std::chrono::milliseconds kLongestUnseen{100};
constexpr std::chrono::milliseconds kTitleInterval{250};

std::string nameOf(const std::string& path) {
  return path == "-" ? "standard input" : path.substr(path.rfind('/') + 1);
}

}  // namespace

std::string titleText(const std::string& name, std::chrono::microseconds time, int64_t frames,
                      const std::string& state) {
  const auto milliseconds = static_cast<long long>(time.count() / 1000);
  const long long seconds = milliseconds / 1000;
  char text[96];
  std::snprintf(text, sizeof text, " - %lld:%02lld:%02lld.%03lld, frame %lld", seconds / 3600,
                seconds / 60 % 60, seconds % 60, milliseconds % 1000,
                static_cast<long long>(frames - 1));
  return name + text + (state.empty() ? "" : ", " + state);
}

int32_t ViewSession::fail(const std::string& problem) {
  problem_ = problem;
  return -1;
}

int32_t ViewSession::run() {
  ignoreInterrupts();
  noteInterrupts();
  if (player_.open(options_.input, options_.framesASecond) == -1) return fail(player_.problem());
  const int32_t done = options_.list              ? list()
                       : !options_.verify.empty() ? verify()
                       : !options_.png.empty()    ? save()
                                                  : play();
  return done == 1 ? conclude() : done;
}

// What was wrong with the stream itself.
int32_t ViewSession::conclude() {
  if (ended_ && player_.frames() == 0) return fail(player_.input().name() + ": no picture in it");
  problem_ = player_.damage();
  return problem_.empty() ? 1 : 0;
}

// 1: a frame waits, or the stream ended. 0: not in time. -1: failed.
int32_t ViewSession::load(int32_t timeout) {
  if (waiting_ || ended_) return 1;
  const Next next = player_.load(timeout);
  if (next == Next::failed) return fail(player_.problem());
  waiting_ = next == Next::frame;
  ended_ = next == Next::end;
  return next == Next::notYet ? 0 : 1;
}

// Decodes the frame that waits. 1, 0 when it has no picture, or -1.
int32_t ViewSession::advance() {
  waiting_ = false;
  const int32_t shown = player_.show();
  return shown == -1 ? fail(player_.problem()) : shown;
}

int32_t ViewSession::list() {
  std::puts("frame,seconds,type,bytes,copied_macroblocks");
  while (!wasInterrupted()) {
    if (load(-1) == -1) return -1;
    if (ended_) break;
    if (!waiting_) continue;
    if (!player_.isEndMark()) {
      std::printf("%lld,%.6f,%s,%zu,%lld\n", static_cast<long long>(player_.frames()),
                  static_cast<double>(player_.waitingTime().count()) / 1e6,
                  player_.isKeyFrame() ? "I" : "P", player_.waitingBytes(),
                  static_cast<long long>(player_.copiedMacroblocks()));
    }
    if (advance() == -1) return -1;
  }
  return 1;
}

// The picture of that number, or the last one that is shown by that time.
int32_t ViewSession::save() {
  const bool byTime = options_.frame == -1;
  while (!wasInterrupted()) {
    if (load(-1) == -1) return -1;
    const bool isAfter = byTime && waiting_ && player_.waitingTime() > options_.time;
    if (ended_ || (isAfter && player_.hasPicture())) break;
    if (waiting_ && advance() == -1) return -1;
    if (!byTime && player_.frames() > options_.frame) break;
  }
  const bool isThere = player_.hasPicture() && (byTime || player_.frames() > options_.frame);
  if (!isThere) {
    const std::string damage = player_.damage();
    return fail(damage.empty() ? player_.input().name() + ": it has only " +
                                     std::to_string(player_.frames()) + " pictures"
                               : damage);
  }
  return writePng(player_.picture(), options_.png, problem_);
}

// A plain stream has a picture for each of the source's. Of one with times the picture is taken
// that is shown when the source's is. 0: the stream has ended by then.
int32_t ViewSession::advanceTo(int64_t number, bool& newStart) {
  const ClipFormat& format = source_.format();
  const double period = 1e6 * format.rateDenominator / format.rateNumerator;
  const Time until(static_cast<int64_t>((static_cast<double>(number) + 0.5) * period));
  while (!wasInterrupted()) {
    if (load(-1) == -1) return -1;
    if (ended_) return 0;
    const bool isTimed = player_.input().isTimed();
    if (isTimed ? waiting_ && player_.waitingTime() >= until : player_.frames() > number) return 1;
    if (!waiting_) continue;
    newStart = newStart || player_.isKeyFrame();
    ended_ = player_.isEndMark();
    if (advance() == -1) return -1;
    if (!isTimed && player_.frames() > number) return 1;
  }
  return fail("interrupted");
}

int32_t ViewSession::compare(int64_t number, PictureMemory& memory) {
  bool newStart = false;
  const int32_t there = advanceTo(number, newStart);
  if (there == -1) return -1;
  if (there == 0 || !player_.hasPicture()) {
    ++missing_;
    return 0;
  }
  const client::Picture& source = memory.picture();
  const client::Picture picture = player_.picture();
  if (picture.width < source.width || picture.height < source.height) {
    return fail(options_.verify + ": its pictures are larger than the stream's");
  }
  check_.add(source, picture, newStart);
  return 1;
}

int32_t ViewSession::verify() {
  if (source_.open(options_.verify, nullptr) == -1) return fail(source_.problem());
  PictureMemory memory;
  memory.resize(source_.format().width, source_.format().height);
  int32_t read;
  for (int64_t number = 0; (read = source_.read(memory.picture())) == 1; ++number) {
    if (compare(number, memory) == -1) return -1;
  }
  if (read == -1) return fail(source_.problem());
  return drain() == -1 ? -1 : report();
}

// What comes after the source's end may be damaged too.
int32_t ViewSession::drain() {
  while (!ended_ && !wasInterrupted()) {
    if (load(-1) == -1 || (waiting_ && advance() == -1)) return -1;
  }
  if (!player_.input().isTimed()) surplus_ = player_.frames() - check_.figures().frames;
  return 1;
}

int32_t ViewSession::report() {
  const CheckFigures figures = check_.figures();
  if (figures.frames == 0) return fail(options_.verify + ": nothing to compare with");
  std::printf("frames       %lld\n", static_cast<long long>(figures.frames));
  std::printf("psnr         %s\n", decibelText(figures.psnr).c_str());
  std::printf("worst frame  %lld, %s\n", static_cast<long long>(figures.worstFrame),
              decibelText(figures.worstPsnr).c_str());
  const std::string drift = driftText(figures);
  std::printf("drift        %s\n", drift.empty() ? "none" : drift.c_str());
  const std::string damage = player_.damage();
  if (damage.empty() && !drift.empty()) return differ("some drift " + drift);
  if (damage.empty() && missing_ > 0) return differ(std::to_string(missing_) + " are missing");
  if (damage.empty() && surplus_ > 0) return differ(std::to_string(surplus_) + " are too many");
  return 1;
}

// From the source, in what is no damage.
int32_t ViewSession::differ(const std::string& how) {
  problem_ = player_.input().name() + ": of the pictures " + how;
  return 0;
}

int32_t ViewSession::play() {
  int32_t going = 1;
  while (going == 1 && !wantsQuit_ && !wasInterrupted()) {
    going = step();
    if (going == 1) going = rest();
  }
  return going;
}

int32_t ViewSession::step() {
  if (load(0) == -1) return -1;
  while (waiting_ && isDue() && !(isNew_ && Clock::now() - shown_ > kLongestUnseen)) {
    if (take() == -1 || load(0) == -1) return -1;
  }
  if (isNew_ && (!isPaused_ || wantsStep_ || !player_.input().isLive()) && present() == -1)
    return -1;
  if (ended_ && (options_.close || !window_.isOpen())) wantsQuit_ = true;
  if (!window_.isOpen()) return 1;
  ViewKey key;
  while ((key = window_.takeKey()) != ViewKey::none) handle(key);
  showTitle();
  return 1;
}

ViewSession::Time ViewSession::untilDue() const {
  return std::chrono::duration_cast<Time>(start_ + player_.waitingTime() - Clock::now());
}

// Live frames are decoded while nothing moves in the window too: whoever sends them is not to wait.
bool ViewSession::isDue() const {
  if (player_.input().isLive() || player_.frames() == 0) return true;
  return isPaused_ ? wantsStep_ : untilDue() <= Time{0};
}

// Decodes the frame that is due.
int32_t ViewSession::take() {
  const bool isFirst = player_.frames() == 0;
  ended_ = player_.isEndMark();
  const int32_t taken = advance();
  if (taken == -1) return -1;
  isNew_ = isNew_ || taken == 1;
  if (isFirst || wantsStep_) start_ = Clock::now() - player_.time();
  if (wantsStep_ && !player_.input().isLive()) {
    paused_ = Clock::now();
    wantsStep_ = false;
  }
  return 1;
}

int32_t ViewSession::present() {
  const client::Picture picture = player_.picture();
  const bool isOpen = window_.isOpen() || window_.open(picture.width, picture.height) == 1;
  if (!isOpen || window_.show(picture) == -1) return fail(window_.problem());
  shown_ = Clock::now();
  isNew_ = wantsStep_ = false;
  return 1;
}

// Until there is something to do, or the user may have done something.
int32_t ViewSession::rest() {
  if (player_.input().isLive() && !ended_ && !waiting_) return load(kEventWait) == -1 ? -1 : 1;
  const auto due = waiting_ && !isPaused_ ? untilDue().count() / 1000 : kEventWait;
  ::poll(nullptr, 0, static_cast<int>(std::clamp<int64_t>(due, 0, kEventWait)));
  return 1;
}

void ViewSession::handle(ViewKey key) {
  const bool wasPaused = isPaused_;
  if (key == ViewKey::quit) wantsQuit_ = true;
  if (key == ViewKey::pause) isPaused_ = !isPaused_;
  if (key == ViewKey::step) isPaused_ = wantsStep_ = true;
  if (isPaused_ && !wasPaused) paused_ = Clock::now();
  if (!isPaused_ && wasPaused) start_ += Clock::now() - paused_;
  titled_ = {};
}

void ViewSession::showTitle() {
  if (Clock::now() - titled_ < kTitleInterval) return;
  titled_ = Clock::now();
  const char* state = ended_ ? "end" : (isPaused_ ? "paused" : "");
  window_.setTitle(titleText(nameOf(options_.input), player_.time(), player_.frames(), state));
}

}  // namespace qora::tools
