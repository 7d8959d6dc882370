// tests/support/transcript.h -- Calls and what they gave, held against a file.
//
//     Transcript told("tests/base/file.transcript");
//     TELL(told, file::exists(nullptr, "/nowhere"));
//
// For each call the transcript has the expression, its result (with the name of errno when the
// result is -1 or null and errno was set), and behind "| " each line that reached the log. When the
// transcript ends it must equal the file; QORA_WRITE_TRANSCRIPTS=1 writes the file instead.
#pragma once

#include <cerrno>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/support/captured_log.h"

#define TELL(transcript, expression) (transcript).tell(#expression, [&] { return expression; })

namespace qora::test {

class Transcript {
 public:
  explicit Transcript(const char* file) : file_(file) {}
  ~Transcript();
  Transcript(const Transcript&) = delete;
  Transcript& operator=(const Transcript&) = delete;

  // From now on `text` reads `name`: for what differs from run to run.
  void hide(const std::string& text, const std::string& name) { hidden_.emplace_back(text, name); }
  void heading(const std::string& text) { text_ += "# " + text + "\n"; }

  template <typename Call>
  auto tell(const char* expression, Call call) {
    CapturedLog log;
    errno = 0;
    if constexpr (std::is_void_v<decltype(call())>) {
      call();
      write(expression, "", false, log.withoutPrefixes());
    } else {
      const auto result = call();
      const int error = errno;
      write(expression, textOf(result), error != 0 && isFailure(result), log.withoutPrefixes(),
            error);
      return result;
    }
  }

 private:
  static std::string textOf(const char* value) {
    return value == nullptr ? "null" : '"' + std::string(value) + '"';
  }
  static std::string textOf(const std::string& value) { return '"' + value + '"'; }
  template <typename Value>
  static std::string textOf(Value value) {
    if constexpr (std::is_pointer_v<Value>)
      return value == nullptr ? "null" : "not null";
    else
      return std::to_string(value);
  }
  template <typename Value>
  static bool isFailure(const Value& value) {
    if constexpr (std::is_pointer_v<Value>)
      return value == nullptr;
    else if constexpr (std::is_arithmetic_v<Value>)
      return value == static_cast<Value>(-1);
    else
      return false;
  }
  void write(const char* expression, const std::string& result, bool failed, const std::string& log,
             int error = 0);

  const std::string file_;
  std::vector<std::pair<std::string, std::string>> hidden_;
  std::string text_;
};

}  // namespace qora::test
