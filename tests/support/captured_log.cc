#include "tests/support/captured_log.h"

#include <iostream>
#include <regex>

namespace qora::test {

CapturedLog::CapturedLog() : previous_(std::clog.rdbuf(&buffer_)) {}

CapturedLog::~CapturedLog() {
  std::clog.rdbuf(previous_);
  std::clog.clear();  // a null string may have left badbit behind
}

std::string CapturedLog::take() {
  std::string text = buffer_.str();
  buffer_.str("");
  return text;
}

std::string replaceTimePrefixes(const std::string& text, const std::string& by,
                                const std::string& who) {
  const std::regex prefix("^" + who + R"( \d\d:\d\d:\d\d \d{3}\.\d{3} )", std::regex::multiline);
  return std::regex_replace(text, prefix, by);
}

}  // namespace qora::test
