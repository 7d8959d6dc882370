// SPDX-License-Identifier: BSD-2-Clause
// tests/base/calls.h -- What a call gives, with the C library's answers on the way.
//     GIVES("-1 EBADF", file::setPipeSize(-1, 4096));
//     const Script script({{"kill", -1, EPERM}});
//     GIVES("-1 EPERM\n| Process: ERROR! Can't signal the pid 1.\n...", process::isAlive(1));
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <deque>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "tests/support/captured_log.h"

// Compares what outcome() says of the expression.
#define GIVES(expected, ...) EXPECT_EQ(test::outcome([&] { return __VA_ARGS__; }), expected)

namespace qora::test {

// What a function of the C library gives instead of being called: its result and errno, or h_errno
// of the resolver. scripted_calls.cc lists the functions.
struct Answer {
  std::string_view function;
  int64_t result;
  int error = 0;
};

// Gives its answers in their order; a function that is not the next one's is called. At the end
// every answer must have been taken.
class Script {
 public:
  explicit Script(const std::vector<Answer>& answers) : answers_(answers.begin(), answers.end()) { current = this; }
  ~Script() {
    current = nullptr;
    EXPECT_TRUE(answers_.empty()) << answers_.front().function << " was not called";
  }
  // True: `answer` is what to give, errno is set already. False: make the call.
  static bool next(std::string_view function, Answer& answer);

  static Script* current;
  std::string written;    // what write took
  int64_t deadline = -1;  // of the timed lock, in nanoseconds; -1: none that is valid

 private:
  std::deque<Answer> answers_;
};

template <typename Result>
std::string textOf(const Result& result) {
  if constexpr (std::is_arithmetic_v<Result>) {
    return std::to_string(result);
  } else if constexpr (std::is_convertible_v<Result, std::string>) {
    if constexpr (std::is_pointer_v<Result>) return result != nullptr ? result : "null";
    return result;
  } else {
    return result != nullptr ? "not null" : "null";
  }
}

// The result and, if it was set, the name of errno; then, from the next line on, what was written
// to std::clog: after "| " the lines that begin with this thread's time prefix, all others as they
// are.
template <typename Call>
std::string outcome(const Call& call) {
  CapturedLog log;
  std::string text;
  errno = 0;
  if constexpr (std::is_void_v<std::invoke_result_t<Call>>) {
    call();
  } else {
    text = textOf(call());
  }
  if (const int error = errno; error != 0) text += std::string(" ") + strerrorname_np(error);
  const std::string self = std::to_string(::getpid()) + " " + std::to_string(::gettid());
  const std::string lines = replaceTimePrefixes(log.take(), "| ", self);
  return lines.empty() ? text : text + "\n" + lines;
}

// Where the body may change the whole process; its failures count here.
template <typename Body>
void inChild(const Body& body) {
  int status = -1;
  std::fflush(stdout);
  if (::fork() == 0) {
    body();
    std::fflush(stdout);
    ::_exit(testing::Test::HasFailure() ? 1 : 0);
  }
  ::wait(&status);
  EXPECT_EQ(status, 0);
}

inline std::string contents(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The text of an array that an operation gave away.
inline std::string take(char* array) {
  const std::unique_ptr<char[]> owner(array);
  return textOf(array);
}

}  // namespace qora::test
