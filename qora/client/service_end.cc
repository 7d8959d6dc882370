#include "qora/client/service_end.h"

#include <sys/wait.h>

#include <cstring>

#include "qora/base/error_text.h"

namespace qora::client {
namespace {

// What the service's own statuses mean; any other one is an errno and speaks for itself.
struct StatusWords {
  int32_t status;
  const char* words;
};
constexpr StatusWords kStatusWords[] = {
    {0, "orderly end"},           {2, "service program or encoder library not found"},
    {5, "input or output error"}, {12, "out of memory"},
    {22, "malformed message"},    {32, "reply channel closed"},
    {42, "unknown command"},
};

const char* wordsOf(int32_t status) {
  for (const StatusWords& entry : kStatusWords) {
    if (entry.status == status) return entry.words;
  }
  return orNil(errorText(status));
}

}  // namespace

std::string describeServiceEnd(int32_t waitStatus) {
  if (WIFSIGNALED(waitStatus)) {
    const int32_t signal = WTERMSIG(waitStatus);
    const char* name = ::sigabbrev_np(signal);
    return "service ended by signal " + std::to_string(signal) +
           (name != nullptr ? " (SIG" + std::string(name) + ")" : "");
  }
  const int32_t status = WEXITSTATUS(waitStatus);
  return "service ended with status " + std::to_string(status) + ": " + wordsOf(status);
}

}  // namespace qora::client
