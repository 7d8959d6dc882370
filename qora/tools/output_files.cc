#include "qora/tools/output_files.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <span>

#include "qora/base/error_text.h"

namespace qora::tools {
namespace {

int64_t macroblocks(std::span<const service::RegionCopy> copies) {
  int64_t pixels = 0;
  for (const service::RegionCopy& copy : copies) pixels += int64_t{copy.width} * copy.height;
  return pixels / (client::kMacroblockSize * client::kMacroblockSize);
}

}  // namespace

// Of the call before.
int32_t OutputFiles::fail(const std::string& path) {
  problem_ = path + ": " + errorText(errno);
  return -1;
}

int32_t OutputFiles::openFile(const ClipReader& input, const std::string& path, File& file) {
  if (input.reads(path)) {
    problem_ = path + ": would overwrite the input";
    return -1;
  }
  file.reset(std::fopen(path.c_str(), "wb"));
  return file != nullptr ? 1 : fail(path);
}

int32_t OutputFiles::open(const ClipReader& input) {
  for (int32_t stream = 0; stream < options_.streams; ++stream) {
    const std::string path = outputPath(options_.output, stream);
    if (openFile(input, path, streams_.emplace_back()) == -1) return -1;
    if (options_.moves && begin(input.format(), streams_.back().get()) == -1) return fail(path);
  }
  times_.resize(streams_.size());
  if (options_.stats.empty()) return 1;
  if (openFile(input, options_.stats, stats_) == -1) return -1;
  std::fprintf(stats_.get(),
               "%sframe,type,bytes,quantizer,encode_ms,round_trip_ms,changed_macroblocks%s\n",
               options_.streams > 1 ? "stream," : "", options_.moves ? ",copied_macroblocks" : "");
  return 1;
}

// A stream with moves goes past the file's buffer.
int32_t OutputFiles::begin(const ClipFormat& format, FILE* file) {
  head_.width = static_cast<uint16_t>(format.width);
  head_.height = static_cast<uint16_t>(format.height);
  return client::writeStreamHeader(fileno(file), {.width = head_.width, .height = head_.height});
}

int32_t OutputFiles::writeMoves(const client::CodedFrame& frame, Time time) {
  const auto stream = static_cast<size_t>(frame.stream);
  client::FrameHead head = head_;
  time = std::max(time, times_[stream]);
  times_[stream] = time + Time{1};
  head.time = time.count();
  head.keyFrame = frame.keyFrame;
  return client::writeFrame(fileno(streams_[stream].get()), head, frame.bytes, frame.copies);
}

int32_t OutputFiles::writeEnd(int32_t stream, Time end) {
  client::FrameHead head = head_;
  head.time = std::max(end, times_[static_cast<size_t>(stream)]).count();
  head.end = true;
  FILE* file = streams_[static_cast<size_t>(stream)].get();
  return client::writeFrame(fileno(file), head, {}, {});
}

int32_t OutputFiles::write(const client::CodedFrame& frame, Time time, int64_t number,
                           int32_t changed) {
  FILE* file = streams_[static_cast<size_t>(frame.stream)].get();
  const bool written = options_.moves ? writeMoves(frame, time) == 1
                                      : std::fwrite(frame.bytes.data(), 1, frame.bytes.size(),
                                                    file) == frame.bytes.size();
  if (!written) return fail(outputPath(options_.output, frame.stream));
  if (stats_ != nullptr) writeLine(frame, number, changed);
  return 1;
}

void OutputFiles::writeLine(const client::CodedFrame& frame, int64_t number, int32_t changed) {
  FILE* file = stats_.get();
  if (options_.streams > 1) std::fprintf(file, "%d,", frame.stream);
  std::fprintf(file, "%lld,%s,%zu,", static_cast<long long>(number), frame.keyFrame ? "I" : "P",
               frame.bytes.size());
  if (frame.quantizer != -1) std::fprintf(file, "%d", frame.quantizer);
  std::fprintf(file, ",%u,%.3f,%d", frame.encodeMilliseconds,
               static_cast<double>(frame.roundTrip.count()) / 1000, changed);
  if (options_.moves)
    std::fprintf(file, ",%lld", static_cast<long long>(macroblocks(frame.copies)));
  std::fputc('\n', file);
}

int32_t OutputFiles::closeFile(File& file, const std::string& path) {
  const bool failed = std::ferror(file.get()) != 0;
  if (std::fclose(file.release()) != 0 || failed) return fail(path);
  return 1;
}

int32_t OutputFiles::close(Time end) {
  for (int32_t stream = 0; stream < options_.streams; ++stream) {
    const std::string path = outputPath(options_.output, stream);
    if (options_.moves && writeEnd(stream, end) == -1) return fail(path);
    if (closeFile(streams_[static_cast<size_t>(stream)], path) == -1) return -1;
  }
  return stats_ == nullptr ? 1 : closeFile(stats_, options_.stats);
}

}  // namespace qora::tools
