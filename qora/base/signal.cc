// SPDX-License-Identifier: BSD-2-Clause
#include "qora/base/signal.h"

#include <iterator>

#include "qora/base/error_text.h"
#include "qora/base/keep_errno.h"
#include "qora/base/logger.h"

namespace qora::signal {
namespace {

constexpr const char* kUnnamed = "None";

// By number. The unnamed ones (5, 7, 16, 23, 24, 25, 27, 30, 31) stay "None": what filters our logs
// knows them so.
constexpr const char* kSignalNames[] = {
    kUnnamed, "SIGHUP",  "SIGINT",    "SIGQUIT", "SIGILL",   kUnnamed,  "SIGABRT", kUnnamed,
    "SIGFPE", "SIGKILL", "SIGUSR1",   "SIGSEGV", "SIGUSR2",  "SIGPIPE", "SIGALRM", "SIGTERM",
    kUnnamed, "SIGCHLD", "SIGCONT",   "SIGSTOP", "SIGTSTP",  "SIGTTIN", "SIGTTOU", kUnnamed,
    kUnnamed, kUnnamed,  "SIGVTALRM", kUnnamed,  "SIGWINCH", "SIGPOLL", kUnnamed,  kUnnamed,
};
static_assert(std::size(kSignalNames) == 32);

// The errno of this moment, also where the call returns its error number and leaves errno alone.
void reportFailure(const char* text) {
  const KeepErrno keep;
  logStream() << "Signal: ERROR! " << text << ". Error is " << keep.value << " '"
              << errorText(keep.value) << "'.\n";
}

}  // namespace

int32_t setSignalMask(int32_t how, const sigset_t* newSet, sigset_t* oldSet) {
  const int32_t result = pthread_sigmask(how, newSet, oldSet);
  if (result != 0) reportFailure("Function pthread_sigmask failed");
  return result;
}

int32_t setSignalAction(int32_t number, const struct sigaction* action, struct sigaction* old) {
  const int32_t result = ::sigaction(number, action, old);
  if (result == -1) reportFailure("Call to sigaction failed");
  return result;
}

int32_t setIntervalTimer(int32_t which, const itimerval* value, itimerval* old) {
  const int32_t result = ::setitimer(which, value, old);
  if (result == -1) reportFailure("Call to setitimer failed");
  return result;
}

Handler setSignalHandler(int32_t number, Handler handler) {
  const Handler previous = ::signal(number, handler);
  if (previous != SIG_ERR) return previous;
  reportFailure("Call to signal failed");
  return nullptr;
}

void clearSignalAction(struct sigaction& action) {
  action = {};
}

void clearIntervalTimer(itimerval& timer) {
  timer = {};
}

const char* signalName(int32_t number) {
  const auto index = static_cast<uint32_t>(number);
  return index < std::size(kSignalNames) ? kSignalNames[index] : kUnnamed;
}

const char* handlerName(Handler handler) {
  if (handler == SIG_DFL) return "SIG_DFL";
  return handler == SIG_IGN ? "SIG_IGN" : "User defined";
}

void dumpSignalSet(const sigset_t& set, const char* label, Logger* logger) {
  if (label == nullptr) label = "Signal";
  if (logger == nullptr) logger = &qora::logger();
  for (int32_t number = 0; number < int32_t{std::size(kSignalNames)}; ++number) {
    const char* const name = kSignalNames[number];
    if (name == kUnnamed) continue;
    logger->logStream() << label << "/Signal: " << number << ", " << name << "\t";
    logger->plainLogStream() << (sigismember(&set, number) == 1 ? "Yes\n" : "No\n");
  }
}

}  // namespace qora::signal
