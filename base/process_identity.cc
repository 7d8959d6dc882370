#include <unistd.h>

#include "base/keep_errno.h"
#include "base/logger.h"
#include "base/process.h"

namespace qora::process {
namespace {

// The second line of a failure; identity failures have it with a comma and without quotes.
void logError(int32_t error) {
  logStream() << "Process: ERROR! Error is " << error << ", " << errorText(error) << ".\n";
}

}  // namespace

int32_t setUserId(uid_t user) {
  if (::setuid(user) == 0) return 1;
  KeepErrno keep;
  logStream() << "Process: ERROR! Can't set user id to " << user << ".\n";
  logError(keep.value);
  return -1;
}

int32_t setGroupId(gid_t group) {
  if (::setgid(group) == 0) return 1;
  KeepErrno keep;
  logStream() << "Process: ERROR! Can't set group id to " << group << ".\n";
  logError(keep.value);
  return -1;
}

}  // namespace qora::process
