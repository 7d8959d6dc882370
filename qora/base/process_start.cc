// SPDX-License-Identifier: BSD-2-Clause
#include <unistd.h>

#include <cassert>
#include <cerrno>

#include "qora/base/mutex.h"
#include "qora/base/process.h"
#include "qora/base/process_report.h"

namespace qora::process {
namespace {

// Makes `from` the descriptor `role` too. 1, or 0 when the role keeps what it has.
int32_t redirect(int32_t from, int32_t role) {
  if (from == role || from == -1) return 0;
  ::dup2(from, role);
  return 1;
}

// A descriptor with several roles is closed once, after its last one. The marks are where a role is
// served from by now, so that none is closed that way.
void redirectStandardDescriptors(int32_t input, int32_t output, int32_t error) {
  int32_t inputMark = input;
  if (redirect(input, STDIN_FILENO) == 1) {
    if (input != output && input != error) ::close(input);
    inputMark = STDIN_FILENO;
  }
  int32_t outputMark = output;
  if (redirect(output, STDOUT_FILENO) == 1) {
    if (output != inputMark && output != error) ::close(output);
    outputMark = STDOUT_FILENO;
  }
  if (redirect(error, STDERR_FILENO) == 1) {
    if (error != inputMark && error != outputMark) ::close(error);
  }
}

void dropPrivileges() {
  // The real ids are always permitted, so there is no failure to act on.
  static_cast<void>(setGroupId(::getgid()));
  static_cast<void>(setUserId(::getuid()));
}

}  // namespace

pid_t forkProcess() {
  pthread_mutex_lock(&loggerMutex());
  pid_t child;
  do {
    child = ::fork();
  } while (child == -1 && errno == EINTR);
  if (child == 0) {
    // Reset, not unlocked: to the C library its owner is a thread of the parent.
    mutex::resetMutex(&loggerMutex());
    return 0;
  }
  pthread_mutex_unlock(&loggerMutex());
  return child;
}

int32_t execProgram(const char* path, int32_t /*count*/, const char* const arguments[],
                    const char* const environment[]) {
  assert(path != nullptr && arguments != nullptr);
  // The exec calls change no text; their declarations are older than const.
  char* const* argv = const_cast<char* const*>(arguments);
  if (environment != nullptr) {
    ::execve(path, argv, const_cast<char* const*>(environment));
    return failed(kStartWarning, "Function execve() for '", path, "' failed.");
  }
  ::execvp(path, argv);
  return failed(kStartWarning, "Function execvp() for '", path, "' failed.");
}

pid_t createProcess(const void* /*unused*/, const char* const program[],
                    const char* const environment[], int32_t input, int32_t output, int32_t error,
                    int32_t priority, int32_t keepPrivileges) {
  assert(program != nullptr);
  int32_t entries = 0;
  while (program[entries] != nullptr) ++entries;
  if (entries < 2) {
    logStream() << "Process: WARNING! Invalid number of parameters in process creation.\n";
    errno = EINVAL;
    return -1;
  }
  const pid_t child = forkProcess();
  if (child == -1) return failed(kStartWarning, "Function fork() failed.");
  if (child != 0) return child;

  logger().mode = 0;  // what the child reports must not reach the parent's streams
  if (keepPrivileges == 0) dropPrivileges();
  redirectStandardDescriptors(input, output, error);
  setPriority(priority);
  execProgram(program[0], entries - 1, program + 1, environment);
  endProcess(errno);
}

int32_t detachFromTerminal() {
  const int keepDirectory = 1;
  const int keepDescriptors = 1;
  if (::daemon(keepDirectory, keepDescriptors) == 0) return 1;
  KeepErrno keep;
  logStream() << "Process: WARNING! Detach from terminal failed.\n";
  // "Provess" is how this line has always been written: what filters our logs looks for it.
  logStream() << "Provess: WARNING! Error is " << keep.value << " '" << errorText(keep.value)
              << "'.\n";
  return -1;
}

void endProcess(int32_t status) {
  ::_exit(status);
}

}  // namespace qora::process
