#include "base/logger.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <iostream>
#include <memory>
#include <regex>
#include <thread>

#include "tests/base/captured_stderr.h"
#include "tests/base/temporary_directory.h"
#include "tests/support/captured_log.h"

namespace {
int32_t failingOpens = 0;  // how many of the next ones fail
int32_t seenOpens = 0;
}  // namespace

// Stands in front of the C library's, so that opening a log file can fail for a while.
extern "C" FILE* fopen64(const char* path, const char* mode) {
  ++seenOpens;
  if (failingOpens > 0) {
    --failingOpens;
    errno = EMFILE;
    return nullptr;
  }
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

TEST(Logger, ThePrefixTellsWhoAndWhen) {
  const test::CapturedLog log;
  logStream() << std::hex << 255 << ' ';
  logStream() << 255;
  const std::string who =
      std::to_string(getpid()) + " " + std::to_string(syscall(SYS_gettid)) + " ";
  EXPECT_EQ(log.text().rfind(who, 0), 0u);
  EXPECT_EQ(log.withoutPrefixes().substr(0, 3), "ff ");
  EXPECT_EQ(log.text().substr(log.text().size() - 4), " 255");  // decimal again
  setenv("TZ", "UTC", 1);
  tzset();
  char text[32];
  formatClock({32703, 5000}, text, sizeof text);
  EXPECT_STREQ(text, "09:05:03 005.000");
}

TEST(Logger, StandardErrorVariantsAndTextsNeedNoLogger) {
  {
    const test::CapturedLog log;
    standardErrorLog() << "a\n";
    standardErrorError() << "b\n";
    standardErrorPlain() << "c\n";
    EXPECT_EQ(log.withoutPrefixes(), "a\nError: b\nc\n");
  }
  const test::CapturedLog log;
  Logger logger;
  logger.logText("text");
  logger.writeText = 0;
  logger.logText("hidden");
  EXPECT_EQ(log.withoutPrefixes().substr(0, 5), "text/");
  EXPECT_EQ(log.text().find("hidden"), std::string::npos);
  EXPECT_TRUE(std::clog.good());
  logger.writeText = 1;
  logger.logText(nullptr);
  EXPECT_TRUE(std::clog.fail());
}

TEST(Logger, NamesErrors) {
  const struct {
    int32_t error;
    const char *name, *text;
  } cases[] = {
      {0, "Success", "No error"},
      {2, "ENOENT", "No such file or directory"},
      {15, "Unknown", "Block device required"},
      {26, "Unknown", "Text file busy"},
      {95, "ENOTSUP", "Operation not supported"},
      {115, "EINPROGRESS", "Operation now in progress"},
      {116, "Unknown", "Stale file handle"},
      {-1, "Unknown", "Unknown error -1"},
  };
  for (const auto& c : cases) {
    EXPECT_STREQ(errorName(c.error), c.name);
    EXPECT_STREQ(errorText(c.error), c.text);
    errno = c.error;
    EXPECT_STREQ(lastErrorName(), c.name);
    errno = c.error;
    EXPECT_STREQ(lastErrorText(), c.text);
  }
}

// A logger of its own whose standard error is the captured one.
class LogFiles : public testing::Test {
 protected:
  LogFiles() {
    logger_->configurable = 1;
    umask(022);
  }
  test::TemporaryDirectory directory_;
  const char* const dir_ = directory_.path.c_str();
  test::CapturedLog standardError_;
  std::unique_ptr<Logger> logger_ = std::make_unique<Logger>();
};

TEST_F(LogFiles, NeedAConfigurableLoggerAndAName) {
  EXPECT_EQ(logger_->setLogFile(dir_, ""), 0);
  EXPECT_EQ(logger_->setErrorFile(dir_, nullptr), 0);
  EXPECT_EQ(logger_->setLogStream(nullptr), 0);
  logger_->configurable = 0;
  std::ofstream stream;
  EXPECT_EQ(logger_->setLogFile(dir_, "log"), 0);
  EXPECT_EQ(logger_->setErrorFile(dir_, "log"), 0);
  EXPECT_EQ(logger_->setLogStream(&stream), 0);
  EXPECT_EQ(logger_->setErrorStream(&stream), 0);
  EXPECT_EQ(logger_->setThirdFile(dir_, "third"), 1);
  *logger_->third.stream << "third\n";
  EXPECT_EQ(logger_->setThirdStream(&std::clog), 1);
  EXPECT_EQ(directory_.read("third"), "third\n");
  EXPECT_FALSE(std::filesystem::exists(directory_.of("log")));
}

TEST_F(LogFiles, AreAppendedToAndTheOwnersOnly) {
  directory_.write("old", "old\n");
  ASSERT_EQ(logger_->setLogFile(dir_, "old"), 1);
  logger_->plainLogStream() << "new\n";
  ASSERT_EQ(logger_->setLogFile(nullptr, directory_.of("fresh").c_str()), 1);
  EXPECT_EQ(logger_->log.fileName, directory_.of("fresh"));
  logger_->plainLogStream() << "first\n";
  EXPECT_EQ(directory_.read("fresh"), "");  // buffered
  logger_->flushAll();
  EXPECT_EQ(directory_.read("fresh"), "first\n");
  EXPECT_EQ(directory_.read("old"), "old\nnew\n");
  struct stat status;
  stat(directory_.of("fresh").c_str(), &status);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  EXPECT_EQ(umask(022), 022u);

  logger_->buffered = 0;
  ASSERT_EQ(logger_->setLogFile(dir_, "unbuffered"), 1);
  logger_->plainLogStream() << "at once\n";
  EXPECT_EQ(directory_.read("unbuffered"), "at once\n");
}

TEST_F(LogFiles, AreTriedFiveTimes) {
  seenOpens = 0;
  failingOpens = 4;
  EXPECT_EQ(logger_->setLogFile(dir_, "log"), 1);
  EXPECT_EQ(seenOpens, 5);
  failingOpens = 5;
  EXPECT_EQ(logger_->setLogFile(dir_, "other"), -1);
  EXPECT_EQ(errno, EMFILE);
  EXPECT_EQ(seenOpens, 10);
  EXPECT_EQ(logger_->log.fileName, directory_.of("log"));
  EXPECT_EQ(umask(022), 022u);
}

TEST_F(LogFiles, StandardErrorGoesAlongWithTheErrorOutput) {
  ASSERT_EQ(logger_->setErrorFile(dir_, "errors"), 1);
  std::clog << "past the logger\n";
  logger_->errorStream() << "line\n";
  auto* const stream = new std::ostringstream;
  ASSERT_EQ(logger_->setErrorStream(stream), 1);
  std::clog << "captured\n";
  EXPECT_EQ(logger_->error.fileName, nullptr);
  EXPECT_EQ(stream->str(), "Logger: Redirected the standard error to the stream.\ncaptured\n");
  ASSERT_EQ(logger_->setErrorFile(dir_, "errors"), 1);
  logger_.reset();
  std::clog << "own again\n";
  EXPECT_EQ(standardError_.text(), "own again\n");
  const std::string redirected =
      "Logger: Redirected the standard error to '" + directory_.of("errors") + "'.\n";
  EXPECT_EQ(directory_.read("errors"), redirected + "past the logger\nError: line\n" + redirected);
}

TEST_F(LogFiles, ARetiredStreamWritesToStandardError) {
  ASSERT_EQ(logger_->setLogFile(dir_, "log"), 1);
  std::ostream& held = logger_->plainLogStream();
  held << "to the file\n";
  ASSERT_EQ(logger_->setLogStream(&std::clog), 1);
  EXPECT_EQ(logger_->log.retired, &held);
  held << "late\n";
  EXPECT_EQ(directory_.read("log"), "to the file\n");
  EXPECT_EQ(standardError_.text(), "late\n");
}

TEST_F(LogFiles, AreEmptiedAtTheirLimit) {
  const struct {
    int64_t limit;
    int32_t result;
    const char* content;
  } cases[] = {{-1, 0, "12345"}, {6, 0, "12345"}, {5, 1, "x"}, {0, 1, "x"}};
  EXPECT_EQ(logger_->truncateLogFile(0), 0);  // no file yet
  for (const auto& c : cases) {
    directory_.write("log", "12345");
    ASSERT_EQ(logger_->setLogFile(dir_, "log"), 1);
    EXPECT_EQ(logger_->truncateLogFile(c.limit), c.result);
    if (c.result == 1) logger_->plainLogStream() << "x" << std::flush;
    EXPECT_EQ(directory_.read("log"), c.content) << c.limit;
  }
  ASSERT_EQ(logger_->setThirdFile(dir_, "third"), 1);
  EXPECT_EQ(logger_->truncateThirdFile(0), 1);

  ASSERT_EQ(logger_->setErrorFile(dir_, "errors"), 1);
  std::clog << std::flush;
  ASSERT_EQ(logger_->truncateErrorFile(1), 1);
  std::clog << "still there\n" << std::flush;
  EXPECT_EQ(directory_.read("errors"), "still there\n");
  failingOpens = 5;
  EXPECT_EQ(logger_->truncateErrorFile(1), -1);
  EXPECT_EQ(logger_->error.fileName, nullptr);
  logger_->errorStream() << "back\n";
  EXPECT_EQ(standardError_.text(), "Error: back\n");
}

TEST_F(LogFiles, AFullDiskLeavesErrnoAlone) {
  ASSERT_EQ(logger_->setLogStream(new std::ofstream("/dev/full")), 1);
  logger_->plainLogStream() << "lost";
  errno = EXDEV;
  logger_->logStream();  // flushes, in vain
  EXPECT_TRUE(logger_->log.stream->fail());
  EXPECT_EQ(errno, EXDEV);
}

TEST(Logger, ThreadsKeepEachOthersPrefixesWhole) {
  const test::CapturedStderr captured;
  const auto writeLines = [] {
    for (int i = 0; i < 200; ++i) {
      logStream() << "line\n";
      errorStream() << "line\n";
      logger().flushAll();
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back(writeLines);
  for (std::thread& thread : threads) thread.join();
  const std::string text = captured.text();
  for (const char* prefix : {kTimePrefix, "Error: "}) {
    const std::regex pattern(prefix);
    EXPECT_EQ(std::distance(std::sregex_iterator(text.begin(), text.end(), pattern), {}), 800);
  }
}

}  // namespace
}  // namespace qora
