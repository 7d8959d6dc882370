#include "base/logger.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <memory>
#include <regex>
#include <thread>

#include "base/error_reports.h"
#include "tests/support/captured_log.h"

static int32_t failingOpens = 0, seenOpens = 0;

// Stands in front of the C library's, so that opening a log file can fail for a while.
extern "C" FILE* fopen64(const char* path, const char* mode) {
  ++seenOpens;
  if (failingOpens-- > 0) return errno = EMFILE, nullptr;
  using Open = FILE* (*)(const char*, const char*);
  return reinterpret_cast<Open>(dlsym(RTLD_NEXT, "fopen64"))(path, mode);
}

namespace qora {
namespace {

constexpr const char* kTimePrefix = R"(\d+ \d+ \d\d:\d\d:\d\d \d{3}\.\d{3} )";

TEST(Logger, PrefixesByAccessorAndMode) {
  const struct {
    std::ostream& (Logger::*accessor)();
    const char* prefix;  // a pattern
    bool isLog;
  } cases[] = {
      {&Logger::logStream, kTimePrefix, true},      {&Logger::errorStream, "Error: ", false},
      {&Logger::warningStream, "Warning: ", false}, {&Logger::infoStream, "Info: ", false},
      {&Logger::sessionStream, "Session: ", false}, {&Logger::plainErrorStream, "", false},
      {&Logger::plainLogStream, "", true},
  };
  for (const auto& c : cases) {
    for (const int32_t mode : {0, 1, 2}) {
      const test::CapturedLog log;
      Logger logger;
      logger.mode = mode;
      (logger.*c.accessor)() << "line\n";
      const bool written = mode == 1 || (mode == 2 && !c.isLog);
      const std::regex expected(written ? std::string(c.prefix) + "line\n" : "");
      EXPECT_TRUE(std::regex_match(log.text(), expected)) << c.prefix << mode << log.text();
    }
  }
}

TEST(Logger, WritesPrefixesAndTexts) {
  setenv("TZ", "UTC", 1);
  tzset();
  char clock[32];
  formatClock({32703, 5000}, clock, sizeof clock);
  EXPECT_STREQ(clock, "09:05:03 005.000");
  const test::CapturedLog log;
  Logger logger;
  standardErrorLog() << std::hex << "a\n";
  standardErrorError() << "b\n";
  standardErrorPlain() << "c\n";
  logger.logStream() << 255 << "\n";  // decimal again
  logger.writeText = 0;
  logger.logText("hidden");
  std::clog << "\n";
  logger.writeText = 1;
  logger.logText("text");
  EXPECT_EQ(log.withoutPrefixes(), "a\nError: b\nc\n255\n\ntext/");
  const std::string who =
      std::to_string(getpid()) + " " + std::to_string(syscall(SYS_gettid)) + " ";
  EXPECT_EQ(log.text().rfind(who, 0), 0u);
  logger.logText(nullptr);
  EXPECT_TRUE(std::clog.fail());
}

TEST(Logger, NamesErrors) {
  const std::pair<int32_t, const char*> cases[] = {
      {0, "Success"}, {26, "Unknown"}, {95, "ENOTSUP"}, {116, "Unknown"}, {-1, "Unknown"}};
  for (const auto& [error, name] : cases) EXPECT_STREQ(errorName(error), name);
  EXPECT_STREQ(errorText(0), "No error");
}

// A configurable logger whose standard error is the captured one.
class LogFiles : public testing::Test {
 protected:
  LogFiles() {
    if (mkdtemp(dir_.data()) == nullptr) abort();
    logger_->configurable = 1;
    umask(022);
    seenOpens = failingOpens = 0;
  }
  ~LogFiles() override {
    EXPECT_EQ(umask(022), 022u);
    std::filesystem::remove_all(dir_);
  }
  std::string path(const char* name) const { return dir_ + "/" + name; }
  std::string read(const char* name) const {
    std::ostringstream text;
    text << std::ifstream(path(name)).rdbuf();
    return text.str();
  }
  std::string dir_ = (std::filesystem::temp_directory_path() / "logger-XXXXXX").string();
  test::CapturedLog standardError_;
  std::unique_ptr<Logger> logger_ = std::make_unique<Logger>();
};

TEST_F(LogFiles, NeedAConfigurableLogger) {
  logger_->configurable = 0;
  EXPECT_EQ(logger_->setLogFile(dir_.c_str(), "log") + logger_->setErrorStream(&std::cerr), 0);
  EXPECT_EQ(logger_->setThirdFile(dir_.c_str(), ""), 0);
  EXPECT_EQ(logger_->setThirdFile(dir_.c_str(), "third"), 1);
  *logger_->third.stream << "third\n";
  EXPECT_EQ(logger_->setThirdStream(&std::clog), 1);
  EXPECT_EQ(read("third"), "third\n");
  logger_->configurable = 1;
  ASSERT_EQ(logger_->setLogStream(new std::ofstream("/dev/full")), 1);
  logger_->plainLogStream() << "lost";
  errno = EXDEV;
  EXPECT_TRUE(logger_->logStream().fail());  // flushed in vain, errno stays
  EXPECT_EQ(errno, EXDEV);
}

TEST_F(LogFiles, AreAppendedToAndTheOwnersOnly) {
  std::ofstream(path("old")) << "old\n";
  ASSERT_EQ(logger_->setLogFile(dir_.c_str(), "old"), 1);
  std::ostream& held = logger_->plainLogStream() << "new\n";
  ASSERT_EQ(logger_->setLogFile(nullptr, path("fresh").c_str()), 1);
  EXPECT_EQ(logger_->log.retired, &held);
  held << "late\n";  // to standard error: its file is left
  logger_->plainLogStream() << "first\n";
  EXPECT_EQ(read("fresh"), "");  // buffered
  logger_->flushAll();
  EXPECT_EQ(read("fresh") + read("old") + standardError_.text(), "first\nold\nnew\nlate\n");
  struct stat status;
  stat(path("fresh").c_str(), &status);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  logger_->buffered = 0;
  ASSERT_EQ(logger_->setLogFile(dir_.c_str(), "unbuffered"), 1);
  logger_->plainLogStream() << "at once\n";
  EXPECT_EQ(read("unbuffered"), "at once\n");
}

TEST_F(LogFiles, AreTriedFiveTimes) {
  failingOpens = 4;
  EXPECT_EQ(logger_->setLogFile(dir_.c_str(), "log"), 1);
  failingOpens = 5;
  EXPECT_EQ(logger_->setLogFile(dir_.c_str(), "other"), -1);
  EXPECT_EQ(errno, EMFILE);
  EXPECT_EQ(seenOpens, 10);
  EXPECT_EQ(logger_->log.fileName, path("log"));
}

TEST_F(LogFiles, StandardErrorGoesAlongWithTheErrorOutput) {
  ASSERT_EQ(logger_->setErrorFile(dir_.c_str(), "errors"), 1);
  std::clog << "past the logger\n";
  logger_->errorStream() << "line\n";
  auto* const stream = new std::ostringstream;
  ASSERT_EQ(logger_->setErrorStream(stream), 1);
  std::clog << "captured\n";
  EXPECT_EQ(logger_->error.fileName, nullptr);
  EXPECT_EQ(stream->str(), "Logger: Redirected the standard error to the stream.\ncaptured\n");
  ASSERT_EQ(logger_->setErrorFile(dir_.c_str(), "errors"), 1);
  logger_.reset();
  std::clog << "own again\n";
  EXPECT_EQ(standardError_.text(), "own again\n");
  const std::string head = "Logger: Redirected the standard error to '" + path("errors") + "'.\n";
  EXPECT_EQ(read("errors"), head + "past the logger\nError: line\n" + head);
}

TEST_F(LogFiles, AreEmptiedAtTheirLimit) {
  EXPECT_EQ(logger_->truncateLogFile(0), 0);  // no file yet
  ASSERT_EQ(logger_->setLogFile(dir_.c_str(), "log"), 1);
  logger_->plainLogStream() << "12345" << std::flush;
  for (const int32_t limit : {-1, 6}) EXPECT_EQ(logger_->truncateLogFile(limit), 0);
  EXPECT_EQ(read("log"), "12345");
  EXPECT_EQ(logger_->truncateLogFile(5), 1);
  EXPECT_EQ(read("log"), "");
  ASSERT_EQ(logger_->setErrorFile(dir_.c_str(), "errors"), 1);
  std::clog << std::flush;
  ASSERT_EQ(logger_->truncateErrorFile(1), 1);
  std::clog << "still there\n" << std::flush;
  EXPECT_EQ(read("errors"), "still there\n");
  failingOpens = 5;
  EXPECT_EQ(logger_->truncateErrorFile(1), -1);
  EXPECT_EQ(logger_->error.fileName, nullptr);
  logger_->errorStream() << "back\n";
  EXPECT_EQ(standardError_.text(), "Error: back\n");
}

TEST(Logger, ThreadsKeepEachOthersPrefixesWhole) {
  testing::internal::CaptureStderr();
  std::vector<std::thread> threads;
  const auto writeLines = [] {
    for (int i = 0; i < 200; ++i, logger().flushAll()) logStream(), errorStream() << "line\n";
  };
  while (threads.size() < 4) threads.emplace_back(writeLines);
  for (std::thread& thread : threads) thread.join();
  const std::string text = testing::internal::GetCapturedStderr();
  for (const std::regex& prefix : {std::regex(kTimePrefix), std::regex("Error: ")}) {
    EXPECT_EQ(std::distance(std::sregex_iterator(text.begin(), text.end(), prefix), {}), 800);
  }
}

void* const kPointer = reinterpret_cast<void*>(0x1f0);
const struct {
  void (*report)(const char* name, const char* method, const char* context);
  const char* text;
  int error;
  const char* end = ".\n";
} kReports[] = {
#define WITH(report, ...) \
  [](const char* n, const char* m, const char* c) { report(n, __VA_ARGS__, m, c); }
    {WITH(reportBadValue, -7), "Bad value '-7'", EINVAL},
    {WITH(reportBadValue, kPointer), "Bad value '0x1f0'", EINVAL},
    {WITH(reportBadValue, "text"), "Bad value 'text'", EINVAL},
    {WITH(reportBadValueForType, 3, 9), "Bad value '9' for type '3'", EINVAL},
    {WITH(reportBadPointer, kPointer), "Bad pointer '0x1f0'", EINVAL},
    {reportNotPermitted, "Operation not permitted", EPERM},
    {reportNotImplemented, "Not implemented", ENOSYS},
    {WITH(reportNotImplemented, -1), "Not implemented", ENOSYS, " value '-1'.\n"},
    {WITH(reportNotImplemented, kPointer), "Not implemented", ENOSYS, " value '0x1f0'.\n"},
    {reportAllocationFailed, "Memory allocation failed", ENOMEM},
    {reportInvalidState, "Invalid state for object", EACCES},
    {reportBadDescriptorState, "Bad descriptor state", EBADF},
    {reportBufferNotFound, "Buffer not found", ENXIO},
    {reportInvalidBufferOwner, "Invalid buffer owner", EDEADLK},
    {WITH(reportBadEvent, "closed"), "Bad event 'closed'", EBADE},
    {WITH(reportInvalidOperationForType, "pipe"), "Invalid operation for type 'pipe'", EOPNOTSUPP},
    {WITH(reportInvalidOperationForProto, "udp"), "Invalid operation for proto 'udp'", EPROTO},
};

TEST(ErrorReports, TellTheCallOnBothStreamsAndSetErrno) {
  for (const auto& c : kReports) {
    const test::CapturedLog log;
    c.report("File", "open", "flags");
    EXPECT_EQ(errno, c.error) << c.text;
    const std::string line =
        std::string(c.text) + " in method 'File::open()' context [flags]" + c.end;
    EXPECT_EQ(log.withoutPrefixes(), "File: ERROR! " + line + "Error: " + line);
  }
  const test::CapturedLog log;
  reportInvalidState("File", "open", nullptr);  // the null text silences the stream
  EXPECT_EQ(errno, EACCES);
  EXPECT_TRUE(std::clog.bad());
  EXPECT_EQ(log.withoutPrefixes(),
            "File: ERROR! Invalid state for object in method 'File::open()' context [");
}

}  // namespace
}  // namespace qora
