// SPDX-License-Identifier: BSD-2-Clause
#include "qora/base/options.h"

#include <cassert>
#include <cstdio>
#include <cstring>

namespace qora::options {
namespace {

constexpr int32_t kEnd = -1;
constexpr int32_t kBad = '?';

OptionState processState;

bool isSilent(const char* letters) {
  return processState.printErrors == 0 || letters[0] == ':';
}

// Steps into the next argument, after its '-'. False when the options end here.
bool enterArgument(OptionState& state, int32_t count, char* const* arguments) {
  state.restart = 0;
  state.position = "";
  if (state.index >= count) return false;
  const char* const argument = arguments[state.index];
  if (argument[0] != '-') return false;
  if (strcmp(argument, "--") == 0) {
    ++state.index;
    return false;
  }
  state.position = argument + 1;
  return true;
}

// Takes the next character as the option. A lone "-" has none and is the option '-'.
void takeOption(OptionState& state) {
  state.option = *state.position != '\0' ? static_cast<uint8_t>(*state.position++) : '-';
}

int32_t rejectOption(OptionState& state, const char* program, const char* letters) {
  if (state.option == '-') return kEnd;
  if (*state.position == '\0') ++state.index;
  if (!isSilent(letters)) {
    fprintf(stderr, "%s: illegal option -- %c\n", program, state.option);
  }
  return kBad;
}

// Takes the argument of the option: the rest of this element, or the next one.
int32_t takeArgument(OptionState& state, int32_t count, char* const* arguments,
                     const char* letters) {
  if (*state.position != '\0') {
    state.argument = state.position;
  } else if (++state.index < count) {
    state.argument = arguments[state.index];
  } else {
    state.position = "";
    if (letters[0] == ':') return ':';
    if (!isSilent(letters)) {
      fprintf(stderr, "%s: option requires an argument -- %c\n", arguments[0], state.option);
    }
    return kBad;
  }
  state.position = "";
  ++state.index;
  return state.option;
}

}  // namespace

OptionState& optionState() {
  return processState;
}

void resetOptions() {
  processState.index = 1;
  processState.argument = nullptr;
  processState.restart = 1;
}

int32_t parseOption(int32_t count, char* const* arguments, const char* letters) {
  assert(arguments != nullptr);
  OptionState& state = processState;
  if (letters == nullptr) return kEnd;
  if (state.restart != 0 || *state.position == '\0') {
    if (!enterArgument(state, count, arguments)) return kEnd;
  }
  takeOption(state);
  const char* const known = state.option != ':' ? strchr(letters, state.option) : nullptr;
  if (known == nullptr) return rejectOption(state, arguments[0], letters);
  if (known[1] == ':') return takeArgument(state, count, arguments, letters);
  state.argument = nullptr;
  if (*state.position == '\0') ++state.index;
  return state.option;
}

}  // namespace qora::options
