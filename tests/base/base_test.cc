// What the transcripts of base/ can call: its operations under their own names, and what sets the
// scene for them; and the tests that no transcript can show. system_operations.cc has the sockets
// and processes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <link.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <regex>
#include <thread>

#include "qora/base/clog_line.h"
#include "qora/base/error_reports.h"
#include "qora/base/error_text.h"
#include "qora/base/file.h"
#include "qora/base/library.h"
#include "qora/base/logger.h"
#include "qora/base/mutex.h"
#include "qora/base/process.h"
#include "qora/base/signal.h"
#include "qora/base/string.h"
#include "tests/base/operations.h"
#include "tests/support/temporary_root.h"

static int32_t failingOpens = 0;
static bool mutexTypesAreRefused = false;

// Both stand in front of the C library's, so that opening a log file and making a mutex can fail.
extern "C" FILE* fopen64(const char* path, const char* mode) {
  if (failingOpens > 0) return --failingOpens, errno = EMFILE, nullptr;
  return reinterpret_cast<decltype(&fopen64)>(dlsym(RTLD_NEXT, "fopen64"))(path, mode);
}
extern "C" int pthread_mutexattr_settype(pthread_mutexattr_t* attributes, int type) noexcept {
  if (mutexTypesAreRefused) return ENOMEM;
  const auto original = dlsym(RTLD_NEXT, "pthread_mutexattr_settype");
  return reinterpret_cast<decltype(&pthread_mutexattr_settype)>(original)(attributes, type);
}

