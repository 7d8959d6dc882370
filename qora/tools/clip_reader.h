// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/clip_reader.h -- Pictures out of a Y4M or raw I420 clip, from a file or a pipe.
// Samples go straight to where the picture stands.
#pragma once

#include <sys/stat.h>
#include <sys/uio.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "qora/base/descriptor.h"
#include "qora/client/picture.h"
#include "qora/tools/y4m.h"

namespace qora::tools {

struct CloseFile {
  void operator()(FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, CloseFile>;

class ClipReader {
 public:
  // Opens `path`, "-" for standard input. A raw clip has no header: its size comes from
  // `rawFormat`; null: the clip is Y4M. 1, or -1 with problem().
  [[nodiscard]] int32_t open(const std::string& path, const ClipFormat* rawFormat);

  const ClipFormat& format() const { return format_; }
  // Frames in the clip as its length tells; -1 for a pipe.
  int64_t frameCount() const { return frameCount_; }
  // Whether this is the status of the file that is being read.
  bool isOf(const struct stat& status) const;

  // Whether a read() would find something, be it the clip's end; files always have it.
  bool hasInput() const;

  // Reads the next picture into the planes of one of the clip's size. 1, 0 at the clip's end, -1
  // with problem(). A signal that interrupts the wait for input ends it with errno EINTR.
  [[nodiscard]] int32_t read(const client::Picture& picture);

  // What went wrong, with the clip's name in front.
  const std::string& problem() const { return problem_; }

 private:
  int32_t fail(const std::string& what);
  int32_t failAtFrame(const std::string& what);
  int32_t readHeader();
  int32_t readFrameLine();
  int32_t readLine(std::string& line);
  int32_t fillAhead();
  void listRuns(const client::Picture& picture);
  void takeAhead();
  void noteRead(size_t count);

  Descriptor input_;
  std::string name_;
  ClipFormat format_;
  bool y4m_ = false;
  struct stat status_ {};
  int64_t frameCount_ = -1;
  int64_t framesRead_ = 0;
  std::string problem_;

  // Bytes behind what was asked for last, a frame's line mostly: read along, so that a picture and
  // the line in front of the next one are one system call. Not used yet: [aheadBegin_, aheadEnd_).
  std::array<uint8_t, 4096> ahead_;
  size_t aheadBegin_ = 0;
  size_t aheadEnd_ = 0;
  // What is left of the picture being read, row by row or, without gaps, plane by plane; the last
  // one is all of ahead_. The first `runsDone_` are full.
  std::vector<iovec> runs_;
  size_t runsDone_ = 0;
};

}  // namespace qora::tools
