// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/y4m.h -- The header line of a Y4M clip. Pure.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qora::tools {

inline constexpr std::string_view kY4mMagic = "YUV4MPEG2";
inline constexpr std::string_view kY4mFrame = "FRAME";

// What a clip is made of: pictures of one size, `rateNumerator / rateDenominator` a second.
struct ClipFormat {
  int32_t width = 0;
  int32_t height = 0;
  int32_t rateNumerator = 25;  // where the clip does not tell
  int32_t rateDenominator = 1;
  int32_t aspectWidth = 1;  // of a sample
  int32_t aspectHeight = 1;
  bool fullRange = false;
  int32_t chromaLocation = -1;  // as in client::SequenceFacts
};

// Reads the first line, without its newline. Only progressive pictures of 8-bit 4:2:0 are taken.
// 1, or -1 with a phrase for a person in `problem`.
int32_t parseY4mHeader(std::string_view line, ClipFormat& format, std::string& problem);

// 4:2:0 halves both sides. 1, or -1 with a phrase in `problem`.
int32_t checkPictureSize(const ClipFormat& format, std::string& problem);

}  // namespace qora::tools