namespace qora {
namespace {

// --- logger, error reports, mutex ---

// An accessor with a text behind its prefix, and the process's logger: a method, a field.
template <Stream& (*accessor)()>
Stream& line(Text text) {
  return accessor() << text;
}
template <typename Result, typename... Parameters>
auto on(Result (Logger::*method)(Parameters...)) {
  return [method](Parameters... parameters) { return (logger().*method)(parameters...); };
}
auto field(int32_t Logger::*member) {
  return [member](int32_t value) { logger().*member = value; };
}

// A new logger takes what std::clog writes to for standard error.
void renewLogger() {
  std::destroy_at(&logger());
  std::construct_at(&logger());
}

Stream* streamTo(Text path) {
  return path != nullptr ? new std::ofstream(path) : &std::clog;
}

std::string contents(Text path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

void addLogger(Transcript& told) {
  static Stream* held;
  ADD_OPERATIONS(told, line<logStream>, line<errorStream>, line<warningStream>, line<infoStream>,
                 line<sessionStream>, line<plainErrorStream>, line<plainLogStream>,
                 line<standardErrorLog>, line<standardErrorError>, line<standardErrorPlain>,
                 on(&Logger::flushAll), on(&Logger::logText), on(&Logger::setLogFile),
                 on(&Logger::setErrorFile), on(&Logger::setThirdFile), on(&Logger::truncateLogFile),
                 on(&Logger::truncateErrorFile), on(&Logger::truncateThirdFile),
                 field(&Logger::mode), field(&Logger::writeText), field(&Logger::configurable),
                 field(&Logger::buffered), errorText, errorName, contents, renewLogger);
  told.add("setLogStream", [](Text path) { return logger().setLogStream(streamTo(path)); });
  told.add("setErrorStream", [](Text path) { return logger().setErrorStream(streamTo(path)); });
  told.add("setThirdStream", [](Text path) { return logger().setThirdStream(streamTo(path)); });
  told.add("third", [](Text text) -> Stream& { return *logger().third.stream << text; });
  told.add("clog", [](Text text) -> Stream& { return std::clog << text; });
  told.add("hex", [] { std::clog << std::hex; });
  told.add("logNumber", [](int32_t number) { logStream() << number << '\n'; });
  told.add("plainNumber", [](int32_t number) { std::clog << number << '\n'; });
  told.add("hold", [] { held = logger().log.stream; });
  told.add("held", [](Text text) -> Stream& { return *held << text; });
  told.add("heldIsRetired", [] { return held == logger().log.retired; });
  told.add("logFileName", [] { return logger().log.fileName; });
  told.add("errorFileName", [] { return logger().error.fileName; });
  told.add("failOpens", [](int32_t number) { failingOpens = number; });
  told.add("lastErrorName", [](int32_t error) { return errno = error, lastErrorName(); });
  told.add("lastErrorText", [](int32_t error) { return errno = error, lastErrorText(); });
}

void addReports(Transcript& told) {
  told.add("reportBadNumber", Form<void(Text, int32_t, Text, Text)>(reportBadValue));
  told.add("reportBadAddress", Form<void(Text, const void*, Text, Text)>(reportBadValue));
  told.add("reportBadText", Form<void(Text, Text, Text, Text)>(reportBadValue));
  told.add("reportNoSuch", Form<void(Text, Text, Text)>(reportNotImplemented));
  told.add("reportNoSuchNumber", Form<void(Text, int32_t, Text, Text)>(reportNotImplemented));
  told.add("reportNoSuchAddress", Form<void(Text, const void*, Text, Text)>(reportNotImplemented));
  ADD_OPERATIONS(told, reportBadValueForType, reportBadPointer, reportNotPermitted,
                 reportAllocationFailed, reportInvalidState, reportBadDescriptorState,
                 reportBufferNotFound, reportInvalidBufferOwner, reportBadEvent,
                 reportInvalidOperationForType, reportInvalidOperationForProto);
}

pthread_mutex_t theMutex = PTHREAD_MUTEX_INITIALIZER;  // not recursive

void addMutex(Transcript& told) {
  const auto lock = [](int32_t timeout) { return mutex::lockMutexTimed(&theMutex, timeout); };
  const auto unlock = [] { return pthread_mutex_unlock(&theMutex); };
  // In another thread: the result of the unlock behind the lock, -1 when it was not had.
  told.add("lockElsewhere", [=](int32_t timeout) {
    int32_t result = -1;
    std::thread([&] { result = lock(timeout) == 1 ? unlock() : -1; }).join();
    return result;
  });
  told.add("spinElsewhereAndUnlock", [=] {
    int32_t result = -1;
    std::thread thread([&] { mutex::lockMutexSpinning(&theMutex), result = unlock(); });
    unlock();
    thread.join();
    return result;
  });
  told.add("initMutex", [] { mutex::initMutex(&theMutex); });
  told.add("resetMutex", [] { mutex::resetMutex(&theMutex); });
  told.add("destroyMutex", [] { mutex::destroyMutex(&theMutex); });
  told.add("refuseMutexTypes", [](bool refused) { mutexTypesAreRefused = refused; });
  ADD_OPERATIONS(told, lock, unlock);
}

// --- file, library, string, signal, options ---

// With the errno of a line that stopped short.
std::string readLine(int32_t fd, int32_t capacity) {
  std::string buffer(16, '#');
  const char* const end = file::readLine(fd, buffer.data(), capacity);
  const bool whole = end != nullptr && end[-1] == '\n';
  const std::string error = whole || errno == 0 ? "" : std::string(errorName(errno)) + ": ";
  return error + (end != nullptr ? buffer.c_str() : "null");
}

void addFiles(Transcript& told) {
  ADD_OPERATIONS(told, owned(file::joinPath), file::exists, file::isRegularFile, file::isDirectory,
                 file::fileSize, file::isAccessible, file::isRootedPath, file::changeOwner,
                 putPair(file::createPipe), file::setPipeSize, file::setNonBlocking,
                 file::setNoInherit, file::bytesQueued, file::bytesWritable, file::writeString,
                 readLine, ::close, ::chmod, ::mkdir, ::mkfifo, ::truncate, ::umask);
  told.add("bytesReadable", [](int32_t fd) { return file::bytesReadable(fd); });
  told.add("countReadable", [](int32_t fd, int32_t* n) { return file::bytesReadable(fd, n); });
  told.add("makeFile", [](Text name, Text text) { std::ofstream(name) << text; });
  told.add("isDirectoryMode", [](Text name) {
    struct stat status;
    return file::statFile("", name, status) == 1 ? file::isDirectoryMode(status) : -1;
  });
}

void addLibrary(Transcript& told) {
  static void* const libc = library::open("libc.so.6");
  std::ostringstream address;
  address << libc;
  told.hide(address.str(), "HANDLE");
  told.hide(static_cast<link_map*>(libc)->l_name, "LIBC");
  told.add("open", library::open);
  told.add("resolve", [](Text name) { return library::resolve(libc, name); });
  told.add("closeLibrary", [] { return library::close(libc); });
}

void addStrings(Transcript& told) {
  using namespace string;
  ADD_OPERATIONS(told, newBuffer, newBufferFrom, newSizedBuffer, assignFirst, release, append,
                 replaceAll, replacePrefix, dottedQuadText, calendarText, dottedQuad, calendarTime,
                 cutAtUnprintable, startsWith, endsWith, isAbsolutePath, hasParentReference,
                 parseVersion);
  told.add("assign", Form<void(char*&, Text)>(assign));
  told.add("copyOf", owned(Form<char*(Text)>(assign)));
  told.add("copyPrefix", Form<void(char*&, Text, int32_t)>(copyPrefix));
  told.add("prefixOf", owned(Form<char*(Text, int32_t)>(copyPrefix)));
  told.add("appendBytes", [](char*& s, Text data, int32_t n) { appendBytes(s, data, n); });
  told.add("assignTail", [](char*& s) { assign(s, s + 1); });
  told.add("put", [](char* s, int32_t index, char value) { s[index] = value; });
  told.add("clockText", [](char*& s, int64_t t, int64_t us) { clockText(s, {t, us}); });
  told.add("countSeparators", [](Text s, int32_t n, char c) { return countSeparators(s, n, c); });
}

void onAlarm(int) {  // the first one only interrupts
  static int32_t alarms = 0;
  if (++alarms == 2) file::writeString(65, "late\n");
}

void addSignals(Transcript& told) {
  using namespace signal;
  ADD_OPERATIONS(told, setSignalHandler, signalName, handlerName);
  told.add("setSignalMask", [](int32_t how, int32_t number, int32_t& wasIn) {
    sigset_t set = {}, old = {};
    ::sigaddset(&set, number);
    const int32_t result = setSignalMask(how, &set, &old);
    wasIn = ::sigismember(&old, number);
    return result;
  });
  told.add("setSignalAction", [](int32_t number, Handler handler) {
    struct sigaction action;
    memset(&action, 0xA5, sizeof action);
    clearSignalAction(action);
    if (handler != nullptr) action.sa_handler = handler;
    return setSignalAction(number, &action, nullptr);
  });
  told.add("setIntervalTimer", [](int32_t which, int32_t microseconds) {
    itimerval timer;
    memset(&timer, 0xA5, sizeof timer);
    clearIntervalTimer(timer);
    timer.it_value.tv_usec = timer.it_interval.tv_usec = microseconds;
    return setIntervalTimer(which, &timer, nullptr);
  });
  told.add("dumpSignalSet", [](int32_t number, Text label, bool named) {
    sigset_t set = {};
    ::sigaddset(&set, number);
    dumpSignalSet(set, label, named ? &logger() : nullptr);
  });
}

void addOptions(Transcript& told) {
  using namespace options;
  // Parses to the end and writes each option, its argument and what was printed; the last index.
  told.add("parse", [](Text letters, Text line) {
    std::string words = std::string("prog ") + line;
    std::vector<Text> arguments = split(words, " ");
    const auto count = static_cast<int32_t>(arguments.size()) - 1;
    resetOptions();
    for (int32_t option, most = 8; most > 0; --most) {
      testing::internal::CaptureStderr();
      option = parseOption(count, const_cast<char* const*>(arguments.data()), letters);
      std::clog << testing::internal::GetCapturedStderr();
      if (option == -1) break;
      std::clog << static_cast<char>(option);
      if (option == optionState().option) std::clog << ' ' << orNil(optionState().argument);
      std::clog << '\n';
    }
    return optionState().index;
  });
  told.add("printErrors", [](int32_t print) { optionState().printErrors = print; });
  told.add("standInside", [](Text text) { optionState().position = text; });
}

// --- the transcripts, and the rest ---

using Base = testing::TestWithParam<Text>;

TEST_P(Base, DoesAsTold) {
  const test::TemporaryRoot root;
  ASSERT_EQ(::chdir(root.path().c_str()), 0);
  {
    Transcript told(std::string("tests/base/") + GetParam() + ".transcript",
                    {{"onAlarm", reinterpret_cast<int64_t>(onAlarm)},
                     {"uname", SYS_uname},
                     {"fcntl", SYS_fcntl},
                     {"getsockopt", SYS_getsockopt}});
    for (const auto& add : {addLogger, addReports, addMutex, addFiles, addLibrary, addStrings,
                            addSignals, addOptions, addSockets, addProcesses})
      add(told);
    renewLogger();
    socket::systemSupport() = {};
    options::optionState() = {};
    told.run();
  }
  renewLogger();
}

INSTANTIATE_TEST_SUITE_P(Transcripts, Base,
                         testing::Values("logger", "log_files", "error_reports", "mutex", "file",
                                         "library", "string", "signal", "options", "socket_options",
                                         "socket_address", "system_support", "process_status",
                                         "process_identity", "process_start"),
                         [](const auto& row) { return std::string(row.param); });

TEST(String, CountsSeparatorsAtEveryLengthAndAlignment) {
  const test::CapturedLog captured;
  std::vector<uint8_t> data(70000);
  for (size_t i = 0; i < data.size(); ++i) data[i] = i % 7 == 0 || i % 5 == 1 ? 0xFF : '\n';
  const auto check = [&data](size_t from, int32_t length) {
    const auto* const begin = data.data() + from;
    const auto count = std::count(begin, begin + std::max(length, 1), 0xFF);  // 0 looks at one too
    ASSERT_EQ(string::countSeparators(begin, length, 0xFF), count) << from << " " << length;
  };
  for (size_t from = 0; from < 16; ++from) {
    for (int32_t length = 0; length <= 300; ++length) check(from, length);
    for (const int32_t length : {255 * 64 - 1, 255 * 64 + 80, 66000}) check(from, length);
  }
  std::fill(data.begin(), data.end(), uint8_t{0xFF});  // every byte counter gets full
  check(1, 69999);
}

TEST(ForkProcess, LetsThreadsAndChildrenLogAtOnce) {
  testing::internal::CaptureStderr();
  ::fcntl(STDERR_FILENO, F_SETFL, O_APPEND);  // it has many writers
  const auto write = [] {
    for (int n = 0; n < 200; ++n, logger().flushAll()) logStream(), errorStream() << "thread\n";
  };
  const auto fork = [] {
    for (int n = 0; n < 25; ++n) {
      if (process::forkProcess() == 0) {
        ::alarm(60);  // a lock that was inherited held would wait for ever
        logStream() << "child\n";
        process::endProcess(0);
      }
      ::wait(nullptr);
    }
  };
  std::vector<std::thread> threads;
  for (int n = 0; n < 3; ++n) threads.emplace_back(write);
  for (int n = 0; n < 2; ++n) threads.emplace_back(fork);
  for (std::thread& thread : threads) thread.join();
  const std::string text = testing::internal::GetCapturedStderr();
  const std::pair<Text, int> whole[] = {{"thread\n", 600},
                                        {"child\n", 50},
                                        {"Error: ", 600},
                                        {R"(\d+ \d+ \d\d:\d\d:\d\d \d{3}\.\d{3} )", 650}};
  for (const auto& [pattern, count] : whole) {
    const std::regex piece(pattern);
    EXPECT_EQ(std::distance(std::sregex_iterator(text.begin(), text.end(), piece), {}), count);
  }
}

}  // namespace
}  // namespace qora
