#include "tests/support/transcript.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

#include "base/logger.h"

namespace qora::test {

void Transcript::write(const char* expression, const std::string& result, bool failed,
                       const std::string& log, int error) {
  std::string entry = std::string(expression) + (result.empty() ? "" : " -> " + result) +
                      (failed ? std::string(" ") + errorName(error) : "") + "\n";
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);) entry += "| " + line + "\n";
  for (const auto& [text, name] : hidden_) {
    for (size_t at; (at = entry.find(text)) != std::string::npos;) {
      entry.replace(at, text.size(), name);
    }
  }
  text_ += entry;
}

Transcript::~Transcript() {
  const std::string path = QORA_SOURCE_DIR "/" + file_;
  if (getenv("QORA_WRITE_TRANSCRIPTS") != nullptr) {
    std::ofstream(path) << text_;
    return;
  }
  std::ifstream file(path);
  const std::string expected{std::istreambuf_iterator<char>(file), {}};
  EXPECT_EQ(text_, expected) << path;
}

}  // namespace qora::test
