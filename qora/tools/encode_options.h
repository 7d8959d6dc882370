// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/encode_options.h -- The command line of qora-encode.
#pragma once

#include <cstdint>
#include <string>

#include "qora/tools/service_choice.h"

namespace qora::tools {

struct EncodeOptions {
  std::string input;   // "-": standard input
  std::string output;  // of stream 0, see outputPath()
  int32_t width = 0;   // of a raw clip; 0: the clip is Y4M
  int32_t height = 0;
  int32_t rateNumerator = 0;  // of a raw clip, frames a second; 0: not given
  int32_t rateDenominator = 1;
  int32_t colour = -1;  // what the clip's colours are, a row of kColours; -1: nobody knows
  static constexpr int32_t kNoQuality = INT32_MIN;
  int32_t bitrate = 0;           // kbit/s at the clip's rate; 0: constant quality
  int32_t quality = kNoQuality;  // the quantizer offset; with a bitrate: the one that still parts
                                 // end at. Without it the encoder holds the bitrate itself
  int32_t qpMin = 0;             // quantizer limits of the encoder's own bitrate
  int32_t qpMax = 51;
  int32_t threads = 0;  // 0: the encoder decides
  int32_t streams = 1;  // how often the clip is encoded, side by side
  int32_t frames = 0;   // stop behind so many; 0: the whole clip
  bool noRectangles = false;
  bool skipUnchanged = false;  // pictures in which nothing changed are not encoded
  bool moves = false;          // the output is a stream with moves
  bool verify = false;         // what is coded is decoded and compared
  bool psnr = false;           // and these are measured
  bool ssim = false;
  bool progress = false;  // lines for a program
  bool quiet = false;
  bool verbose = false;  // the service's own lines are shown
  std::string stats;     // a CSV file; empty: none
  ServiceChoice service;
};

// What a stream can say of its colours, as client::SequenceFacts has it.
struct ColourChoice {
  const char* name;
  uint8_t primaries, transfer, matrix;
};
inline constexpr ColourChoice kColours[] = {
    {"bt601", 6, 6, 6}, {"bt709", 1, 1, 1}, {"srgb", 1, 13, 1}};

// 1: go on with `options`. 0: the user asked for `text`, the help or the version. -1: `text` says
// what is wrong with the command line.
int32_t parseEncodeOptions(int argc, char* const argv[], EncodeOptions& options, std::string& text);

// Where a stream's coded bytes go: stream 0 to `output` itself, the others with their number before
// the suffix: "clip.264", "clip.1.264", "clip.2.264".
std::string outputPath(const std::string& output, int32_t stream);

}  // namespace qora::tools
