#include "base/signal.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/support/captured_log.h"

namespace qora::signal {
namespace {

int lastSignal = 0;
void remember(int number) {
  lastSignal = number;
}

TEST(Signal, SetsHandlersMasksAndTimers) {
  const Handler first = setSignalHandler(SIGALRM, remember);
  EXPECT_EQ(first, SIG_DFL);
  EXPECT_EQ(setSignalHandler(SIGALRM, remember), remember);
  sigset_t alarms, old;
  sigemptyset(&alarms);
  sigaddset(&alarms, SIGALRM);
  EXPECT_EQ(setSignalMask(SIG_BLOCK, &alarms, &old), 0);
  itimerval timer;
  memset(&timer, 0xA5, sizeof timer);
  clearIntervalTimer(timer);
  timer.it_value.tv_usec = 1000;
  EXPECT_EQ(setIntervalTimer(ITIMER_REAL, &timer, nullptr), 0);
  while (lastSignal == 0) sigsuspend(&old);  // one alarm ends it, the interval is clear
  EXPECT_EQ(lastSignal, SIGALRM);
  EXPECT_EQ(setSignalMask(SIG_SETMASK, &old, nullptr), 0);

  struct sigaction action, previous;
  memset(&action, 0xA5, sizeof action);
  clearSignalAction(action);
  EXPECT_EQ(action.sa_flags, 0);
  EXPECT_EQ(sigismember(&action.sa_mask, SIGINT), 0);
  EXPECT_EQ(setSignalAction(SIGALRM, &action, &previous), 0);  // the default one
  EXPECT_EQ(previous.sa_handler, remember);
}

TEST(Signal, TellsFailures) {
  const test::CapturedLog log;
  sigset_t none;
  sigemptyset(&none);
  errno = ENOENT;  // is what the line shows: the call does not set it
  EXPECT_EQ(setSignalMask(99, &none, nullptr), EINVAL);
  struct sigaction action = {};
  EXPECT_EQ(setSignalAction(SIGKILL, &action, nullptr), -1);
  const itimerval timer = {};
  EXPECT_EQ(setIntervalTimer(99, &timer, nullptr), -1);
  EXPECT_EQ(setSignalHandler(SIGKILL, remember), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(log.withoutPrefixes(),
            "Signal: ERROR! Function pthread_sigmask failed. Error is 2 'No such file or "
            "directory'.\n"
            "Signal: ERROR! Call to sigaction failed. Error is 22 'Invalid argument'.\n"
            "Signal: ERROR! Call to setitimer failed. Error is 22 'Invalid argument'.\n"
            "Signal: ERROR! Call to signal failed. Error is 22 'Invalid argument'.\n");
}

TEST(Signal, NamesHandlersAndOnlyTheListedSignals) {
  for (const int32_t number : {-1, 0, 5, 7, 16, 23, 24, 25, 27, 30, 31, 32, 64}) {
    EXPECT_STREQ(signalName(number), "None") << number;
  }
  EXPECT_STREQ(handlerName(SIG_DFL), "SIG_DFL");
  EXPECT_STREQ(handlerName(SIG_IGN), "SIG_IGN");
  EXPECT_STREQ(handlerName(SIG_ERR), "User defined");
}

TEST(Signal, DumpsASet) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGPOLL);
  constexpr const char* kNames[] = {
      "1, SIGHUP",   "2, SIGINT",     "3, SIGQUIT",   "4, SIGILL",   "6, SIGABRT",  "8, SIGFPE",
      "9, SIGKILL",  "10, SIGUSR1",   "11, SIGSEGV",  "12, SIGUSR2", "13, SIGPIPE", "14, SIGALRM",
      "15, SIGTERM", "17, SIGCHLD",   "18, SIGCONT",  "19, SIGSTOP", "20, SIGTSTP", "21, SIGTTIN",
      "22, SIGTTOU", "26, SIGVTALRM", "28, SIGWINCH", "29, SIGPOLL",
  };
  std::string expected;
  for (const char* name : kNames) {
    const bool member = strstr(name, "INT") != nullptr || strstr(name, "POLL") != nullptr;
    expected += std::string("/Signal: ") + name + (member ? "\tYes\n" : "\tNo\n");
  }
  const auto labelled = [&](const std::string& label) {
    std::string lines = expected;
    for (size_t at = 0; (at = lines.find("/Signal", at)) != std::string::npos;
         at += label.size() + 1)
      lines.insert(at, label);
    return lines;
  };
  const test::CapturedLog log;
  dumpSignalSet(set, nullptr, nullptr);
  EXPECT_EQ(log.withoutPrefixes(), labelled("Signal"));
  Logger silent;
  silent.mode = 0;
  dumpSignalSet(set, "Main", &silent);
  EXPECT_EQ(log.withoutPrefixes(), labelled("Signal"));
  Logger own;
  dumpSignalSet(set, "Main", &own);
  EXPECT_EQ(log.withoutPrefixes(), labelled("Signal") + labelled("Main"));
}

}  // namespace
}  // namespace qora::signal
