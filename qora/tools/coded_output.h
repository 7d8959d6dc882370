// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/coded_output.h -- Where coded frames go: a raw file, a movie, a stream with moves.
//
// Times are those of the recording or clip, from 0 on. Results: 1, -1 with problem(), one line for
// a person.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "qora/client/codec_client.h"
#include "qora/client/sequence_parameters.h"

namespace qora::tools {

struct OutputFrame {
  std::chrono::microseconds time;  // when it looked so
  bool keyFrame;
  std::span<const uint8_t> accessUnit;  // Annex B
  std::span<const service::RegionCopy> copies;
};

class CodedOutput {
 public:
  using Time = std::chrono::microseconds;

  virtual ~CodedOutput() = default;

  // Whether frames may have copies.
  virtual bool takesCopies() const { return false; }
  // Whether somebody will want to seek in it, so that key frames are worth their bytes.
  virtual bool isSeekable() const { return false; }

  // Pictures have this size from `now` on; to be called before the first frame. The next frame is a
  // key frame.
  [[nodiscard]] virtual int32_t setSize(int32_t width, int32_t height, Time now) = 0;
  [[nodiscard]] virtual int32_t write(const OutputFrame& frame) = 0;

  // When flush() is to be called, so that a killed recorder leaves what it showed until then.
  virtual Time flushDue() const { return Time::max(); }
  [[nodiscard]] virtual int32_t flush(Time) { return 1; }
  // Whether it takes another frame, that says nothing new, to keep the last picture until `end`.
  virtual bool endsBefore(Time) const { return false; }

  // Completes the recording.
  [[nodiscard]] virtual int32_t close(Time end) = 0;

  const std::string& problem() const { return problem_; }

 protected:
  std::string problem_;
};

enum class OutputKind { raw, movie, moves };

struct OutputOptions {
  OutputKind kind = OutputKind::raw;
  client::SequenceFacts facts = {};  // that a container repeats
  bool isLive = false;               // time 0 is now, by the wall clock
};

// A path as a person reads it: "standard output" for "-".
std::string outputName(const std::string& path);

// Whether a name is that of a movie, by its suffix.
bool isMovie(const std::string& path);

// `path` may be "-", standard output, except for a movie. Nothing is created before setSize().
std::unique_ptr<CodedOutput> makeOutput(const std::string& path, const OutputOptions& options);

}  // namespace qora::tools
