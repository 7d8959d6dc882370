// tests/support/captured_log.h -- Catches what is written to std::clog while it lives.
#pragma once

#include <sstream>
#include <streambuf>
#include <string>

namespace qora::test {

// `text` with every "<process id> <thread id> <HH:MM:SS mmm.mmm> " at a line's start replaced;
// `who` is a pattern for the two ids.
std::string replaceTimePrefixes(const std::string& text, const std::string& by,
                                const std::string& who = "\\d+ \\d+");

class CapturedLog {
 public:
  CapturedLog();
  ~CapturedLog();
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  // All that was written so far, without time prefixes.
  std::string withoutPrefixes() const { return replaceTimePrefixes(buffer_.str(), ""); }
  // The same with them, and begins anew.
  std::string take();

 private:
  std::stringbuf buffer_;
  std::streambuf* previous_;
};

}  // namespace qora::test
