// SPDX-License-Identifier: BSD-2-Clause
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cassert>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "qora/base/process.h"
#include "qora/base/process_report.h"
#include "qora/base/signal.h"

namespace qora::process {
namespace {

struct PriorityClass {
  int32_t value;
  int32_t niceness;
};

constexpr PriorityClass kPriorityClasses[] = {
    {kLowestPriority, 19}, {kNormalPriority, 0}, {kHighPriority, -10}, {kHighestPriority, -20}};

constexpr int32_t kKilledExitCode = 4;
constexpr const char* kLoopbackNames[] = {"localhost", "localhost.localdomain", "127.0.0.1"};
constexpr const char* kTemporaryVariables[] = {"TEMP", "TMP"};

}  // namespace

void killSelf() {
  ::kill(::getpid(), SIGKILL);
  for (;;) ::sleep(1);
}

int32_t isProcessAlive(pid_t process) {
  if (::kill(process, 0) == 0) return 1;
  if (errno == ESRCH) return 0;
  return failed(kStatusError, "Can't signal the pid ", process, ".");
}

int32_t isAlive(pid_t process) {
  return isProcessAlive(process);
}

int32_t exitedNormally(int32_t status) {
  return WIFEXITED(status);
}
int32_t exitStatus(int32_t status) {
  return WEXITSTATUS(status);
}

int32_t killedBySignal(int32_t status) {
  return WIFSIGNALED(status);
}
int32_t terminationSignal(int32_t status) {
  return WTERMSIG(status);
}
const char* terminationSignalName(int32_t status) {
  return signal::signalName(terminationSignal(status));
}

int32_t stoppedBySignal(int32_t status) {
  return WIFSTOPPED(status);
}
int32_t stopSignal(int32_t status) {
  return WSTOPSIG(status);
}
const char* stopSignalName(int32_t status) {
  return signal::signalName(stopSignal(status));
}

int32_t exitCode(int32_t status) {
  if (exitedNormally(status) == 1) return exitStatus(status);
  if (killedBySignal(status) == 1) return kKilledExitCode;
  KeepErrno keep;
  logStream() << "Process: WARNING! Unrecognized exit code '" << status << "'.\n";
  return status;
}

int32_t mapPriority(int32_t value) {
  for (const PriorityClass& row : kPriorityClasses) {
    if (row.value == value) return row.niceness;
  }
  return value;
}

int32_t setPriority(int32_t value) {
  const int32_t niceness = mapPriority(value);
  if (::setpriority(PRIO_PROCESS, 0, niceness) == 0) return 1;
  return failed(kStatusError, "Can't set priority to ", niceness, ".");
}

int32_t changePriority(int32_t increment) {
  errno = 0;
  // A negative result may be the new niceness; errno alone sets that apart from a failure.
  if (::nice(increment) >= 0 || errno == 0) return 1;
  return failed(kStatusError, "Can't change priority by ", increment, ".");
}

const char* defaultHostName() {
  return kLoopbackNames[0];
}

const char* hostName() {
  const char* name = ::getenv("HOSTNAME");
  return name != nullptr ? name : defaultHostName();
}

int32_t isLocalHostName(const char* name) {
  assert(name != nullptr);
  for (const char* loopback : kLoopbackNames) {
    if (strcmp(name, loopback) == 0) return 1;
  }
  return 0;
}

const char* temporaryDirectory() {
  for (const char* variable : kTemporaryVariables) {
    const char* directory = ::getenv(variable);
    if (directory != nullptr && directory[0] != '\0') return directory;
  }
  return "/tmp";
}

char* temporaryName(const char* directory, const char* prefix) {
  timeval now;
  ::gettimeofday(&now, nullptr);
  // Nothing else makes the name unique; that is enough for the names of one thread.
  const auto number = static_cast<unsigned long>(::syscall(SYS_gettid) * now.tv_usec);
  char base[1024];
  snprintf(base, sizeof base, "%s%lu", prefix != nullptr ? prefix : "T-", number);

  if (directory == nullptr) directory = temporaryDirectory();
  const char* separator = "/";
  if (directory[0] == '\0') {
    logStream() << "Process: WARNING! Returning temporary name in current directory.\n";
    separator = "";
  }
  const size_t size = strlen(directory) + strlen(separator) + strlen(base) + 1;
  char* name = static_cast<char*>(malloc(size));
  if (name == nullptr) {
    failed(kStatusError, "Can't create temporary name.");
    return nullptr;
  }
  snprintf(name, size, "%s%s%s", directory, separator, base);
  return name;
}

}  // namespace qora::process
