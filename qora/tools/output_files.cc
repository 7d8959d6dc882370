#include "qora/tools/output_files.h"

#include <cerrno>
#include <cstdio>

#include "qora/base/error_text.h"

namespace qora::tools {

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
  }
  if (options_.stats.empty()) return 1;
  if (openFile(input, options_.stats, stats_) == -1) return -1;
  std::fprintf(stats_.get(),
               "%sframe,type,bytes,quantizer,encode_ms,round_trip_ms,changed_macroblocks\n",
               options_.streams > 1 ? "stream," : "");
  return 1;
}

int32_t OutputFiles::write(const client::CodedFrame& frame, int64_t number, int32_t changed) {
  FILE* file = streams_[static_cast<size_t>(frame.stream)].get();
  if (std::fwrite(frame.bytes.data(), 1, frame.bytes.size(), file) != frame.bytes.size()) {
    return fail(outputPath(options_.output, frame.stream));
  }
  if (stats_ != nullptr) writeLine(frame, number, changed);
  return 1;
}

void OutputFiles::writeLine(const client::CodedFrame& frame, int64_t number, int32_t changed) {
  FILE* file = stats_.get();
  if (options_.streams > 1) std::fprintf(file, "%d,", frame.stream);
  std::fprintf(file, "%lld,%s,%zu,", static_cast<long long>(number), frame.keyFrame ? "I" : "P",
               frame.bytes.size());
  if (frame.quantizer != -1) std::fprintf(file, "%d", frame.quantizer);
  std::fprintf(file, ",%u,%.3f,%d\n", frame.encodeMilliseconds,
               static_cast<double>(frame.roundTrip.count()) / 1000, changed);
}

int32_t OutputFiles::closeFile(File& file, const std::string& path) {
  const bool failed = std::ferror(file.get()) != 0;
  if (std::fclose(file.release()) != 0 || failed) return fail(path);
  return 1;
}

int32_t OutputFiles::close() {
  for (int32_t stream = 0; stream < options_.streams; ++stream) {
    const std::string path = outputPath(options_.output, stream);
    if (closeFile(streams_[static_cast<size_t>(stream)], path) == -1) return -1;
  }
  return stats_ == nullptr ? 1 : closeFile(stats_, options_.stats);
}

}  // namespace qora::tools
