// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/encode_session.h -- One run of qora-encode: a clip through the service into files.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "qora/client/move_detector.h"
#include "qora/client/screen_session.h"
#include "qora/client/sequence_parameters.h"
#include "qora/tools/clip_reader.h"
#include "qora/tools/encode_options.h"
#include "qora/tools/output_files.h"
#include "qora/tools/progress.h"
#include "qora/tools/stream_verifier.h"

namespace qora::tools {

// The encoder's own bitrate that makes a clip of this rate come out at `bitrate` kbit/s: it counts
// 25 frames a second whatever the clip has. Rounded to the nearest, at least 1; may pass 16 bits.
int64_t nominalBitrate(int32_t bitrate, const ClipFormat& format);
// When a clip's picture is shown.
std::chrono::microseconds pictureTime(int64_t number, const ClipFormat& format);

class EncodeSession {
 public:
  explicit EncodeSession(const EncodeOptions& options);

  // Encodes the whole clip and writes the summary. 1, or -1 with problem(); what was encoded until
  // then is in the outputs. 0: all is encoded, but problem() says what does not show the clip. The
  // service is gone and the segment free when the session is destroyed.
  [[nodiscard]] int32_t run();
  // One line for a person.
  const std::string& problem() const { return problem_; }

 private:
  using Clock = std::chrono::steady_clock;

  // What became of loading the next picture.
  enum class Loaded {
    picture,  // it stands in loading_, to be encoded
    skipped,  // nothing changed in it, and it is to be left out
    notYet,   // it has not begun to arrive
    end,      // of the clip, or of what is to be encoded of it
    failed,   // or interrupted; problem() says which
  };

  int32_t fail(const std::string& problem);
  int32_t openClip();
  int32_t findEncoder();
  int32_t addStreams();
  int32_t startService();
  int32_t encodeClip();
  Loaded loadPicture();
  int32_t sendPicture();
  void findMoves();
  void keepOfClip();
  int32_t sendTo(int32_t stream, const client::Picture& picture);
  int32_t openVerifiers();
  int32_t verify();
  int32_t findMismatch();
  std::string measuredText() const;
  std::string measuredKeys() const;
  int32_t takeFrames(int32_t timeout);
  void writeFacts();
  std::string keptText() const;
  ProgressFigures figures() const;
  void printSummary() const;

  const EncodeOptions options_;
  client::ServiceOptions service_;
  ClipReader clip_;
  client::ScreenSession session_;
  OutputFiles outputs_;
  ProgressLine progress_;
  ProgressKeys keys_;
  Clock::time_point start_;
  client::Picture loading_{};  // of stream 0, to be filled next
  client::Damage changes_;     // in that
  client::MoveDetector detector_;
  client::Moves moves_;          // in that picture
  std::vector<uint8_t> ofClip_;  // with moves: the picture in work,
  client::Picture kept_{};       // as the clip has it
  client::CodedFrame frame_;
  std::deque<StreamVerifier> verifiers_;                // of all streams, of the first, or none
  std::array<int64_t, service::kStreamCount> given_{};  // pictures, to each stream
  client::SequenceFacts facts_;
  std::vector<uint8_t> rewritten_;  // memory for a frame with these
  std::chrono::microseconds clipTime_{};
  int64_t loaded_ = 0;         // pictures that were read
  int64_t still_ = 0;          // of those, after the one in work, left out
  int64_t frames_ = 0;         // of those, done in all streams
  int64_t skipped_ = 0;        // of those, left out
  int32_t changedInWork_ = 0;  // macroblocks of the picture in work
  bool isInWork_ = false;
  bool isSkipped_ = false;  // no frame came of it yet
  int64_t bytes_ = 0;
  int64_t changed_ = 0;  // macroblocks, summed over the frames
  std::string problem_;
};

}  // namespace qora::tools
