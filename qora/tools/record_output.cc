#include "qora/tools/record_output.h"

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
  return ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
}

// Access units one after the other, each written as soon as it is there.
class RawOutput final : public RecordOutput {
 public:
  explicit RawOutput(std::string path) : path_(std::move(path)) {}

  int32_t setSize(int32_t, int32_t, Time) override {
    if (file_.get() != -1) return 1;
    file_.reset(createFile(path_));
    return file_.get() == -1 ? fail() : 1;
  }
  int32_t write(const RecordedFrame& frame) override {
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
    problem_ = path_ + ": " + errorText(errno);
    return -1;
  }

  std::string path_;
  Descriptor file_;
};

// Access units with the copies that their viewer makes.
class StreamOutput final : public RecordOutput {
 public:
  explicit StreamOutput(std::string path) : path_(std::move(path)) {}

  bool takesCopies() const override { return true; }
  int32_t setSize(int32_t width, int32_t height, Time) override {
    size_ = {.width = static_cast<uint16_t>(width), .height = static_cast<uint16_t>(height)};
    if (descriptor_ != -1) return 1;
    if (path_ == "-") {
      descriptor_ = STDOUT_FILENO;
    } else {
      file_.reset(createFile(path_));
      descriptor_ = file_.get();
    }
    if (descriptor_ == -1) return fail();
    const auto wallClock = std::chrono::system_clock::now().time_since_epoch();
    return written(client::writeStreamHeader(
        descriptor_, {.width = size_.width,
                      .height = size_.height,
                      .startTime = std::chrono::duration_cast<Time>(wallClock).count()}));
  }
  int32_t write(const RecordedFrame& frame) override {
    client::FrameHead head = size_;
    head.time = frame.time.count();
    head.keyFrame = frame.keyFrame;
    return written(client::writeFrame(descriptor_, head, frame.accessUnit, frame.copies));
  }
  int32_t close(Time end) override {
    client::FrameHead head = size_;
    head.time = end.count();
    head.end = true;
    return descriptor_ == -1 ? 1 : written(client::writeFrame(descriptor_, head, {}, {}));
  }

 private:
  int32_t written(int32_t result) { return result == -1 ? fail() : 1; }
  int32_t fail() {
    problem_ = (path_ == "-" ? "standard output" : path_) + ": " + errorText(errno);
    return -1;
  }

  std::string path_;
  Descriptor file_;
  int32_t descriptor_ = -1;
  client::FrameHead size_;
};

// A container has one picture size: each other one begins a file of its own, "clip.1.mp4".
class MovieOutput final : public RecordOutput {
 public:
  explicit MovieOutput(std::string path) : path_(std::move(path)) {}

  bool isSeekable() const override { return true; }
  int32_t setSize(int32_t width, int32_t height, Time now) override {
    if (close(now) == -1) return -1;
    begin_ = now;
    return told(writer_.open(outputPath(path_, files_++), width, height));
  }
  int32_t write(const RecordedFrame& frame) override {
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
  MovieWriter writer_;
  int32_t files_ = 0;
  Time begin_{};  // of the file
};

}  // namespace

std::unique_ptr<RecordOutput> makeOutput(const std::string& path) {
  if (MovieWriter::takes(path)) return std::make_unique<MovieOutput>(path);
  if (path.ends_with(".264")) return std::make_unique<RawOutput>(path);
  return std::make_unique<StreamOutput>(path);
}

}  // namespace qora::tools
