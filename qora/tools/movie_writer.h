// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/movie_writer.h -- H.264 access units into an .mp4 or .mkv file, each shown from its
// own time on until the next one's.
//
// A recorder that is killed leaves a file that plays: what is older than half a second is in it,
// once flush() is called when it is due. Times are those of the recording, from 0 on. One thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "qora/client/sequence_parameters.h"

struct AVFormatContext;
struct AVStream;

namespace qora::tools {

class MovieWriter {
 public:
  using Time = std::chrono::microseconds;

  MovieWriter();
  ~MovieWriter();  // an open file is left as a killed recorder leaves it
  MovieWriter(const MovieWriter&) = delete;
  MovieWriter& operator=(const MovieWriter&) = delete;

  // Whether a file of that name is written here, by its suffix.
  static bool takes(const std::string& path);

  // Creates the file; its kind comes from the suffix. It repeats what the stream says of itself:
  // with a fixed rate times are exact in .mp4, otherwise milliseconds as in .mkv. -1 with
  // problem(), as for all below; always in a build without libavformat.
  [[nodiscard]] int32_t open(const std::string& path, int32_t width, int32_t height,
                             const client::SequenceFacts& facts);
  bool isOpen() const { return format_ != nullptr; }

  // Takes the next access unit, in Annex B form. The first one is a key frame with its parameter
  // sets. A time that is not after the one before is moved behind it, by a millisecond.
  [[nodiscard]] int32_t write(std::span<const uint8_t> accessUnit, bool keyFrame, Time time);

  // When flush() is due; Time::max() while there is nothing to flush.
  Time flushDue() const;
  // Everything so far goes to the file, the last picture as one that was shown until `now`.
  [[nodiscard]] int32_t flush(Time now);
  // True when the last picture is in the file as one that was shown less long than until `end`:
  // only another access unit can say that it stood until then.
  bool endsBefore(Time end) const;

  // Shows the last picture until `end` and completes the file.
  [[nodiscard]] int32_t close(Time end);

  // One line with the file's name in front.
  const std::string& problem() const { return problem_; }

 private:
  struct Release {
    void operator()(AVFormatContext* format) const;
  };

  int32_t fail(int error);
  int32_t begin(std::span<const uint8_t> accessUnit);
  int32_t writeHeld(Time end);
  int32_t flushFragment();

  std::string path_;
  std::unique_ptr<AVFormatContext, Release> format_;
  AVStream* stream_ = nullptr;  // borrowed
  bool begun_ = false;
  std::vector<uint8_t> held_;  // the access unit whose end is not known yet; empty: none
  bool heldKey_ = false;
  Time heldTime_{};
  Time writtenEnd_{};     // of the last picture that was handed on
  Time fragmentStart_{};  // time of the oldest one that is not in the file, held_ included
  bool pending_ = false;  // there is one
  std::string problem_;
};

}  // namespace qora::tools
