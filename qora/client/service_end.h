// qora/client/service_end.h -- How the service ended, in words for a person.
#pragma once

#include <cstdint>
#include <string>

namespace qora::client {

// `waitStatus` as waitpid(2) gives it. "service ended with status 22: malformed message", or
// "service ended by signal 9 (SIGKILL)".
std::string describeServiceEnd(int32_t waitStatus);

}  // namespace qora::client
