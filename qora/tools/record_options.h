// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/record_options.h -- The command line of qora-record.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "qora/client/damage.h"
#include "qora/tools/service_choice.h"

namespace qora::tools {

struct RecordOptions {
  std::string display;    // empty: as the environment says
  client::Area region{};  // of the screen; empty: all of it
  int32_t window = 0;     // an X window's number; 0: none
  std::string output;  // "-": a stream on standard output                     // "-": a stream on
                       // standard output
  int32_t framesASecond = 30;             // at most
  std::chrono::milliseconds duration{0};  // 0: until it is stopped
  int32_t bitrate = 0;                    // kbit/s; 0: constant quality
  int32_t quality = 8;                    // the quantizer offset of constant quality
  int32_t moves = 1;                      // 0: off; files for players never have any
  int32_t pointer = 1;                    // 0: not recorded
  int32_t keyInterval = -1;  // seconds; 0: no key frame but where needed; -1: 10 in .mp4 and .mkv
  int32_t threads = 1;
  bool quiet = false;
  ServiceChoice service;
};

// 1: go on with `options`. 0: the user asked for `text`, the help or the version. -1: `text` says
// what is wrong with the command line.
int32_t parseRecordOptions(int argc, char* const argv[], RecordOptions& options, std::string& text);

}  // namespace qora::tools
