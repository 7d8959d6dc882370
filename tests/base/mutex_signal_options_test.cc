#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "base/options.h"
#include "base/signal.h"
#include "tests/support/captured_log.h"

static bool refuseMutexType = false;

// Stands in front of the C library's, so that making a mutex can fail.
extern "C" int pthread_mutexattr_settype(pthread_mutexattr_t* attributes, int type) noexcept {
  if (refuseMutexType) return ENOMEM;
  using SetType = int (*)(pthread_mutexattr_t*, int);
  return reinterpret_cast<SetType>(dlsym(RTLD_NEXT, "pthread_mutexattr_settype"))(attributes, type);
}

namespace qora {
namespace {

int32_t otherThreadLocks(pthread_mutex_t& mutex, int32_t timeout) {
  int32_t locked = 0;
  std::thread([&] {
    locked = mutex::lockMutexTimed(&mutex, timeout);
    if (locked == 1) pthread_mutex_unlock(&mutex);
  }).join();
  return locked;
}

TEST(Mutex, TakesAsManyUnlocksAsLocks) {
  pthread_mutex_t mutex;
  mutex::initMutex(&mutex);
  for (const int32_t timeout : {0, 1500}) ASSERT_EQ(mutex::lockMutexTimed(&mutex, timeout), 1);
  for (const int32_t timeout : {0, -5, 1, 20}) EXPECT_EQ(otherThreadLocks(mutex, timeout), 0);
  pthread_mutex_unlock(&mutex);
  EXPECT_EQ(otherThreadLocks(mutex, 0), 0);
  int guarded = 1;
  std::thread spinner([&] {
    mutex::lockMutexSpinning(&mutex);
    EXPECT_EQ(guarded, 2);
    pthread_mutex_unlock(&mutex);
  });
  guarded = 2;
  pthread_mutex_unlock(&mutex);
  spinner.join();
  EXPECT_EQ(otherThreadLocks(mutex, 0), 1);
  mutex::destroyMutex(&mutex);
}

TEST(Mutex, ResetFreesAndFailuresAreToldWithoutTheLogger) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the thread sanitizer cannot follow a mutex that is replaced while locked";
#endif
  pthread_mutex_t mutex, other;
  mutex::initMutex(&mutex);
  pthread_mutex_lock(&mutex);
  const test::CapturedLog log;
  refuseMutexType = true;
  mutex::initMutex(&other);
  mutex::resetMutex(&mutex);
  refuseMutexType = false;
  EXPECT_NE(log.text(), log.withoutPrefixes());
  EXPECT_EQ(log.withoutPrefixes(),
            "Mutex: ERROR! Failed to initialize the mutex.\nFailed to initialize the mutex.\n"
            "Mutex: ERROR! Failed to reset the mutex.\nFailed to reset the mutex.\n");
  EXPECT_EQ(otherThreadLocks(mutex, 0), 0);
  mutex::resetMutex(&mutex);
  EXPECT_EQ(otherThreadLocks(mutex, 0), 1);
}

void ignore(int) {}

TEST(Signal, ClearsSetsAndTellsFailures) {
  const test::CapturedLog log;
  const sigset_t none = {};
  struct sigaction action;
  itimerval timer;
  memset(&action, 0xA5, sizeof action);
  memset(&timer, 0xA5, sizeof timer);
  signal::clearSignalAction(action);
  signal::clearIntervalTimer(timer);
  EXPECT_EQ(signal::setSignalAction(SIGUSR1, &action, nullptr), 0);
  EXPECT_EQ(signal::setIntervalTimer(ITIMER_REAL, &timer, nullptr),
            0);                                               // refused if a field stayed
  for (const signal::Handler previous : {SIG_DFL, ignore}) {  // the cleared action is the default
    EXPECT_EQ(signal::setSignalHandler(SIGUSR1, ignore), previous);
  }
  errno = ENOENT;  // is what the first line shows: the call does not set it
  EXPECT_EQ(signal::setSignalMask(99, &none, nullptr), EINVAL);
  EXPECT_EQ(signal::setSignalAction(SIGKILL, &action, nullptr), -1);
  EXPECT_EQ(signal::setIntervalTimer(99, &timer, nullptr), -1);
  EXPECT_EQ(signal::setSignalHandler(SIGKILL, ignore), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(
      log.withoutPrefixes(),
      "Signal: ERROR! Function pthread_sigmask failed. Error is 2 'No such file or directory'.\n"
      "Signal: ERROR! Call to sigaction failed. Error is 22 'Invalid argument'.\n"
      "Signal: ERROR! Call to setitimer failed. Error is 22 'Invalid argument'.\n"
      "Signal: ERROR! Call to signal failed. Error is 22 'Invalid argument'.\n");
}

TEST(Signal, NamesHandlersAndOnlyTheListedSignals) {
  EXPECT_STREQ(signal::signalName(-1), signal::signalName(32));
  const std::string both = std::string(signal::handlerName(SIG_DFL)) + signal::handlerName(SIG_IGN);
  EXPECT_EQ(both + signal::handlerName(ignore), "SIG_DFLSIG_IGNUser defined");
  sigset_t set = {};
  sigaddset(&set, SIGPOLL);
  const test::CapturedLog log;
  Logger silent;
  silent.mode = 0;
  signal::dumpSignalSet(set, "Main", &silent);
  EXPECT_EQ(log.text(), "");
  signal::dumpSignalSet(set, nullptr, nullptr);
  const std::regex notInSet("Signal/Signal: (\\d+), SIG(\\w+)\tNo\n");
  EXPECT_EQ(std::regex_replace(log.withoutPrefixes(), notInSet, "$1 $2 "),
            "1 HUP 2 INT 3 QUIT 4 ILL 6 ABRT 8 FPE 9 KILL 10 USR1 11 SEGV 12 USR2 13 PIPE 14 ALRM "
            "15 TERM 17 CHLD 18 CONT 19 STOP 20 TSTP 21 TTIN 22 TTOU 26 VTALRM 28 WINCH "
            "Signal/Signal: 29, SIGPOLL\tYes\n");
}

struct OptionCase {
  const char *what, *letters;
  std::vector<const char*> arguments;
  const char* results;  // each option and its argument
  int32_t index;
  const char* errors = "";
};

constexpr const char* kMissing = "prog: option requires an argument -- b\n";
constexpr const char* kIllegal = "prog: illegal option -- x\nprog: illegal option -- :\n";
const OptionCase kOptionCases[] = {
    {"one by one", "ab:", {"-a", "-bvalue", "-b"}, "a b:value ? ", 4, kMissing},
    {"joined, argument apart", "ab:", {"-ab", "value", "-a"}, "a b:value a ", 4},
    {"an argument like an option", "ab:", {"-b", "-a", "-b", "--"}, "b:-a b:-- ", 5},
    {"a plain argument ends", "a", {"-a", "plain", "-a"}, "a ", 2},
    {"two dashes end, stepped over", "a", {"-a", "--", "-a"}, "a ", 3},
    {"unknown ones", "ab:", {"-xa", "-:"}, "? a ? ", 3, kIllegal},
    {"a leading colon silences", ":ab:", {"-x", "-b"}, "? : ", 3},
    {"a lone dash ends", "a", {"-", "-a"}, "", 1},
    {"a lone dash as an option", "a-", {"-", "-a"}, "- a ", 3},
    {"an unknown dash ends, not stepped over", "a", {"-a-", "-a"}, "a ", 1},
    {"a long option ends, not stepped over", "a", {"--all"}, "", 1},
    {"no letters at all", nullptr, {"-a"}, "", 1},
};

// Parses to the end, or to the eighth result.
std::string parse(const char* letters, std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "prog");
  auto* const vector = const_cast<char* const*>(arguments.data());
  std::string results;
  for (int32_t option, most = 8; most > 0; --most) {
    option = options::parseOption(static_cast<int32_t>(arguments.size()), vector, letters);
    if (option == -1) break;
    results += static_cast<char>(option);
    results += option == 'b' ? std::string(":") + options::optionState().argument + " " : " ";
  }
  return results;
}

TEST(Options, ParsesLetterByLetter) {
  for (const OptionCase& c : kOptionCases) {
    options::optionState() = {};
    testing::internal::CaptureStderr();
    EXPECT_EQ(parse(c.letters, c.arguments), c.results) << c.what;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.errors) << c.what;
    EXPECT_EQ(options::optionState().index, c.index) << c.what;
  }
}

TEST(Options, ResetBeginsAnewAndKeepsTheSilence) {
  options::optionState() = {};
  options::optionState().printErrors = 0;
  options::optionState().position = "xab";  // inside an element
  testing::internal::CaptureStderr();
  options::resetOptions();
  EXPECT_EQ(parse("ab:", {"-bvalue", "-b"}), "b:value ? ");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
}  // namespace qora
