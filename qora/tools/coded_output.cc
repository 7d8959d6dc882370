// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/coded_output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "qora/base/descriptor.h"
#include "qora/base/error_text.h"
#include "qora/client/stream_format.h"
#include "qora/tools/encode_options.h"
#include "qora/tools/interrupt.h"
#include "qora/tools/movie_writer.h"

namespace qora::tools {
namespace {

int32_t createFile(const std::string& path) {
  if (path == "-") return ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
  return ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
}

std::string problemOf(const std::string& path) {
  return outputName(path) + ": " + errorText(errno);
}

// Access units one after the other, each written as soon as it is there.
class RawOutput final : public CodedOutput {
 public:
  explicit RawOutput(std::string path) : path_(std::move(path)) {}

  int32_t setSize(int32_t, int32_t, Time) override {
    if (file_.get() != -1) return 1;
    file_.reset(createFile(path_));
    return file_.get() == -1 ? fail() : 1;
  }
  int32_t write(const OutputFrame& frame) override {
    std::span<const uint8_t> left = frame.accessUnit;
    while (!left.empty()) {
      const ssize_t written = ::write(file_.get(), left.data(), left.size());
      // Somebody who asks to stop does not want to wait for a pipe that nobody reads.
      if (written == -1 && (errno != EINTR || wasInterrupted())) return fail();
      if (written > 0) left = left.subspan(static_cast<size_t>(written));
    }
    return 1;
  }
  int32_t close(Time) override {
    file_.reset();
    return 1;
  }

 private:
  int32_t fail() {
    problem_ = problemOf(path_);
    return -1;
  }

  std::string path_;
  Descriptor file_;
};

// Access units with the copies that their viewer makes.
class StreamOutput final : public CodedOutput {
 public:
  StreamOutput(std::string path, bool isLive) : path_(std::move(path)), isLive_(isLive) {}

  bool takesCopies() const override { return true; }
  int32_t setSize(int32_t width, int32_t height, Time) override {
    size_ = {.width = static_cast<uint16_t>(width), .height = static_cast<uint16_t>(height)};
    if (file_.get() != -1) return 1;
    file_.reset(createFile(path_));
    if (file_.get() == -1) return fail();
    const auto wallClock = std::chrono::system_clock::now().time_since_epoch();
    const Time start = isLive_ ? std::chrono::duration_cast<Time>(wallClock) : Time{};
    return written(client::writeStreamHeader(
        file_.get(), {.width = size_.width, .height = size_.height, .startTime = start.count()}));
  }
  int32_t write(const OutputFrame& frame) override {
    client::FrameHead head = size_;
    head.time = frame.time.count();
    head.keyFrame = frame.keyFrame;
    return written(client::writeFrame(file_.get(), head, frame.accessUnit, frame.copies));
  }
  int32_t close(Time end) override {
    client::FrameHead head = size_;
    head.time = end.count();
    head.end = true;
    return file_.get() == -1 ? 1 : written(client::writeFrame(file_.get(), head, {}, {}));
  }

 private:
  int32_t written(int32_t result) { return result == -1 ? fail() : 1; }
  int32_t fail() {
    problem_ = problemOf(path_);
    return -1;
  }

  std::string path_;
  bool isLive_;
  Descriptor file_;
  client::FrameHead size_;
};

// A container has one picture size: each other one begins a file of its own, "clip.1.mp4".
class MovieOutput final : public CodedOutput {
 public:
  MovieOutput(std::string path, const client::SequenceFacts& facts)
      : path_(std::move(path)), facts_(facts) {}

  bool isSeekable() const override { return true; }
  int32_t setSize(int32_t width, int32_t height, Time now) override {
    if (close(now) == -1) return -1;
    begin_ = now;
    return told(writer_.open(outputPath(path_, files_++), width, height, facts_));
  }
  int32_t write(const OutputFrame& frame) override {
    return told(writer_.write(frame.accessUnit, frame.keyFrame, frame.time - begin_));
  }
  Time flushDue() const override {
    const Time due = writer_.flushDue();
    return due == Time::max() ? due : begin_ + due;
  }
  int32_t flush(Time now) override { return told(writer_.flush(now - begin_)); }
  bool endsBefore(Time end) const override { return writer_.endsBefore(end - begin_); }
  int32_t close(Time end) override { return told(writer_.close(end - begin_)); }

 private:
  int32_t told(int32_t result) {
    if (result == -1) problem_ = writer_.problem();
    return result;
  }

  std::string path_;
  client::SequenceFacts facts_;
  MovieWriter writer_;
  int32_t files_ = 0;
  Time begin_{};  // of the file
};

}  // namespace

std::string outputName(const std::string& path) {
  return path == "-" ? "standard output" : path;
}

bool isMovie(const std::string& path) {
  return MovieWriter::takes(path);
}

std::unique_ptr<CodedOutput> makeOutput(const std::string& path, const OutputOptions& options) {
  switch (options.kind) {
    case OutputKind::raw:
      return std::make_unique<RawOutput>(path);
    case OutputKind::movie:
      return std::make_unique<MovieOutput>(path, options.facts);
    case OutputKind::moves:
      break;
  }
  return std::make_unique<StreamOutput>(path, options.isLive);
}

}  // namespace qora::tools
