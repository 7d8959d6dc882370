// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/output_files.h -- What qora-encode writes: coded clips and their statistics.
#pragma once

#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "qora/client/screen_session.h"
#include "qora/client/sequence_parameters.h"
#include "qora/tools/clip_reader.h"
#include "qora/tools/coded_output.h"
#include "qora/tools/encode_options.h"

namespace qora::tools {

class OutputFiles {
 public:
  using Time = std::chrono::microseconds;  // since the clip's start

  explicit OutputFiles(const EncodeOptions& options) : options_(options) {}

  // All of these: 1, or -1 with problem(), which has the file's name in front.
  // Each has to be a file of its own, and none the one that `input` reads; what was there before is
  // lost only when all can be written.
  [[nodiscard]] int32_t open(const ClipReader& input, const client::SequenceFacts& facts);
  // A coded frame of a picture of which `changed` macroblocks changed, shown from `time` on, in its
  // line `number`.
  [[nodiscard]] int32_t write(const client::CodedFrame& frame, Time time, int64_t number,
                              int32_t changed);
  // The clip ends at `end`. What is still in a buffer meets a full disk here.
  [[nodiscard]] int32_t close(Time end);

  const std::string& problem() const { return problem_; }

 private:
  int32_t fail(const std::string& problem);
  int32_t failFile(const std::string& path);
  int32_t findStatus(const std::string& path, struct stat& status);
  int32_t claim(const ClipReader& input, const std::string& path);
  int32_t claimAll(const ClipReader& input);
  int32_t openAll(const ClipFormat& format, const client::SequenceFacts& facts);
  int32_t openStats();
  int32_t closeStats();
  void writeLine(const client::CodedFrame& frame, int64_t number, int32_t changed);

  const EncodeOptions& options_;
  std::vector<std::unique_ptr<CodedOutput>> streams_;
  std::vector<Time> times_;  // of each stream's next frame, at the earliest
  File stats_;
  std::vector<std::pair<dev_t, ino_t>> claimed_;
  std::vector<std::string> created_;
  std::string problem_;
};

}  // namespace qora::tools
