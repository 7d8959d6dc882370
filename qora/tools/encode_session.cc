#include "qora/tools/encode_session.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <limits>

#include "qora/base/error_text.h"
#include "qora/tools/interrupt.h"
#include "qora/tools/service_paths.h"

namespace qora::tools {
namespace {

constexpr int32_t kCells = 2;  // the picture and its predecessor
constexpr int64_t kEncoderRate = 25;
constexpr int32_t kNotYet = 2;  // results of loading a picture: it is not there yet,
constexpr int32_t kStill = 3;   // and nothing changed in it

double frameRate(const ClipFormat& format) {
  return static_cast<double>(format.rateNumerator) / format.rateDenominator;
}

}  // namespace

int64_t nominalBitrate(int32_t bitrate, const ClipFormat& format) {
  const int64_t product = static_cast<int64_t>(bitrate) * kEncoderRate * format.rateDenominator;
  const int64_t rounded = (product + format.rateNumerator / 2) / format.rateNumerator;
  return std::max<int64_t>(rounded, 1);
}

EncodeSession::EncodeSession(const EncodeOptions& options)
    : options_(options), progress_(!options.quiet && ::isatty(STDERR_FILENO) == 1) {}

int32_t EncodeSession::fail(const std::string& problem) {
  problem_ = problem;
  return -1;
}

// A call of the client failed.
int32_t EncodeSession::failService() {
  const int error = errno;
  return fail(client_.endText().empty() ? std::string("talking to the service: ") + errorText(error)
                                        : client_.endText());
}

int32_t EncodeSession::run() {
  if (openClip() == -1 || findEncoder() == -1) return -1;
  const ClipFormat& format = clip_.format();
  if (segment_.create(format.width, format.height, kCells) == -1) {
    return fail(std::string("no shared memory for two pictures: ") + errorText(errno));
  }
  const int32_t first = clip_.read(segment_.picture(otherCell()));
  if (first == -1) return fail(clip_.problem());
  if (first == 0) return fail(options_.input + ": the clip has no frame");
  loaded_ = 1;
  // The outputs come late: a clip or a service that cannot be had leaves an earlier result alone.
  if (startService() == -1 || openOutputs() == -1 || addStreams() == -1) return -1;

  start_ = Clock::now();
  const int32_t encoded = encodeClip();
  progress_.clear();
  if (encoded == -1 || stopService() == -1 || closeOutputs() == -1) return -1;
  if (!options_.quiet) printSummary();
  return 1;
}

int32_t EncodeSession::openClip() {
  const ClipFormat raw{.width = options_.width, .height = options_.height};
  if (clip_.open(options_.input, options_.width == 0 ? nullptr : &raw) == -1) {
    return fail(clip_.problem());
  }
  const ClipFormat& format = clip_.format();
  const int32_t columns = (format.width + client::kMacroblockSize - 1) / client::kMacroblockSize;
  const int32_t rows = (format.height + client::kMacroblockSize - 1) / client::kMacroblockSize;
  macroblocks_ = columns * rows;
  if (nominalBitrate(options_.bitrate, format) > std::numeric_limits<uint16_t>::max()) {
    return fail("--bitrate is too high for a clip of so few frames a second");
  }
  return 1;
}

int32_t EncodeSession::findEncoder() {
  service_ = options_.service;
  codecRoot_ = options_.codecRoot;
  return completePaths(service_, codecRoot_, problem_);
}

int32_t EncodeSession::openFile(const std::string& path, File& file) {
  if (clip_.reads(path)) return fail(path + ": would overwrite the input");
  file.reset(std::fopen(path.c_str(), "wb"));
  return file != nullptr ? 1 : fail(path + ": " + errorText(errno));
}

int32_t EncodeSession::openOutputs() {
  for (int32_t stream = 0; stream < options_.streams; ++stream) {
    if (openFile(outputPath(options_.output, stream), outputs_.emplace_back()) == -1) return -1;
  }
  if (options_.stats.empty()) return 1;
  if (openFile(options_.stats, stats_) == -1) return -1;
  std::fprintf(stats_.get(),
               "%sframe,type,bytes,quantizer,encode_ms,round_trip_ms,changed_macroblocks\n",
               options_.streams > 1 ? "stream," : "");
  return 1;
}

int32_t EncodeSession::startService() {
  ignoreInterrupts();
  const std::string sandbox = options_.sandbox ? sandboxBeside(service_) : "";
  const int32_t started =
      client_.start({.servicePath = service_, .codecRoot = codecRoot_, .sandboxPath = sandbox});
  const int error = errno;
  noteInterrupts();
  if (started == -1) {
    const std::string what = options_.sandbox ? service_ + " with " + sandbox : service_;
    return fail("cannot start the service " + what + ": " + errorText(error));
  }
  return client_.attachSegment(segment_.id()) == -1 ? failService() : 1;
}

int32_t EncodeSession::addStreams() {
  const ClipFormat& format = clip_.format();
  service::AddStreamRequest request{.flags = service::kAnnexBFlag,
                                    .streamId = 0,
                                    .threads = static_cast<uint8_t>(options_.threads),
                                    .bitrate = 0,
                                    .qpMin = static_cast<uint8_t>(options_.qpMin),
                                    .qpMax = static_cast<uint8_t>(options_.qpMax),
                                    .width = static_cast<uint16_t>(format.width),
                                    .height = static_cast<uint16_t>(format.height)};
  if (options_.bitrate > 0) {
    request.bitrate = static_cast<uint16_t>(nominalBitrate(options_.bitrate, format));
  }
  for (int32_t stream = 0; stream < options_.streams; ++stream) {
    request.streamId = static_cast<uint8_t>(stream);
    if (client_.addStream(request) == -1) return failService();
  }
  return 1;
}

// The first picture is in its cell already. While the service encodes one, the next that differs is
// read and searched, as far as it is there: waiting for it would keep back a live clip's replies.
int32_t EncodeSession::encodeClip() {
  int32_t changed = findChanges();
  while (sendFrame(changed) == 1) {
    int32_t next = kNotYet;
    while (next == kNotYet || next == kStill) {
      const bool idle = client_.pendingReplies() == 0;
      next = idle || clip_.hasInput() ? loadPicture(changed) : kNotYet;
      if (takeReplies(next == kStill ? 0 : -1) == -1) return -1;
      progress_.update(figures());
    }
    if (next == 0) return 1;
    if (next == -1) return failLoading();
  }
  return -1;
}

// The next picture, into the cell that the service does not look at. 1, kStill for one that is not
// to be encoded, 0 at the clip's end, or -1.
int32_t EncodeSession::loadPicture(int32_t& changed) {
  if (loaded_ == options_.frames) return 0;
  const int32_t loaded = wasInterrupted() ? -1 : clip_.read(segment_.picture(otherCell()));
  if (loaded != 1) return loaded;
  ++loaded_;
  const int32_t difference = findChanges();
  if (difference == 0 && options_.skipUnchanged) {
    ++still_;
    return kStill;
  }
  changed = difference;
  return 1;
}

int32_t EncodeSession::failLoading() {
  if (wasInterrupted()) {
    return fail("interrupted after " + std::to_string(frames_) + " frames");
  }
  return fail(clip_.problem());
}

// What changed in the picture that was loaded last: fills changes_.list with what to send; returns
// the number of changed macroblocks.
int32_t EncodeSession::findChanges() {
  const client::Picture picture = segment_.picture(otherCell());
  if (loaded_ == 1 || options_.noRectangles) {
    changes_.list.assign(1, client::wholePicture(picture.width, picture.height));
    return macroblocks_;
  }
  const int32_t changed = client::findChangedRectangles(segment_.picture(cell_), picture,
                                                        client::maxRectangles(0), changes_);
  if (changes_.list.empty()) changes_.list.push_back(client::nothingChanged());
  return changed;
}

// The picture that was loaded last becomes the service's.
int32_t EncodeSession::sendFrame(int32_t changed) {
  cell_ = otherCell();
  changedInWork_ = changed;
  service::EncodeRequest request{};
  segment_.place(cell_, request);
  for (int32_t stream = 0; stream < options_.streams; ++stream) {
    request.streamId = static_cast<uint8_t>(stream);
    if (client_.encode(request, changes_.list, {}) == -1) return failService();
  }
  return 1;
}

// 1, or 0 when they are not all there in time.
int32_t EncodeSession::takeReplies(int32_t timeout) {
  while (client_.pendingReplies() > 0) {
    const int32_t taken = takeReply(timeout);
    if (taken != 1) return taken;
    if (client_.pendingReplies() > 0) continue;
    changed_ += changedInWork_;
    ++frames_;
  }
  frames_ += still_;
  skipped_ += still_;
  still_ = 0;
  return 1;
}

int32_t EncodeSession::takeReply(int32_t timeout) {
  const int32_t taken = client_.readReply(reply_, timeout);
  if (taken != 1) return taken == 0 ? 0 : failService();
  const int32_t stream = reply_.streamId;
  FILE* output = outputs_[static_cast<size_t>(stream)].get();
  if (std::fwrite(reply_.frame.data(), 1, reply_.frame.size(), output) != reply_.frame.size()) {
    return fail(outputPath(options_.output, stream) + ": " + errorText(errno));
  }
  bytes_ += static_cast<int64_t>(reply_.frame.size());
  if (stats_ == nullptr) return 1;

  const service::ReplyFields& fields = reply_.fields;
  if (options_.streams > 1) std::fprintf(stats_.get(), "%d,", stream);
  std::fprintf(stats_.get(), "%lld,%s,%u,", static_cast<long long>(frames_),
               fields.keyFrame != 0 ? "I" : "P", fields.frameSize);
  if (fields.quantizer != service::kUnknownQuantizer) {
    std::fprintf(stats_.get(), "%d", fields.quantizer);
  }
  std::fprintf(stats_.get(), ",%u,%.3f,%d\n", client::encodeMilliseconds(fields),
               static_cast<double>(reply_.roundTrip.count()) / 1000, changedInWork_);
  return 1;
}

int32_t EncodeSession::stopService() {
  for (int32_t stream = 0; stream < options_.streams; ++stream) {
    if (client_.removeStream(static_cast<uint8_t>(stream)) == -1) return failService();
  }
  if (client_.removeSegment(segment_.id()) == -1) return failService();
  return client_.stop() == 1 ? 1 : fail(client_.endText());
}

// What is still in a buffer meets a full disk here.
int32_t EncodeSession::closeFile(File& file, const std::string& path) {
  const bool failed = std::ferror(file.get()) != 0;
  if (std::fclose(file.release()) != 0 || failed) return fail(path + ": " + errorText(errno));
  return 1;
}

int32_t EncodeSession::closeOutputs() {
  for (int32_t stream = 0; stream < options_.streams; ++stream) {
    File& output = outputs_[static_cast<size_t>(stream)];
    if (closeFile(output, outputPath(options_.output, stream)) == -1) return -1;
  }
  return stats_ == nullptr ? 1 : closeFile(stats_, options_.stats);
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
  const double share = 100.0 * static_cast<double>(changed_) /
                       (static_cast<double>(macroblocks_) * static_cast<double>(frames_));
  const std::string streams =
      options_.streams > 1 ? ", " + std::to_string(options_.streams) + " streams" : "";
  const std::string skipped =
      skipped_ > 0 ? ", " + std::to_string(skipped_) + " of them skipped" : "";
  std::fprintf(stderr, "encoded %s%s%s, %.1f%% of the macroblocks changed\n",
               progressText(done).c_str(), skipped.c_str(), streams.c_str(), share);
}

}  // namespace qora::tools
