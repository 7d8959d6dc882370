// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/encode_session.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>

#include "qora/tools/interrupt.h"

namespace qora::tools {
namespace {

constexpr int64_t kEncoderRate = 25;
constexpr uint8_t kUnknownColour = 2;  // in H.264's tables

double frameRate(const ClipFormat& format) {
  return static_cast<double>(format.rateNumerator) / format.rateDenominator;
}

// What the stream says of itself. Where pictures are left out, the clip's rate is only the highest.
client::SequenceFacts factsOf(const ClipFormat& format, const EncodeOptions& options) {
  client::SequenceFacts facts{.rateNumerator = static_cast<uint32_t>(format.rateNumerator),
                              .rateDenominator = static_cast<uint32_t>(format.rateDenominator),
                              .fixedRate = !options.skipUnchanged,
                              .aspectWidth = static_cast<uint16_t>(format.aspectWidth),
                              .aspectHeight = static_cast<uint16_t>(format.aspectHeight),
                              .fullRange = format.fullRange,
                              .primaries = kUnknownColour,
                              .transfer = kUnknownColour,
                              .matrix = kUnknownColour,
                              .chromaLocation = format.chromaLocation};
  if (options.colour == -1) return facts;
  const ColourChoice& colour = kColours[options.colour];
  facts.primaries = colour.primaries;
  facts.transfer = colour.transfer;
  facts.matrix = colour.matrix;
  return facts;
}

FILE* keysTo(const EncodeOptions& options) {
  if (!options.progress) return nullptr;
  return options.output == "-" || options.stats == "-" ? stderr : stdout;
}

std::string fixed(double value, int32_t digits) {
  char text[32];
  std::snprintf(text, sizeof text, "%.*f", digits, value);
  return text;
}

// Between pictures of one size in cells of one layout, the bytes between rows included.
void copyPicture(const client::Picture& from, const client::Picture& to) {
  for (int32_t plane = 0; plane < 3; ++plane) {
    const auto rows = static_cast<size_t>(planeHeight(from, plane));
    std::memcpy(to.plane[plane], from.plane[plane], rows * static_cast<size_t>(from.stride[plane]));
  }
}

}  // namespace

int64_t nominalBitrate(int32_t bitrate, const ClipFormat& format) {
  const int64_t product = static_cast<int64_t>(bitrate) * kEncoderRate * format.rateDenominator;
  const int64_t rounded = (product + format.rateNumerator / 2) / format.rateNumerator;
  return std::max<int64_t>(rounded, 1);
}

std::chrono::microseconds pictureTime(int64_t number, const ClipFormat& format) {
  const double seconds = static_cast<double>(number) / frameRate(format);
  return std::chrono::microseconds(static_cast<int64_t>(seconds * 1e6));
}

EncodeSession::EncodeSession(const EncodeOptions& options)
    : options_(options),
      outputs_(options_),
      progress_(!options.quiet && !options.progress && ::isatty(STDERR_FILENO) == 1),
      keys_(keysTo(options)) {}

int32_t EncodeSession::fail(const std::string& problem) {
  problem_ = problem;
  return -1;
}

int32_t EncodeSession::run() {
  if (openClip() == -1 || findEncoder() == -1 || addStreams() == -1) return -1;
  const Loaded first = loadPicture();
  if (first == Loaded::end) return fail(options_.input + ": the clip has no frame");
  if (first == Loaded::failed) return -1;
  if (openVerifiers() == -1) return -1;
  // The outputs come late: a clip or a service that cannot be had leaves an earlier result alone.
  if (startService() == -1) return -1;
  if (outputs_.open(clip_, facts_) == -1) return fail(outputs_.problem());

  start_ = Clock::now();
  const int32_t encoded = encodeClip();
  progress_.clear();
  const auto end = pictureTime(frames_, clip_.format());
  if (encoded == -1) {
    static_cast<void>(outputs_.close(end));  // what there is can be played
    return -1;
  }
  if (session_.stop() == -1) return fail(session_.errorText());
  if (outputs_.close(end) == -1) return fail(outputs_.problem());
  if (!options_.quiet) printSummary();
  keys_.end(figures(), measuredKeys());
  return findMismatch();
}

int32_t EncodeSession::openClip() {
  ClipFormat raw{.width = options_.width, .height = options_.height};
  if (options_.rateNumerator != 0) {
    raw.rateNumerator = options_.rateNumerator;
    raw.rateDenominator = options_.rateDenominator;
  }
  if (clip_.open(options_.input, options_.width == 0 ? nullptr : &raw) == -1) {
    return fail(clip_.problem());
  }
  if (options_.quality == EncodeOptions::kNoQuality &&
      nominalBitrate(options_.bitrate, clip_.format()) > std::numeric_limits<uint16_t>::max()) {
    return fail("--bitrate is too high for a clip of so few frames a second");
  }
  facts_ = factsOf(clip_.format(), options_);
  return 1;
}

int32_t EncodeSession::findEncoder() {
  service_.keepLog = !options_.verbose;
  return findService(options_.service, service_, problem_);
}

int32_t EncodeSession::addStreams() {
  const ClipFormat& format = clip_.format();
  client::StreamSettings settings{.width = format.width,
                                  .height = format.height,
                                  .bitrate = options_.bitrate,
                                  .quality = options_.quality,
                                  .lowestQuantizer = options_.qpMin,
                                  .highestQuantizer = options_.qpMax,
                                  .threads = options_.threads};
  if (options_.quality == EncodeOptions::kNoQuality) {
    settings.quality = 0;
    if (options_.bitrate > 0) {
      settings.rateControl = client::RateControl::encoder;
      settings.bitrate = static_cast<int32_t>(nominalBitrate(options_.bitrate, format));
    }
  }
  for (settings.id = 0; settings.id < options_.streams; ++settings.id) {
    if (session_.addStream(settings) == -1) return fail(session_.errorText());
  }
  return 1;
}

int32_t EncodeSession::startService() {
  ignoreInterrupts();
  const int32_t started =
      session_.start({.service = service_, .clock = [this] { return clipTime_; }});
  noteInterrupts();
  return started == -1 ? fail(session_.errorText()) : 1;
}

// The first picture is loaded already. While the service encodes one, the next to be encoded is
// read and searched, as far as it is there: waiting for it would keep back a live clip's frames.
int32_t EncodeSession::encodeClip() {
  while (sendPicture() == 1) {
    Loaded next = Loaded::notYet;
    while (next == Loaded::notYet || next == Loaded::skipped) {
      const bool idle = session_.framesInFlight() == 0;
      next = idle || clip_.hasInput() ? loadPicture() : Loaded::notYet;
      if (takeFrames(next == Loaded::skipped ? 0 : -1) == -1) return -1;
      progress_.update(figures());
      keys_.update(figures());
    }
    if (next == Loaded::end) return 1;
    if (next == Loaded::failed) return fail(problem_ + keptText());
  }
  return -1;
}

EncodeSession::Loaded EncodeSession::loadPicture() {
  if (options_.frames > 0 && loaded_ == options_.frames) return Loaded::end;
  if (loading_.plane[0] == nullptr && session_.acquire(0, loading_) != 1) {
    fail(session_.errorText());
    return Loaded::failed;
  }
  const int32_t loaded = wasInterrupted() ? -1 : clip_.read(loading_);
  if (loaded == 0) return Loaded::end;
  if (loaded == -1) {
    fail(wasInterrupted() ? "interrupted" : clip_.problem());
    return Loaded::failed;
  }
  ++loaded_;
  const int32_t changed = session_.findChanges(0, loading_, changes_);
  // A rate that is held sharpens still pictures: the session decides then.
  const bool isHeld = options_.quality != EncodeOptions::kNoQuality && options_.bitrate > 0;
  if (changed > 0 || !options_.skipUnchanged || isHeld) return Loaded::picture;
  ++still_;
  return Loaded::skipped;
}

// The picture that was loaded last becomes the service's.
int32_t EncodeSession::sendPicture() {
  clipTime_ = pictureTime(loaded_ - 1, clip_.format());
  if (options_.noRectangles) changes_.addAll();
  changedInWork_ = changes_.count();
  isInWork_ = isSkipped_ = true;
  findMoves();
  const client::Picture picture = loading_;
  loading_ = {};
  for (int32_t stream = 0; stream < options_.streams; ++stream) {
    if (sendTo(stream, picture) == -1) return fail(session_.errorText());
  }
  return 1;
}

// What moved is given as the copies make it. Where that is off by an unseen shade, the next picture
// differs there, and it is put right.
void EncodeSession::findMoves() {
  moves_.copies.clear();
  client::Picture before;
  if (!options_.moves) return;
  if (!verifiers_.empty()) keepOfClip();
  if (session_.present(0, before) != 1) return;
  detector_.find(before, loading_, changes_, moves_, client::kUnseenTolerance);
  client::Damage owed(loading_.width, loading_.height);
  adoptMoves(before, loading_, moves_, owed);
}

// The picture as the clip has it, to be compared with what came of it.
void EncodeSession::keepOfClip() {
  size_t size = 0;
  for (int32_t plane = 0; plane < 3; ++plane) {
    size += static_cast<size_t>(loading_.stride[plane]) * planeHeight(loading_, plane);
  }
  ofClip_.resize(size);
  kept_ = loading_;
  uint8_t* to = ofClip_.data();
  for (int32_t plane = 0; plane < 3; ++plane) {
    kept_.plane[plane] = to;
    to += ptrdiff_t{loading_.stride[plane]} * planeHeight(loading_, plane);
  }
  copyPicture(loading_, kept_);
}

// The picture is that of stream 0; the others get copies, while the service reads it too.
int32_t EncodeSession::sendTo(int32_t stream, const client::Picture& picture) {
  client::Picture own = picture;
  if (stream > 0) {
    if (session_.acquire(stream, own) != 1) return -1;
    copyPicture(picture, own);
  }
  const int32_t sent = session_.encodeDamage(stream, own, changes_, moves_.copies);
  ++given_[static_cast<size_t>(stream)];
  if (sent != 0 || options_.skipUnchanged) return sent;
  return session_.repeat(stream);  // a file has one frame for each of the clip's
}

// Into the parameter sets of the frame that came last.
void EncodeSession::writeFacts() {
  if (client::rewriteSequenceParameters(frame_.bytes, client::NalFraming::startCodes, facts_,
                                        rewritten_) == 1) {
    frame_.bytes.swap(rewritten_);
  }
}

// 1, or 0 when they are not all there in time.
int32_t EncodeSession::takeFrames(int32_t timeout) {
  int32_t taken;
  while ((taken = session_.readFrame(frame_, timeout)) == 1) {
    if (frame_.keyFrame) writeFacts();
    bytes_ += static_cast<int64_t>(frame_.bytes.size());
    isSkipped_ = false;
    if (outputs_.write(frame_, clipTime_, frames_, changedInWork_) == -1) {
      return fail(outputs_.problem());
    }
    if (verify() == -1) return -1;
  }
  if (taken == -1) return fail(session_.errorText());
  if (session_.framesInFlight() > 0) return 0;
  if (isInWork_) {
    ++frames_;
    changed_ += changedInWork_;
    skipped_ += isSkipped_ ? 1 : 0;
    isInWork_ = false;
  }
  frames_ += still_;
  skipped_ += still_;
  still_ = 0;
  return 1;
}

int32_t EncodeSession::openVerifiers() {
  const int32_t measured = options_.psnr || options_.ssim ? 1 : 0;
  const int32_t count = options_.verify ? options_.streams : measured;
  for (int32_t stream = 0; stream < count; ++stream) {
    std::string problem;
    if (verifiers_.emplace_back().open(problem) == -1) {
      return fail("--verify, --psnr and --ssim have to decode: " + problem);
    }
  }
  if (count > 0) verifiers_[0].measureSimilarity(options_.ssim);
  return 1;
}

// The frame that came last. The session has one picture at a time in work, the one given last.
int32_t EncodeSession::verify() {
  const auto stream = static_cast<size_t>(frame_.stream);
  if (stream >= verifiers_.size()) return 1;
  client::Picture source = kept_;
  const bool isThere = options_.moves || session_.present(frame_.stream, source) == 1;
  const bool isOf = frame_.picture + 1 == given_[stream];
  if (!isThere || verifiers_[stream].add(frame_, source, isOf) == 1) return 1;
  return fail("no memory to decode a frame");
}

int32_t EncodeSession::findMismatch() {
  for (size_t stream = 0; options_.verify && stream < verifiers_.size(); ++stream) {
    const std::string mismatch = verifiers_[stream].mismatch();
    if (mismatch.empty()) continue;
    problem_ = outputPath(options_.output, static_cast<int32_t>(stream)) + ": " + mismatch;
    return 0;
  }
  return 1;
}

// Of stream 0, as all that is measured.
std::string EncodeSession::measuredText() const {
  std::string text;
  if (options_.psnr || options_.verify) {
    const CheckFigures figures = verifiers_[0].figures();
    text = ", PSNR " + decibelText(figures.psnr) + ", " + decibelText(figures.worstPsnr) +
           " at frame " + std::to_string(figures.worstFrame);
  }
  return options_.ssim ? text + ", SSIM " + fixed(verifiers_[0].similarity(), 5) : text;
}

// PSNR is "inf" when all frames are equal.
std::string EncodeSession::measuredKeys() const {
  std::string keys;
  if (options_.psnr) keys = "psnr=" + fixed(verifiers_[0].figures().psnr, 2) + "\n";
  return options_.ssim ? keys + "ssim=" + fixed(verifiers_[0].similarity(), 5) + "\n" : keys;
}

// Follows why it ended early.
std::string EncodeSession::keptText() const {
  return "; frames kept in " + outputName(options_.output) + ": " +
         std::to_string(frames_ - skipped_);
}

ProgressFigures EncodeSession::figures() const {
  int64_t total = clip_.frameCount();
  if (options_.frames > 0 && (total == -1 || total > options_.frames)) total = options_.frames;
  return {.frames = frames_,
          .total = total,
          .bytes = bytes_,
          .seconds = std::chrono::duration<double>(Clock::now() - start_).count(),
          .frameRate = frameRate(clip_.format())};
}

void EncodeSession::printSummary() const {
  ProgressFigures done = figures();
  done.total = -1;
  const double cells = static_cast<double>(changes_.columns()) * changes_.rows();
  const double share =
      100.0 * static_cast<double>(changed_) / (cells * static_cast<double>(frames_));
  const std::string streams =
      options_.streams > 1 ? ", " + std::to_string(options_.streams) + " streams" : "";
  const std::string skipped =
      skipped_ > 0 ? ", " + std::to_string(skipped_) + " of them skipped" : "";
  std::fprintf(stderr, "encoded %s%s%s, %.1f%% of the macroblocks changed%s\n",
               progressText(done).c_str(), skipped.c_str(), streams.c_str(), share,
               measuredText().c_str());
}

}  // namespace qora::tools
