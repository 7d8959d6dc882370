// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/output_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <span>

#include "qora/base/descriptor.h"
#include "qora/base/error_text.h"
#include "qora/base/file.h"

namespace qora::tools {
namespace {

int64_t macroblocks(std::span<const service::RegionCopy> copies) {
  int64_t pixels = 0;
  for (const service::RegionCopy& copy : copies) pixels += int64_t{copy.width} * copy.height;
  return pixels / (client::kMacroblockSize * client::kMacroblockSize);
}

}  // namespace

int32_t OutputFiles::fail(const std::string& problem) {
  problem_ = problem;
  return -1;
}

// Of the call before.
int32_t OutputFiles::failFile(const std::string& path) {
  return fail(outputName(path) + ": " + errorText(errno));
}

// A file that is not there is created, so that it has a number. 1, or -1 with errno.
int32_t OutputFiles::findStatus(const std::string& path, struct stat& status) {
  if (path == "-") return ::fstat(STDOUT_FILENO, &status) == 0 ? 1 : -1;
  if (file::statusOf(path.c_str(), status) == 1 && !S_ISREG(status.st_mode)) return 1;
  const bool isNew = ::lstat(path.c_str(), &status) == -1;  // nor a link to what is not there
  const Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
  if (file.get() == -1) return -1;
  if (isNew) created_.push_back(path);
  return ::fstat(file.get(), &status) == 0 ? 1 : -1;
}

// Two names can be one file. What is in it stays until all are known to be different.
int32_t OutputFiles::claim(const ClipReader& input, const std::string& path) {
  struct stat status;
  if (findStatus(path, status) == -1) return failFile(path);
  if (!S_ISREG(status.st_mode)) return 1;
  if (input.isOf(status)) return fail(outputName(path) + ": would overwrite the input");
  const std::pair<dev_t, ino_t> number{status.st_dev, status.st_ino};
  if (std::ranges::find(claimed_, number) != claimed_.end()) {
    return fail(outputName(path) + ": two outputs are this file");
  }
  claimed_.push_back(number);
  return 1;
}

int32_t OutputFiles::claimAll(const ClipReader& input) {
  if (options_.output == "-" && ::isatty(STDOUT_FILENO) == 1) {
    return fail("standard output is a terminal, OUTPUT is not for one");
  }
  for (int32_t stream = 0; stream < options_.streams; ++stream) {
    if (claim(input, outputPath(options_.output, stream)) == -1) return -1;
  }
  return options_.stats.empty() ? 1 : claim(input, options_.stats);
}

int32_t OutputFiles::openAll(const ClipFormat& format, const client::SequenceFacts& facts) {
  const OutputKind other = options_.moves ? OutputKind::moves : OutputKind::raw;
  const OutputKind kind = isMovie(options_.output) ? OutputKind::movie : other;
  for (int32_t stream = 0; stream < options_.streams; ++stream) {
    const std::string path = outputPath(options_.output, stream);
    streams_.push_back(makeOutput(path, {.kind = kind, .facts = facts}));
    if (streams_.back()->setSize(format.width, format.height, Time{}) == -1) {
      return fail(streams_.back()->problem());
    }
  }
  times_.resize(streams_.size());
  return options_.stats.empty() ? 1 : openStats();
}

int32_t OutputFiles::openStats() {
  const bool isStandard = options_.stats == "-";
  stats_.reset(isStandard ? ::fdopen(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0), "w")
                          : std::fopen(options_.stats.c_str(), "we"));
  if (stats_ == nullptr) return failFile(options_.stats);
  std::fprintf(stats_.get(),
               "%sframe,type,bytes,quantizer,encode_ms,round_trip_ms,changed_macroblocks%s\n",
               options_.streams > 1 ? "stream," : "", options_.moves ? ",copied_macroblocks" : "");
  return 1;
}

int32_t OutputFiles::open(const ClipReader& input, const client::SequenceFacts& facts) {
  if (claimAll(input) == 1 && openAll(input.format(), facts) == 1) return 1;
  for (const std::string& path : created_) ::unlink(path.c_str());
  return -1;
}

int32_t OutputFiles::write(const client::CodedFrame& frame, Time time, int64_t number,
                           int32_t changed) {
  const auto stream = static_cast<size_t>(frame.stream);
  time = std::max(time, times_[stream]);
  times_[stream] = time + Time{1};
  const OutputFrame coded{
      .time = time, .keyFrame = frame.keyFrame, .accessUnit = frame.bytes, .copies = frame.copies};
  if (streams_[stream]->write(coded) == -1) return fail(streams_[stream]->problem());
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

int32_t OutputFiles::closeStats() {
  const bool failed = std::ferror(stats_.get()) != 0;
  if (std::fclose(stats_.release()) != 0 || failed) return failFile(options_.stats);
  return 1;
}

int32_t OutputFiles::close(Time end) {
  if (!problem_.empty()) return -1;
  for (size_t stream = 0; stream < streams_.size(); ++stream) {
    const int32_t closed = streams_[stream]->close(std::max(end, times_[stream]));
    if (closed == -1) return fail(streams_[stream]->problem());
  }
  return stats_ == nullptr ? 1 : closeStats();
}

}  // namespace qora::tools
