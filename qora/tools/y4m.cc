// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/y4m.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <utility>

#include "qora/tools/numbers.h"

namespace qora::tools {
namespace {

constexpr int32_t kMaxSide = 65535;  // 16 bits in the add-stream command
constexpr std::string_view kRange = "COLORRANGE=";
constexpr int32_t kMaxNumber = std::numeric_limits<int32_t>::max();
constexpr int32_t kLargestAspect = 65535;  // 16 bits in a sequence parameter set

// They differ in where the chroma samples lie.
constexpr std::pair<std::string_view, int32_t> kColourFormats[] = {
    {"420", -1}, {"420jpeg", 1}, {"420mpeg2", 0}, {"420paldv", 2}};

int32_t fail(std::string& problem, std::string_view what, std::string_view token) {
  problem = std::string(what) + " '" + std::string(token) + "'";
  return -1;
}

int32_t parseColourFormat(std::string_view name, ClipFormat& format) {
  const auto found = std::ranges::find(kColourFormats, name, [](auto& row) { return row.first; });
  if (found == std::end(kColourFormats)) return 0;
  format.chromaLocation = found->second;
  return 1;
}

int32_t parseTag(std::string_view token, ClipFormat& format, std::string& problem) {
  const std::string_view value = token.substr(1);
  switch (token[0]) {
    case 'W':
      if (parseNumber(value, 1, kMaxSide, format.width) == 1) return 1;
      return fail(problem, "bad width", token);
    case 'H':
      if (parseNumber(value, 1, kMaxSide, format.height) == 1) return 1;
      return fail(problem, "bad height", token);
    case 'F':
      if (value == "0:0") return 1;  // "unknown": the default stays
      if (parsePair(value, ':', 1, kMaxNumber, format.rateNumerator, format.rateDenominator) == 1) {
        return 1;
      }
      return fail(problem, "bad frame rate", token);
    case 'C':
      if (parseColourFormat(value, format) == 1) return 1;
      return fail(problem, "only 8-bit 4:2:0 can be encoded, not colour format", token);
    case 'A':
      if (value == "0:0") return 1;
      if (parsePair(value, ':', 1, kLargestAspect, format.aspectWidth, format.aspectHeight) == 1) {
        return 1;
      }
      return fail(problem, "bad pixel aspect", token);
    case 'I':
      if (value == "p" || value == "?") return 1;
      return fail(problem, "only progressive pictures can be encoded, not interlaced", token);
    case 'X':
      if (value.starts_with(kRange)) format.fullRange = value.substr(kRange.size()) == "FULL";
      return 1;
    default:
      return 1;
  }
}

}  // namespace

int32_t parseY4mHeader(std::string_view line, ClipFormat& format, std::string& problem) {
  format = {};
  if (!line.starts_with(kY4mMagic)) {
    problem = "not a Y4M clip";
    return -1;
  }
  line.remove_prefix(kY4mMagic.size());
  while (!line.empty()) {
    const size_t begin = std::min(line.find_first_not_of(' '), line.size());
    line.remove_prefix(begin);
    const std::string_view token = line.substr(0, line.find(' '));
    line.remove_prefix(token.size());
    if (!token.empty() && parseTag(token, format, problem) == -1) return -1;
  }
  if (format.width == 0 || format.height == 0) {
    problem = "the Y4M header lacks the picture's size";
    return -1;
  }
  return checkPictureSize(format, problem);
}

int32_t checkPictureSize(const ClipFormat& format, std::string& problem) {
  if (format.width % 2 == 0 && format.height % 2 == 0) return 1;
  problem = "4:2:0 needs an even width and height, not " + std::to_string(format.width) + "x" +
            std::to_string(format.height);
  return -1;
}

}  // namespace qora::tools
