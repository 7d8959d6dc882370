// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/clip_reader.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "qora/base/error_text.h"

namespace qora::tools {
namespace {

constexpr int kPipeSize = 1 << 20;  // what an unprivileged process may ask for
constexpr size_t kMaxLine = 4096;

int64_t pictureBytes(const ClipFormat& format) {
  const client::Picture picture{
      .plane = {}, .stride = {}, .width = format.width, .height = format.height};
  int64_t bytes = 0;
  for (int32_t plane = 0; plane < 3; ++plane) {
    bytes += static_cast<int64_t>(planeWidth(picture, plane)) * planeHeight(picture, plane);
  }
  return bytes;
}

}  // namespace

int32_t ClipReader::fail(const std::string& what) {
  problem_ = name_ + ": " + what;
  return -1;
}

int32_t ClipReader::failAtFrame(const std::string& what) {
  return fail("frame " + std::to_string(framesRead_) + " " + what);
}

int32_t ClipReader::open(const std::string& path, const ClipFormat* rawFormat) {
  name_ = path == "-" ? "standard input" : path;
  input_.reset(path == "-" ? ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                           : ::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (input_.get() == -1 || ::fstat(input_.get(), &status_) == -1) return fail(errorText(errno));
  if (S_ISDIR(status_.st_mode)) return fail(errorText(EISDIR));
  if (S_ISFIFO(status_.st_mode)) ::fcntl(input_.get(), F_SETPIPE_SZ, kPipeSize);

  const int32_t first = fillAhead();
  if (first != 1) return first == -1 ? -1 : fail("the input is empty");
  y4m_ = rawFormat == nullptr;
  if (y4m_) return readHeader();
  const std::string_view begin(reinterpret_cast<const char*>(ahead_.data()), aheadEnd_);
  if (begin.starts_with(kY4mMagic)) return fail("a Y4M clip; --size is for raw I420 ones");
  format_ = *rawFormat;
  if (S_ISREG(status_.st_mode)) frameCount_ = status_.st_size / pictureBytes(format_);
  return 1;
}

int32_t ClipReader::readHeader() {
  std::string line;
  const int32_t whole = readLine(line);
  if (whole == -1) return -1;
  if (whole == 0 && line.starts_with(kY4mMagic)) return fail("the Y4M header has no end");
  if (!line.starts_with(kY4mMagic)) {
    return fail("not a Y4M clip; a raw I420 one needs --size");
  }
  std::string what;
  if (parseY4mHeader(line, format_, what) == -1) return fail(what);
  if (S_ISREG(status_.st_mode)) {
    const int64_t frameSize = static_cast<int64_t>(kY4mFrame.size()) + 1 + pictureBytes(format_);
    frameCount_ = (status_.st_size - static_cast<int64_t>(line.size() + 1)) / frameSize;
  }
  return 1;
}

bool ClipReader::isOf(const struct stat& status) const {
  return S_ISREG(status_.st_mode) && status.st_dev == status_.st_dev &&
         status.st_ino == status_.st_ino;
}

bool ClipReader::hasInput() const {
  pollfd input = {input_.get(), POLLIN, 0};
  return aheadBegin_ != aheadEnd_ || ::poll(&input, 1, 0) == 1;
}

// Reads into ahead_, which is empty. 1, 0 at the end of the input, or -1.
int32_t ClipReader::fillAhead() {
  const ssize_t count = ::read(input_.get(), ahead_.data(), ahead_.size());
  if (count == -1) return fail(errorText(errno));
  aheadBegin_ = 0;
  aheadEnd_ = static_cast<size_t>(count);
  return count > 0 ? 1 : 0;
}

// Reads up to the newline, which is not stored. 1, 0 at the end of input or behind kMaxLine, or -1.
int32_t ClipReader::readLine(std::string& line) {
  line.clear();
  while (line.size() <= kMaxLine) {
    if (aheadBegin_ == aheadEnd_) {
      const int32_t filled = fillAhead();
      if (filled != 1) return filled;
    }
    const uint8_t* const begin = ahead_.data() + aheadBegin_;
    const uint8_t* const end = ahead_.data() + aheadEnd_;
    const uint8_t* const newline = std::find(begin, end, '\n');
    line.append(begin, newline);
    aheadBegin_ += static_cast<size_t>(newline - begin);
    if (newline == end) continue;
    ++aheadBegin_;
    return line.size() <= kMaxLine ? 1 : 0;
  }
  return 0;
}

// The line in front of a picture. 1, 0 at the clip's end, or -1.
int32_t ClipReader::readFrameLine() {
  std::string line;
  const int32_t whole = readLine(line);
  if (whole == -1) return -1;
  if (whole == 0 && line.empty()) return 0;
  const bool isFrame = line.starts_with(kY4mFrame) &&
                       (line.size() == kY4mFrame.size() || line[kY4mFrame.size()] == ' ');
  if (isFrame && whole == 1) return 1;
  if (whole == 0 && kY4mFrame.starts_with(line)) return failAtFrame("is cut off");
  return failAtFrame("does not begin with FRAME");
}

void ClipReader::listRuns(const client::Picture& picture) {
  runs_.clear();
  runsDone_ = 0;
  for (int32_t plane = 0; plane < 3; ++plane) {
    const auto width = static_cast<size_t>(planeWidth(picture, plane));
    const auto height = static_cast<size_t>(planeHeight(picture, plane));
    const auto stride = static_cast<size_t>(picture.stride[plane]);
    if (width == stride) {
      runs_.push_back({picture.plane[plane], width * height});
    } else {
      for (size_t y = 0; y < height; ++y) {
        runs_.push_back({picture.plane[plane] + y * stride, width});
      }
    }
  }
  runs_.push_back({ahead_.data(), ahead_.size()});
}

// Moves what was read ahead to the front of the runs.
void ClipReader::takeAhead() {
  while (aheadBegin_ != aheadEnd_ && runsDone_ + 1 < runs_.size()) {
    iovec& run = runs_[runsDone_];
    const size_t count = std::min(aheadEnd_ - aheadBegin_, run.iov_len);
    memcpy(run.iov_base, &ahead_[aheadBegin_], count);
    aheadBegin_ += count;
    run.iov_base = static_cast<uint8_t*>(run.iov_base) + count;
    run.iov_len -= count;
    if (run.iov_len == 0) ++runsDone_;
  }
}

// Notes that `count` bytes went into the runs, in their order.
void ClipReader::noteRead(size_t count) {
  for (; count > 0 && runsDone_ + 1 < runs_.size(); ++runsDone_) {
    iovec& run = runs_[runsDone_];
    const size_t taken = std::min(count, run.iov_len);
    run.iov_base = static_cast<uint8_t*>(run.iov_base) + taken;
    run.iov_len -= taken;
    count -= taken;
    if (run.iov_len > 0) return;
  }
  aheadBegin_ = 0;
  aheadEnd_ = count;
}

int32_t ClipReader::read(const client::Picture& picture) {
  if (y4m_) {
    const int32_t line = readFrameLine();
    if (line != 1) return line;
  }
  listRuns(picture);
  bool begun = y4m_ || aheadBegin_ != aheadEnd_;
  takeAhead();
  while (runsDone_ + 1 < runs_.size()) {
    const size_t left = std::min<size_t>(runs_.size() - runsDone_, IOV_MAX);
    const ssize_t count = ::readv(input_.get(), &runs_[runsDone_], static_cast<int>(left));
    if (count == -1) return fail(errorText(errno));
    if (count == 0) return begun ? failAtFrame("is cut off") : 0;
    begun = true;
    noteRead(static_cast<size_t>(count));
  }
  ++framesRead_;
  return 1;
}

}  // namespace qora::tools
