// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/numbers.h -- Decimal numbers out of text that a person or another program wrote.
#pragma once

#include <charconv>
#include <cstdint>
#include <string_view>

namespace qora::tools {

// The whole text has to be one number from `lowest` to `highest`. 1, or 0 with `value` as it was.
inline int32_t parseNumber(std::string_view text, int32_t lowest, int32_t highest, int32_t& value) {
  int32_t number = 0;
  const char* end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stopped != end || number < lowest || number > highest) return 0;
  value = number;
  return 1;
}

// Up to some months. 1, or 0 with `seconds` as it was.
inline int32_t parseSeconds(std::string_view text, double lowest, double& seconds) {
  constexpr double kLongest = 1e7;
  double number = 0;
  const char* end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stopped != end || !(number >= lowest) || number > kLongest) return 0;
  seconds = number;
  return 1;
}

// "<number><separator><number>", both from `lowest` to `highest`. 1, or 0 with both as they were.
inline int32_t parsePair(std::string_view text, char separator, int32_t lowest, int32_t highest,
                         int32_t& first, int32_t& second) {
  const size_t middle = text.find(separator);
  int32_t one = 0;
  int32_t two = 0;
  if (middle == std::string_view::npos ||
      parseNumber(text.substr(0, middle), lowest, highest, one) == 0 ||
      parseNumber(text.substr(middle + 1), lowest, highest, two) == 0) {
    return 0;
  }
  first = one;
  second = two;
  return 1;
}

}  // namespace qora::tools
