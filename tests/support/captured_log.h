// tests/support/captured_log.h -- Catches what is written to std::clog while it lives.
#pragma once

#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

namespace qora::test {

class CapturedLog {
 public:
  CapturedLog();
  ~CapturedLog();
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  // All that was written so far, as it is, and the same line by line behind each time prefix.
  std::string text() const { return buffer_.str(); }
  std::string withoutPrefixes() const;
  // The same as text(), which begins anew.
  std::string take();

 private:
  std::stringbuf buffer_;
  std::streambuf* previous_;
};

// `text` with every "<process id> <thread id> <HH:MM:SS mmm.mmm> " at a line's start taken away.
std::string stripTimePrefixes(const std::string& text);

}  // namespace qora::test
