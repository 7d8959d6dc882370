// SPDX-License-Identifier: BSD-2-Clause
// Error texts, error reports, mutexes, libraries, signals.
#include <link.h>
#include <pthread.h>

#include <algorithm>
#include <set>
#include <thread>

#include "qora/base/error_reports.h"
#include "qora/base/error_text.h"
#include "qora/base/library.h"
#include "qora/base/logger.h"
#include "qora/base/mutex.h"
#include "qora/base/signal.h"
#include "tests/base/calls.h"

namespace qora {
namespace {

using test::Script;

TEST(ErrorText, NamesWhatItsTableHas) {
  const std::set<int> named = {42, 52, 56, 57, 70, 71, 74, 84, 88, 98, 99, 103, 104, 106, 110, 111, 115};
  for (int error = 1; error < 140; ++error) {
    if (error == ENOTSUP) continue;
    const bool known = error < 40 ? error != 15 && error != 26 : named.count(error) == 1;
    EXPECT_STREQ(errorName(error), known ? strerrorname_np(error) : "Unknown") << error;
  }
  GIVES("Success", errorName(0));
  GIVES("Unknown", errorName(-1));
  GIVES("ENOTSUP", errorName(ENOTSUP));
  GIVES("EIO EIO", (errno = EIO, lastErrorName()));
  GIVES("No error", errorText(0));
  GIVES("Input/output error EIO", (errno = EIO, lastErrorText()));
  GIVES("nil", orNil(nullptr));
}

TEST(ErrorReports, WriteTwoLinesAndSetErrno) {
  const auto lines = [](const char* error, std::string text, const char* value = "") {
    text += std::string(" in method 'File::open()' context [flags]") + value + ".\n";
    return std::string(" ") + error + "\n| File: ERROR! " + text + "Error: " + text;
  };
  const void* const p = reinterpret_cast<void*>(0x1f0);
  // clang-format off
  GIVES(lines("EINVAL", "Bad value '-7'"), reportBadValue("File", -7, "open", "flags"));
  GIVES(lines("EINVAL", "Bad value '0x1f0'"), reportBadValue("File", p, "open", "flags"));
  GIVES(lines("EINVAL", "Bad value 'x'"), reportBadValue("File", "x", "open", "flags"));
  GIVES(lines("EINVAL", "Bad value '9' for type '3'"), reportBadValueForType("File", 3, 9, "open", "flags"));
  GIVES(lines("EINVAL", "Bad pointer '0x1f0'"), reportBadPointer("File", p, "open", "flags"));
  GIVES(lines("EPERM", "Operation not permitted"), reportNotPermitted("File", "open", "flags"));
  GIVES(lines("ENOSYS", "Not implemented"), reportNotImplemented("File", "open", "flags"));
  GIVES(lines("ENOSYS", "Not implemented", " value '-1'"), reportNotImplemented("File", -1, "open", "flags"));
  GIVES(lines("ENOSYS", "Not implemented", " value '0x1f0'"), reportNotImplemented("File", p, "open", "flags"));
  GIVES(lines("ENOMEM", "Memory allocation failed"), reportAllocationFailed("File", "open", "flags"));
  GIVES(lines("EACCES", "Invalid state for object"), reportInvalidState("File", "open", "flags"));
  GIVES(lines("EBADF", "Bad descriptor state"), reportBadDescriptorState("File", "open", "flags"));
  GIVES(lines("ENXIO", "Buffer not found"), reportBufferNotFound("File", "open", "flags"));
  GIVES(lines("EDEADLK", "Invalid buffer owner"), reportInvalidBufferOwner("File", "open", "flags"));
  GIVES(lines("EBADE", "Bad event 'x'"), reportBadEvent("File", "x", "open", "flags"));
  GIVES(lines("EOPNOTSUPP", "Invalid operation for type 'x'"), reportInvalidOperationForType("File", "x", "open", "flags"));
  GIVES(lines("EPROTO", "Invalid operation for proto 'x'"), reportInvalidOperationForProto("File", "x", "open", "flags"));
  // clang-format on
  // A null text makes the stream bad, which swallows the rest.
  GIVES(" EACCES\n| File: ERROR! Invalid state for object in method 'File::open()' context [",
      reportInvalidState("File", "open", nullptr));
}

TEST(Mutex, IsRecursiveAfterInitAndReset) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  const auto lockElsewhere = [&](int32_t timeout) {
    int32_t result = -1;
    std::thread([&] {
      result = mutex::lockMutexTimed(&mutex, timeout);
      if (result == 1) pthread_mutex_unlock(&mutex);
    }).join();
    return result;
  };
  for (const auto make : {mutex::initMutex, mutex::resetMutex}) {
    make(&mutex);
    EXPECT_EQ(mutex::lockMutexTimed(&mutex, 0) + mutex::lockMutexTimed(&mutex, -5), 2);
    pthread_mutex_unlock(&mutex);
    EXPECT_EQ(lockElsewhere(0) + lockElsewhere(20), 0);
    std::thread spinning([&] { mutex::lockMutexSpinning(&mutex), pthread_mutex_unlock(&mutex); });
    pthread_mutex_unlock(&mutex);
    spinning.join();
    EXPECT_EQ(lockElsewhere(0), 1);
    mutex::destroyMutex(&mutex);
  }
}

TEST(Mutex, DeadlineIsTheClockAndTheTimeout) {
  const int64_t rows[][3] = {{5000000007, 0, 5000000007}, {5000000007, -1, 5000000007}, {5000000000, 1500, 6500000000},
      {5999999999, 1, 6000999999}, {5001000000, 999, 6000000000}, {5999999999, 999, 6998999999},
      {5000000000, INT32_MAX, 2147488647000000}};
  for (const auto& [now, timeout, deadline] : rows) {
    Script script({{"clock_gettime", now}, {"pthread_mutex_timedlock", 0}});
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    EXPECT_EQ(mutex::lockMutexTimed(&mutex, static_cast<int32_t>(timeout)), 1);
    EXPECT_EQ(script.deadline, deadline) << now << " + " << timeout;
  }
}

TEST(Mutex, FailuresAreNoLock) {
  pthread_mutex_t checked = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
  GIVES("1", mutex::lockMutexTimed(&checked, 20));
  GIVES("0", mutex::lockMutexTimed(&checked, 20));  // EDEADLK, not a timeout
  const Script script({{"pthread_mutexattr_settype", ENOMEM}, {"pthread_mutexattr_settype", ENOMEM}});
  GIVES("\n| Mutex: ERROR! Failed to initialize the mutex.\n| Failed to initialize the mutex.\n",
      mutex::initMutex(&checked));
  GIVES("\n| Mutex: ERROR! Failed to reset the mutex.\n| Failed to reset the mutex.\n", mutex::resetMutex(&checked));
  GIVES("0", pthread_mutex_unlock(&checked));  // it is what it was
}

TEST(Library, ReportsWhatTheLoaderRefuses) {
  void* const libc = library::open("libc.so.6");
  const std::string name = static_cast<link_map*>(libc)->l_name, warning = "| Library: WARNING! ";
  std::ostringstream handle;
  handle << libc;
  GIVES("not null", library::resolve(libc, "getpid"));
  GIVES("null ENOENT", library::open("/nowhere"));
  GIVES("null ENOENT", library::open("/proc/self/maps"));
  GIVES("null EINVAL\n| Library: ERROR! Invalid libary path 'nil'.\n", library::open(nullptr));
  GIVES("null ENOMSG\n" + warning + "Could not resolve symbol 'no_such'.\n" + warning + "Error is '" + name +
            ": undefined symbol: no_such'\n",
      library::resolve(libc, "no_such"));
  GIVES("0", library::close(libc));
  GIVES("-1 ENOMSG\n" + warning + "Could not close library " + handle.str() + ".\n" + warning + "Error is '" + name +
            ": shared object not open'.\n",
      library::close(libc));  // once too many
}

TEST(Signal, NamesAndSets) {
  const std::set<int> unnamed = {0, 5, 7, 16, 23, 24, 25, 27, 30, 31, 32, -1};
  Logger own;
  sigset_t set = {};
  ::sigaddset(&set, SIGPOLL);
  std::string lines;
  for (int number = -1; number < 33; ++number) {
    const bool named = unnamed.count(number) == 0;
    const std::string name = named ? std::string("SIG") + sigabbrev_np(number) : "None";
    GIVES(name, signal::signalName(number));
    if (!named) continue;
    lines += "\n| Main/Signal: " + std::to_string(number) + ", " + name + "\t";
    lines += number == SIGPOLL ? "Yes" : "No";
  }
  GIVES(lines + "\n", signal::dumpSignalSet(set, "Main", &own));
  GIVES(std::regex_replace(lines, std::regex("Main"), "Signal") + "\n", signal::dumpSignalSet(set, nullptr, nullptr));
  GIVES("", (own.mode = 0, signal::dumpSignalSet(set, "Main", &own)));
}

void handler(int) {}

TEST(Signal, CallsAndTheirFailures) {
  using namespace signal;
  sigset_t set = {}, old = {};
  struct sigaction action;
  itimerval timer;
  memset(&action, 0xA5, sizeof action);
  memset(&timer, 0xA5, sizeof timer);
  clearSignalAction(action);
  clearIntervalTimer(timer);
  ::sigaddset(&set, SIGUSR1);
  EXPECT_EQ(setSignalMask(SIG_BLOCK, &set, nullptr) + setSignalMask(SIG_UNBLOCK, &set, &old), 0);
  EXPECT_EQ(::sigismember(&old, SIGUSR1), 1);
  EXPECT_EQ(setSignalAction(SIGUSR1, &action, nullptr), 0);
  EXPECT_EQ(setIntervalTimer(ITIMER_REAL, &timer, nullptr), 0);
  GIVES("SIG_DFL", handlerName(setSignalHandler(SIGUSR1, handler)));
  GIVES("User defined", handlerName(setSignalHandler(SIGUSR1, SIG_IGN)));
  GIVES("SIG_IGN", handlerName(setSignalHandler(SIGUSR1, SIG_DFL)));
  const std::string invalid = " failed. Error is 22 'Invalid argument'.\n";
  // The number comes back; the line shows errno, which that call leaves alone.
  GIVES("22\n| Signal: ERROR! Function pthread_sigmask failed. Error is 0 'No error'.\n",
      setSignalMask(99, &set, nullptr));
  GIVES("-1 EINVAL\n| Signal: ERROR! Call to sigaction" + invalid, setSignalAction(SIGKILL, &action, nullptr));
  GIVES("-1 EINVAL\n| Signal: ERROR! Call to setitimer" + invalid, setIntervalTimer(99, &timer, nullptr));
  GIVES("SIG_DFL EINVAL\n| Signal: ERROR! Call to signal" + invalid, handlerName(setSignalHandler(SIGKILL, handler)));
}

}  // namespace
}  // namespace qora
