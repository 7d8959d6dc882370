#include <sys/resource.h>

#include "base/keep_errno.h"
#include "base/logger.h"
#include "base/process.h"

namespace qora::process {
namespace {

struct PriorityClass {
  int32_t value;
  int32_t niceness;
};

constexpr PriorityClass kPriorityClasses[] = {
    {kLowestPriority, 19}, {kNormalPriority, 0}, {kHighPriority, -10}, {kHighestPriority, -20}};

// The second line of a failure.
void logError(int32_t error) {
  logStream() << "Process: ERROR! Error is " << error << " '" << errorText(error) << "'.\n";
}

}  // namespace

int32_t mapPriority(int32_t value) {
  for (const PriorityClass& row : kPriorityClasses) {
    if (row.value == value) return row.niceness;
  }
  return value;
}

int32_t setPriority(int32_t value) {
  const int32_t niceness = mapPriority(value);
  if (::setpriority(PRIO_PROCESS, 0, niceness) == 0) return 1;
  KeepErrno keep;
  logStream() << "Process: ERROR! Can't set priority to " << niceness << ".\n";
  logError(keep.value);
  return -1;
}

}  // namespace qora::process
