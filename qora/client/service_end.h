// SPDX-License-Identifier: BSD-2-Clause
// qora/client/service_end.h -- How the service ended, in words for a person.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

namespace qora::client {

struct ServiceEnd {
  int32_t waitStatus;  // as waitpid(2) gives it
  bool inputClosed;    // by the parent, before the service ended
  bool hadCommands;    // the parent had sent some
};

// "ended with status 0: orderly end", "ended by signal 9 (SIGKILL)",
// "ended with status 22: it refused a command", "ended with status 2: it cannot load its encoder
// library". The status of a refused command is errno as it stood, which may be 0, 2 or anything, so
// it is not put into words. Without log lines the two cannot always be told apart; the text then
// names both. With them it ends in "; its last line: ..." unless the end was orderly.
std::string describeServiceEnd(const ServiceEnd& end, const std::deque<std::string>& log);

// "; its last line: ..."; empty without lines.
std::string lastLine(const std::deque<std::string>& log);

}  // namespace qora::client
