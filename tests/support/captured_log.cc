#include "tests/support/captured_log.h"

#include <iostream>
#include <regex>

namespace qora::test {

CapturedLog::CapturedLog() : previous_(std::clog.rdbuf(&buffer_)) {}

CapturedLog::~CapturedLog() {
  std::clog.rdbuf(previous_);
  std::clog.clear();  // a null string may have left badbit behind
}

std::string CapturedLog::withoutPrefixes() const {
  return stripTimePrefixes(buffer_.str());
}

std::string stripTimePrefixes(const std::string& text) {
  static const std::regex prefix(R"(\d+ \d+ \d\d:\d\d:\d\d \d{3}\.\d{3} )");
  std::string out;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    out += std::regex_replace(line, prefix, "", std::regex_constants::format_first_only);
    if (!lines.eof()) out += '\n';
  }
  return out;
}

}  // namespace qora::test
