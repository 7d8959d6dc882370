// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/view/view_options.h -- The command line of qora-view.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace qora::tools {

struct ViewOptions {
  std::string input;                   // "-": standard input
  std::string verify;                  // a Y4M clip to compare with; empty: none
  bool list = false;                   // print a line a frame
  std::string png;                     // where one picture goes; empty: none is wanted
  int32_t frame = -1;                  // which, from 0 on
  std::chrono::microseconds time{-1};  // or the one that is shown then
  int32_t framesASecond = 25;          // of a plain stream
  bool close = false;                  // the window, at the stream's end
};

// 1: go on with `options`. 0: the user asked for `text`, the help or the version. -1: `text` says
// what is wrong with the command line.
int32_t parseViewOptions(int argc, char* const argv[], ViewOptions& options, std::string& text);

}  // namespace qora::tools
