// qora/tools/output_files.h -- What qora-encode writes: coded clips and their statistics.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "qora/client/screen_session.h"
#include "qora/client/stream_format.h"
#include "qora/tools/clip_reader.h"
#include "qora/tools/encode_options.h"

namespace qora::tools {

class OutputFiles {
 public:
  using Time = std::chrono::microseconds;  // since the clip's start

  explicit OutputFiles(const EncodeOptions& options) : options_(options) {}

  // All of these: 1, or -1 with problem(), which has the file's name in front.
  // None of the files may be the one that `input` reads.
  [[nodiscard]] int32_t open(const ClipReader& input);
  // A coded frame of a picture of which `changed` macroblocks changed, shown from `time` on, in its
  // line `number`.
  [[nodiscard]] int32_t write(const client::CodedFrame& frame, Time time, int64_t number,
                              int32_t changed);
  // The clip ends at `end`. What is still in a buffer meets a full disk here.
  [[nodiscard]] int32_t close(Time end);

  const std::string& problem() const { return problem_; }

 private:
  int32_t fail(const std::string& path);
  int32_t begin(const ClipFormat& format, FILE* file);
  int32_t writeMoves(const client::CodedFrame& frame, Time time);
  int32_t writeEnd(int32_t stream, Time end);
  int32_t openFile(const ClipReader& input, const std::string& path, File& file);
  int32_t closeFile(File& file, const std::string& path);
  void writeLine(const client::CodedFrame& frame, int64_t number, int32_t changed);

  const EncodeOptions& options_;
  std::vector<File> streams_;
  client::FrameHead head_;   // of a stream with moves
  std::vector<Time> times_;  // of each stream's next frame, at the earliest
  File stats_;
  std::string problem_;
};

}  // namespace qora::tools
