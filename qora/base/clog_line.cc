// SPDX-License-Identifier: BSD-2-Clause
#include "qora/base/clog_line.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cassert>
#include <cstdio>
#include <ctime>
#include <iostream>

#include "qora/base/keep_errno.h"

namespace qora {

void formatClock(const timeval& time, char* text, size_t size) {
  assert(text != nullptr && size > 0);
  tm local{};
  localtime_r(&time.tv_sec, &local);
  snprintf(text, size, "%02d:%02d:%02d %07.3f", local.tm_hour, local.tm_min, local.tm_sec,
           static_cast<double>(time.tv_usec) * 0.001);
}

std::ostream& writeTimePrefix(std::ostream& stream) {
  const KeepErrno keep;
  timeval now;
  gettimeofday(&now, nullptr);
  char clock[32];
  formatClock(now, clock, sizeof clock);
  char prefix[128];
  snprintf(prefix, sizeof prefix, "%d %d %s ", static_cast<int>(getpid()),
           static_cast<int>(syscall(SYS_gettid)), clock);
  return stream << prefix;
}

std::ostream& standardErrorPlain() {
  const KeepErrno keep;
  return std::clog.flush();
}

std::ostream& standardErrorLog() {
  return writeTimePrefix(standardErrorPlain());
}

std::ostream& standardErrorError() {
  return standardErrorLog() << "Error: ";
}

}  // namespace qora
