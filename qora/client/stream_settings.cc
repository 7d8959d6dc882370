// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/stream_settings.h"

#include <algorithm>
#include <limits>

#include "qora/client/region_copies.h"

namespace qora::client {
namespace {

constexpr int32_t kMostThreads = 128;
constexpr int32_t kMostInFlight = 16;
constexpr int32_t kLargestEncoderBitrate = std::numeric_limits<uint16_t>::max();
constexpr int32_t kAny = std::numeric_limits<int32_t>::max();

std::string sizeText(int32_t width, int32_t height) {
  return std::to_string(width) + "x" + std::to_string(height);
}

int32_t checkRange(const char* name, int32_t value, int32_t lowest, int32_t highest,
                   std::string& problem) {
  if (value >= lowest && value <= highest) return 1;
  problem = std::string(name) + " " + std::to_string(value) + " is not from " +
            std::to_string(lowest) + " to " + std::to_string(highest);
  return -1;
}

}  // namespace

int32_t checkBitrate(RateControl control, int32_t bitrate, std::string& problem) {
  return control == RateControl::encoder
             ? checkRange("bitrate", bitrate, 1, kLargestEncoderBitrate, problem)
             : checkRange("bitrate", bitrate, 0, kAny, problem);
}

int32_t checkQuality(int32_t offset, std::string& problem) {
  return checkRange("quality", offset, kFinestOffset, kCoarsestOffset, problem);
}

int32_t checkSettings(const StreamSettings& settings, std::string& problem) {
  const struct {
    const char* name;
    int32_t value, lowest, highest;
  } ranges[] = {
      {"width", settings.width, kSmallestSide, kLargestSide},
      {"height", settings.height, kSmallestSide, kLargestSide},
      {"lowest quantizer", settings.lowestQuantizer, 0, kLargestQuantizer},
      {"highest quantizer", settings.highestQuantizer, settings.lowestQuantizer, kLargestQuantizer},
      {"threads", settings.threads, 0, kMostThreads},
      {"frames in flight", settings.framesInFlight, 1, kMostInFlight},
  };
  for (const auto& range : ranges) {
    if (checkRange(range.name, range.value, range.lowest, range.highest, problem) == -1) return -1;
  }
  if (checkQuality(settings.quality, problem) == -1) return -1;
  return checkBitrate(settings.rateControl, settings.bitrate, problem);
}

int32_t checkAreas(std::span<const Area> areas, int32_t width, int32_t height,
                   std::string& problem) {
  const auto outside = std::find_if(areas.begin(), areas.end(), [&](const Area& area) {
    return std::min({area.x, area.y, area.width, area.height}) < 0 ||
           int64_t{area.x} + area.width > width || int64_t{area.y} + area.height > height;
  });
  if (outside == areas.end()) return 1;
  problem = "area " + std::to_string(outside - areas.begin()) + ", " +
            sizeText(outside->width, outside->height) + " at " + std::to_string(outside->x) + "," +
            std::to_string(outside->y) + ", is not inside the picture of " +
            sizeText(width, height);
  return -1;
}

int32_t checkCopies(std::span<const service::RegionCopy> copies, int32_t width, int32_t height,
                    std::string& problem) {
  for (size_t i = 0; i < copies.size(); ++i) {
    if (const char* fault = faultOf(copies[i], width, height)) {
      problem = "copy " + std::to_string(i) + " " + fault;
      return -1;
    }
  }
  return 1;
}

}  // namespace qora::client
