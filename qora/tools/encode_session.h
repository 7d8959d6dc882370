// qora/tools/encode_session.h -- One run of qora-encode: a clip through the service into files.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "qora/client/changed_rectangles.h"
#include "qora/client/codec_client.h"
#include "qora/client/frame_segment.h"
#include "qora/tools/clip_reader.h"
#include "qora/tools/encode_options.h"
#include "qora/tools/progress.h"

namespace qora::tools {

// The bitrate to send so that a clip of this rate comes out at `bitrate` kbit/s: the service's
// encoders count 25 frames a second whatever the clip has. At least 1; may pass 16 bits.
int64_t nominalBitrate(int32_t bitrate, const ClipFormat& format);

class EncodeSession {
 public:
  explicit EncodeSession(const EncodeOptions& options);

  // Encodes the whole clip and writes the summary. 1, or -1 with problem(); what was encoded until
  // then is in the outputs. The service is gone and the segment free when the session is destroyed.
  [[nodiscard]] int32_t run();
  // One line for a person.
  const std::string& problem() const { return problem_; }

 private:
  using Clock = std::chrono::steady_clock;

  int32_t fail(const std::string& problem);
  int32_t failService();
  int32_t openClip();
  int32_t findEncoder();
  int32_t openFile(const std::string& path, File& file);
  int32_t openOutputs();
  int32_t startService();
  int32_t addStreams();
  int32_t encodeClip();
  int32_t loadPicture(int32_t& changed);
  int32_t failLoading();
  int32_t sendFrame(int32_t changed);
  int32_t takeReplies(int32_t timeout);
  int32_t takeReply(int32_t timeout);
  int32_t findChanges();
  int32_t stopService();
  int32_t closeOutputs();
  int32_t closeFile(File& file, const std::string& path);
  ProgressFigures figures() const;
  void printSummary() const;
  int32_t otherCell() const { return 1 - cell_; }

  const EncodeOptions options_;
  std::string service_;
  std::string codecRoot_;
  ClipReader clip_;
  // Before the client: the service has let go of it when it is given back.
  client::FrameSegment segment_;
  client::CodecClient client_;
  std::vector<File> outputs_;
  File stats_;
  client::ChangedRectangles changes_;
  client::Reply reply_;
  ProgressLine progress_;
  Clock::time_point start_;
  int32_t cell_ = 0;           // of the picture that was sent last
  int32_t changedInWork_ = 0;  // macroblocks of that
  int64_t loaded_ = 0;         // pictures that were read
  int64_t still_ = 0;          // of those, behind the one in work, without a change
  int64_t frames_ = 0;         // of those, encoded in all streams, or skipped
  int64_t skipped_ = 0;
  int64_t bytes_ = 0;
  int64_t changed_ = 0;      // macroblocks, summed over the frames
  int32_t macroblocks_ = 0;  // in a picture
  std::string problem_;
};

}  // namespace qora::tools
