// tests/fuzz/parameters_fuzzer.cc -- Parameter text: what is escaped is valid and comes back, items
// are found where a plain search finds them, numbers are those of the digits.

#include <algorithm>
#include <cstring>

#include "qora/base/process_parameters.h"
#include "qora/base/string.h"
#include "tests/fuzz/fuzz.h"

namespace {

using namespace qora;
using fuzz::require;

int32_t digits(const std::string& text) {
  int64_t value = -1;
  for (const char digit : text) {
    if (digit < '0' || digit > '9') break;
    value = std::min<int64_t>(std::max<int64_t>(value, 0) * 10 + (digit - '0'), int64_t{1} << 40);
  }
  return value > INT32_MAX ? -1 : static_cast<int32_t>(value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  const auto limit = static_cast<int32_t>(in.number());
  const std::string key = in.text();
  const std::string value = in.text();

  const bool hasCode = value.find_first_of("\x1D\x1E\x1F") != std::string::npos;
  std::string escaped = value;
  process::escapeParameter(escaped.data());
  require(process::isValidParameterText(escaped.c_str(), -1) == 1, "escaped, but not valid");
  require(escaped.find_first_of(",= ") == std::string::npos, "something is not escaped");
  process::unescapeParameter(escaped.data());
  require(hasCode || escaped == value, "it does not come back");

  const auto fits = [](const std::string& text, int32_t bound) {
    const int64_t most = bound == 0 ? 1024 : bound;
    return text.find_first_of("=,") == std::string::npos &&
           (bound == -1 || static_cast<int64_t>(text.size()) < most);
  };
  require(process::isValidParameter(key.c_str(), value.c_str(), limit) ==
              (fits(key, 0) && fits(value, limit) ? 1 : -1),
          "valid or not");
  require(
      process::isItem(value.c_str(), key.c_str()) ==
          (key.find(',') == std::string::npos && value.substr(0, value.find(',')) == key ? 1 : 0),
      "the item at the front");
  require(process::parseCount(value.c_str()) == digits(value), "the number at the front");

  char* slot = string::assign(value.c_str());
  const std::string replacement = in.text();
  const bool replaces = !key.empty() && !replacement.empty() && value.starts_with(key);
  require(
      process::replaceParameterPrefix(slot, key.c_str(), replacement.c_str()) == (replaces ? 1 : 0),
      "whether a prefix is replaced");
  require(slot == (replaces ? replacement + value.substr(key.size()) : value), "the new prefix");
  string::release(slot);
  return 0;
}
