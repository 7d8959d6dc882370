// SPDX-License-Identifier: BSD-2-Clause
// qora/client/stream_settings.h -- What a stream of a session is to be like, and what the session
// checks before it sends anything: the service ends at the first wrong command.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "qora/client/damage.h"
#include "qora/client/quality_control.h"
#include "qora/service/wire/messages.h"

namespace qora::client {

inline constexpr int32_t kSmallestSide = 16;    // of a stream's picture, pixels
inline constexpr int32_t kLargestSide = 16384;  // the encoder takes no more
inline constexpr int32_t kLargestQuantizer = 51;

// Who decides how many bits a frame gets.
enum class RateControl {
  // The session, by a quantizer offset for each part of the picture. A bitrate is held that may
  // change at any moment, still parts end at `quality`; without a bitrate all has it at once.
  quality,
  // The encoder's own average bitrate, counted at 25 frames a second whatever the parent sends.
  encoder,
};

struct StreamSettings {
  int32_t id = 0;  // 0 to 7, not in use
  // Pixels, 16 to 16384. An odd one is rounded up in what the viewer gets, the edge is repeated.
  int32_t width = 0;
  int32_t height = 0;
  RateControl rateControl = RateControl::quality;
  int32_t bitrate = 0;                // kbit/s; 0: none. RateControl::encoder: 1 to 65535
  int32_t quality = kDefaultQuality;  // the offset that still parts end at, -12 to 44
  int32_t lowestQuantizer = 0;        // RateControl::encoder: limits, 0 to 51
  int32_t highestQuantizer = kLargestQuantizer;
  int32_t threads = 0;         // of the encoder, 0 to 128; 0: it decides
  bool startCodes = true;      // Annex B; otherwise each NAL unit has its length in front, 4 bytes
  int32_t framesInFlight = 2;  // sent and not answered, 1 to 16
};

// Pure. 1, or -1 with one line in `problem`.
int32_t checkSettings(const StreamSettings& settings, std::string& problem);
int32_t checkBitrate(RateControl control, int32_t bitrate, std::string& problem);
int32_t checkQuality(int32_t offset, std::string& problem);
// Inside a picture of that size.
int32_t checkAreas(std::span<const Area> areas, int32_t width, int32_t height,
                   std::string& problem);
// Destinations and sizes even, both sides at least kCopyEdge inside the picture.
int32_t checkCopies(std::span<const service::RegionCopy> copies, int32_t width, int32_t height,
                    std::string& problem);

}  // namespace qora::client
