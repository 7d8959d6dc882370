// tests/base/operations.h -- What the transcripts of base/ can call, and what its lists have in
// common.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/transcript.h"

namespace qora {

using test::Transcript;
using Text = const char*;
using Stream = std::ostream;

// One of an operation's forms, by its type.
template <typename Function>
using Form = Function*;

// An operation that gives its caller an array.
template <typename... Parameters>
auto owned(char* (*function)(Parameters...)) {
  return [function](Parameters... parameters) {
    return std::unique_ptr<char[]>(function(parameters...));
  };
}

// The words between the separators, null behind the last.
inline std::vector<Text> split(std::string& text, Text separators) {
  std::vector<Text> words;
  for (char* rest = text.data(); words.empty() || words.back() != nullptr; rest = nullptr) {
    words.push_back(strtok(rest, separators));
  }
  return words;
}

// Gives the descriptor a number that a transcript may show.
inline int32_t put(int32_t number, int32_t fd) {
  if (fd < 0) return fd;
  ::dup3(fd, number, ::fcntl(fd, F_GETFD) == FD_CLOEXEC ? O_CLOEXEC : 0);
  ::close(fd);
  return number;
}

inline auto putPair(int32_t (*create)(int32_t (&)[2], int32_t)) {
  return [create](int32_t& first, int32_t& second, int32_t size) {
    int32_t ends[2] = {-2, -2};
    const int32_t result = create(ends, size);
    first = put(64, ends[0]);
    second = put(65, ends[1]);
    return result;
  };
}

void addSockets(Transcript& told);
void addProcesses(Transcript& told);

}  // namespace qora
