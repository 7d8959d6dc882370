// SPDX-License-Identifier: BSD-2-Clause
// tests/support/captured_log.h -- Catches what is written to std::clog while it lives.
#pragma once

#include <iostream>
#include <regex>
#include <sstream>
#include <string>

namespace qora::test {

// `text` with every "<process id> <thread id> <HH:MM:SS mmm.mmm> " at a line's start replaced;
// `who` is a pattern for the two ids.
inline std::string replaceTimePrefixes(const std::string& text, const std::string& by,
                                       const std::string& who = "\\d+ \\d+") {
  const std::regex prefix("^" + who + R"( \d\d:\d\d:\d\d \d{3}\.\d{3} )", std::regex::multiline);
  return std::regex_replace(text, prefix, by);
}

class CapturedLog {
 public:
  CapturedLog() : previous_(std::clog.rdbuf(&buffer_)) {}
  ~CapturedLog() {
    std::clog.rdbuf(previous_);
    std::clog.clear();  // a null string may have left badbit behind
  }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  // All that was written so far, without time prefixes.
  std::string withoutPrefixes() const { return replaceTimePrefixes(buffer_.str(), ""); }
  // The same with them, and begins anew.
  std::string take() {
    std::string text = buffer_.str();
    buffer_.str("");
    return text;
  }

 private:
  std::stringbuf buffer_;
  std::streambuf* previous_;
};

}  // namespace qora::test
