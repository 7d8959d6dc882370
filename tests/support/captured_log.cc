#include "tests/support/captured_log.h"

#include <cstdio>
#include <iostream>

namespace qora::test {

CapturedLog::CapturedLog() : previous_(std::clog.rdbuf(&buffer_)) {}

CapturedLog::~CapturedLog() {
  std::clog.rdbuf(previous_);
  std::clog.clear();  // a null string may have left badbit behind
}

std::string CapturedLog::withoutPrefixes() const {
  return stripTimePrefixes(buffer_.str());
}

std::string CapturedLog::take() {
  std::string text = buffer_.str();
  buffer_.str("");
  return text;
}

std::string stripTimePrefixes(const std::string& text) {
  std::string out;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    int length = 0;  // stays 0 unless the whole prefix is there
    sscanf(line.c_str(), "%*d %*d %*2d:%*2d:%*2d %*3d.%*3d%n", &length);
    out += length > 0 ? line.substr(static_cast<size_t>(length) + 1) : line;
    if (!lines.eof()) out += '\n';
  }
  return out;
}

}  // namespace qora::test
