#include "tools/clip_reader.h"

#include <unistd.h>

#include <cerrno>

#include "base/file.h"
#include "base/logger.h"

namespace qora::tools {
namespace {

constexpr size_t kReadBuffer = 1 << 20;
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

// Reads up to the newline, which is not stored. 1, or 0 at the end of input or behind kMaxLine.
int32_t readLine(FILE* file, std::string& line) {
  line.clear();
  for (int byte = std::getc(file); byte != '\n'; byte = std::getc(file)) {
    if (byte == EOF || line.size() == kMaxLine) return 0;
    line += static_cast<char>(byte);
  }
  return 1;
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
  file_.reset(path == "-" ? ::fdopen(::dup(STDIN_FILENO), "rb") : std::fopen(path.c_str(), "rb"));
  if (file_ == nullptr || ::fstat(::fileno(file_.get()), &status_) == -1) {
    return fail(errorText(errno));
  }
  if (S_ISDIR(status_.st_mode)) return fail(errorText(EISDIR));
  std::setvbuf(file_.get(), nullptr, _IOFBF, kReadBuffer);

  const int first = std::getc(file_.get());
  if (first == EOF) return fail("the input is empty");
  std::ungetc(first, file_.get());
  y4m_ = rawFormat == nullptr;
  if (y4m_) return readHeader();
  format_ = *rawFormat;
  if (S_ISREG(status_.st_mode)) frameCount_ = status_.st_size / pictureBytes(format_);
  return 1;
}

int32_t ClipReader::readHeader() {
  std::string line;
  if (readLine(file_.get(), line) == 0 && line.starts_with(kY4mMagic)) {
    return fail("the Y4M header has no end");
  }
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

bool ClipReader::reads(const std::string& path) const {
  struct stat other;
  return S_ISREG(status_.st_mode) && file::statusOf(path.c_str(), other) == 1 &&
         other.st_dev == status_.st_dev && other.st_ino == status_.st_ino;
}

// The line in front of a picture. 1, 0 at the clip's end, or -1.
int32_t ClipReader::readFrameLine() {
  std::string line;
  errno = 0;
  const int32_t whole = readLine(file_.get(), line);
  if (whole == 0 && std::ferror(file_.get()) != 0) return fail(errorText(errno));
  if (whole == 0 && line.empty()) return 0;
  const bool isFrame = line.starts_with(kY4mFrame) &&
                       (line.size() == kY4mFrame.size() || line[kY4mFrame.size()] == ' ');
  if (whole == 0 && (isFrame || kY4mFrame.starts_with(line))) return failAtFrame("is cut off");
  return isFrame ? 1 : failAtFrame("does not begin with FRAME");
}

int32_t ClipReader::read(const client::Picture& picture) {
  if (y4m_) {
    const int32_t line = readFrameLine();
    if (line != 1) return line;
  }
  bool begun = y4m_;
  for (int32_t plane = 0; plane < 3; ++plane) {
    const auto rowSize = static_cast<size_t>(planeWidth(picture, plane));
    for (int32_t y = 0; y < planeHeight(picture, plane); ++y) {
      uint8_t* row = picture.plane[plane] + static_cast<int64_t>(y) * picture.stride[plane];
      const size_t count = std::fread(row, 1, rowSize, file_.get());
      if (count != rowSize) {
        if (std::ferror(file_.get()) != 0) return fail(errorText(errno));
        return !begun && count == 0 ? 0 : failAtFrame("is cut off");
      }
      begun = true;
    }
  }
  ++framesRead_;
  return 1;
}

}  // namespace qora::tools
