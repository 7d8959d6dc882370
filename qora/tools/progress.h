// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/progress.h -- How far an encode has come, told on a terminal.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

namespace qora::tools {

struct ProgressFigures {
  int64_t frames = 0;     // done
  int64_t total = -1;     // -1: not known
  int64_t bytes = 0;      // coded, all streams together
  double seconds = 0;     // since the start
  double frameRate = 25;  // of the clip, frames a second
};

// "[12.3%] 37/300 frames, 58.10 fps, 1234.56 kb/s, eta 0:00:05"; without a known total
// "37 frames, 58.10 fps, 1234.56 kb/s".
std::string progressText(const ProgressFigures& figures);

// The same for a program, a figure a line: "frames=37", "total=300" where it is known,
// "bytes=148000", "seconds=0.500", "fps=74.00", "kbps=960.00".
std::string progressKeys(const ProgressFigures& figures);

// Blocks of such lines, a few times a second.
class ProgressKeys {
 public:
  // `to` is borrowed; null: none are wanted.
  explicit ProgressKeys(FILE* to) : to_(to) {}

  void update(const ProgressFigures& figures);
  // The last block; `more` are further lines.
  void end(const ProgressFigures& figures, const std::string& more);

 private:
  FILE* to_;
  std::chrono::steady_clock::time_point next_{};
};

// One line on standard error that is written over, a few times a second.
class ProgressLine {
 public:
  explicit ProgressLine(bool shown) : shown_(shown) {}
  ~ProgressLine() { clear(); }
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  void update(const ProgressFigures& figures) {
    if (isDue()) show(progressText(figures));
  }
  // For another text: whether it is time for one, and the text.
  bool isShown() const { return shown_; }
  bool isDue() const;
  void show(const std::string& text);
  // Takes the line away, before anything else is written.
  void clear();

 private:
  bool shown_;
  size_t width_ = 0;  // characters on the terminal now
  std::chrono::steady_clock::time_point next_{};
};

}  // namespace qora::tools
