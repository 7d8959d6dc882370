// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/service_end.h"

#include <sys/wait.h>

#include <algorithm>
#include <cstring>

namespace qora::client {
namespace {

std::string signalName(int32_t signal) {
  const char* name = ::sigabbrev_np(signal);
  return name == nullptr ? "" : " (SIG" + std::string(name) + ")";
}

// What a service does that ends of its own accord.
const char* causeOf(const ServiceEnd& end, const std::deque<std::string>& log) {
  if (end.inputClosed && end.waitStatus == 0) return "orderly end";
  const auto isLoadingLine = [](const std::string& line) {
    return line.find("Can't load H.264 codec library.") != std::string::npos;
  };
  if (std::any_of(log.begin(), log.end(), isLoadingLine)) {
    return "it cannot load its encoder library";
  }
  if (!end.hadCommands) return "it cannot be run, or cannot load its encoder library";
  if (log.empty()) return "it refused a command, or cannot load its encoder library";
  return "it refused a command";
}

}  // namespace

std::string describeServiceEnd(const ServiceEnd& end, const std::deque<std::string>& log) {
  if (WIFSIGNALED(end.waitStatus)) {
    const int32_t signal = WTERMSIG(end.waitStatus);
    return "ended by signal " + std::to_string(signal) + signalName(signal) + lastLine(log);
  }
  const bool orderly = end.inputClosed && end.waitStatus == 0;
  return "ended with status " + std::to_string(WEXITSTATUS(end.waitStatus)) + ": " +
         causeOf(end, log) + (orderly ? "" : lastLine(log));
}

std::string lastLine(const std::deque<std::string>& log) {
  return log.empty() ? "" : "; its last line: " + log.back();
}

}  // namespace qora::client
