// SPDX-License-Identifier: BSD-2-Clause
#include "qora/base/logger.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <thread>

#include "qora/base/clog_line.h"
#include "qora/base/process.h"
#include "tests/base/calls.h"
#include "tests/support/temporary_root.h"

namespace qora {
namespace {

using test::contents;

const std::tuple<std::ostream& (*)(), const char*, bool> kAccessors[] = {  // prefix, on the log stream
    {logStream, "| ", true}, {errorStream, "Error: ", false}, {warningStream, "Warning: ", false},
    {infoStream, "Info: ", false}, {sessionStream, "Session: ", false}, {plainErrorStream, "", false},
    {plainLogStream, "", true}};

TEST(Logger, PrefixesByAccessorAndMode) {
  for (const int32_t mode : {0, 2, 1}) {
    for (const auto& [accessor, prefix, isLog] : kAccessors) {
      logger().mode = mode;
      const auto stream = accessor;
      const bool silent = mode == 0 || (mode == 2 && isLog);
      GIVES(silent ? "" : std::string("\n") + prefix + "line\n", static_cast<void>(stream() << "line\n"));
    }
  }
  GIVES("\n| line\n", static_cast<void>(standardErrorLog() << "line\n"));
  GIVES("\n| Error: line\n", static_cast<void>(standardErrorError() << "line\n"));
  // A log prefix sets its stream back to decimal, flushing all does so for both.
  GIVES("\n| ff\n| 255", static_cast<void>((logStream() << std::hex << 255 << "\n", logStream() << 255)));
  GIVES("\nError: ffff", static_cast<void>((errorStream() << std::hex << 255, plainErrorStream() << 255)));
  GIVES("\n255", (std::clog << std::hex, logger().flushAll(), static_cast<void>(std::clog << 255)));
  GIVES("\n| text/", logger().logText("text"));
  GIVES("\n| ", (logger().logText(nullptr), static_cast<void>(std::clog << "lost")));  // the stream is bad
  GIVES("\n| ", (logger().writeText = 0, logger().logText("text"), static_cast<void>(logger().writeText = 1)));
}

// Notes for each flush and each piece that is written whether another thread could have the lock.
struct LockProbe : std::stringbuf {
  std::string seen;
  void note() {
    std::thread([this] {
      const bool held = pthread_mutex_trylock(&loggerMutex()) != 0;
      if (!held) pthread_mutex_unlock(&loggerMutex());
      seen += held ? "held " : "free ";
    }).join();
  }
  int sync() override { return note(), 0; }
  std::streamsize xsputn(const char*, std::streamsize size) override {
    if (size > 0) note();
    return size;
  }
};

TEST(Logger, LockCoversFlushAndPrefixOnly) {
  LockProbe probe;
  std::streambuf* const own = std::clog.rdbuf(&probe);
  const auto seen = [&probe](auto&& call) { return call(), std::exchange(probe.seen, ""); };
  for (const auto& [accessor, prefix, isLog] : kAccessors) {
    const auto begin = accessor;
    EXPECT_EQ(seen([&] { begin() << "rest"; }), *prefix == '\0' ? "held free " : "held held free ");
  }
  EXPECT_EQ(seen([] { logger().flushAll(); }), "held held ");
  logger().lockLogPrefix = 0;
  EXPECT_EQ(seen([] { logStream() << "rest"; }), "free free free ");
  logger().lockLogPrefix = 1;
  std::clog.rdbuf(own);
}

// Standard error as the service sets it up; each read from the other end gives one write.
TEST(Logger, LinesLeaveInOneWriteEach) {
  int32_t packets[2];
  ASSERT_EQ(::pipe2(packets, O_DIRECT | O_NONBLOCK), 0);
  test::inChild([&] {
    ::dup2(packets[1], STDERR_FILENO);
    setvbuf(stderr, nullptr, _IOLBF, 4096);
    for (int32_t id = 1; id < 3; ++id) {
      logStream() << "Failed to attach to segment id " << id << ".\n";
      errorStream() << "Invalid command '" << id << "' in context ["
                    << "A"
                    << "].\n";
    }
  });
  for (const char* line :
      {R"(\d+ \d+ \S+ \S+ Failed to attach to segment id 1\.\n)", R"(Error: Invalid command '1' in context \[A\]\.\n)",
          R"(\d+ \d+ \S+ \S+ Failed to attach to segment id 2\.\n)",
          R"(Error: Invalid command '2' in context \[A\]\.\n)"}) {
    char packet[4096] = {};
    EXPECT_GT(::read(packets[0], packet, sizeof packet), 0);
    EXPECT_TRUE(std::regex_match(packet, std::regex(line))) << packet;
  }
  EXPECT_EQ(::close(packets[0]) + ::close(packets[1]), 0);
}

struct LogFiles : testing::Test {
  test::TemporaryRoot root;
  test::CapturedLog clog;
  Logger own;  // takes what std::clog writes to for standard error
  LogFiles() { own.configurable = 1; }
  std::string path(const char* name) const { return root.path() + "/" + name; }
  std::string in(const char* name) const { return contents(path(name)); }
  int32_t setLog(const char* name) { return own.setLogFile(root.path().c_str(), name); }
  int32_t setError(const char* name) { return own.setErrorFile(root.path().c_str(), name); }
  void write(const char* text) { own.plainLogStream() << text; }
};

TEST_F(LogFiles, AppendFlushAndRetire) {
  std::ofstream(path("old")) << "old\n";
  EXPECT_EQ(setLog("old"), 1);
  write("new\n");
  EXPECT_EQ(in("old"), "old\n");  // buffered
  std::ostream* const held = own.log.stream;
  const mode_t mask = ::umask(022);
  EXPECT_EQ(setLog("fresh"), 1);
  EXPECT_EQ(::umask(mask), 022u);
  struct stat status;
  EXPECT_EQ(::stat(path("fresh").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  EXPECT_EQ(in("old"), "old\nnew\n");
  *held << "late\n";  // a stream that was replaced goes to standard error
  write("first\n");
  EXPECT_EQ(in("fresh"), "");
  own.flushAll();
  EXPECT_EQ(in("fresh"), "first\n");
  own.buffered = 0;
  EXPECT_EQ(setLog("unbuffered"), 1);
  write("at once\n");
  EXPECT_EQ(in("unbuffered"), "at once\n");
  EXPECT_EQ(clog.take(), "late\n");
  own.setLogStream(new std::ofstream("/dev/full"));
  GIVES("", static_cast<void>((write("lost"), own.logStream())));  // flushing in vain leaves errno
}

TEST_F(LogFiles, OpeningIsTriedFiveTimes) {
  const test::Script script(std::vector<test::Answer>(9, {"fopen64", 0, EMFILE}));
  GIVES("-1 EMFILE", setLog("other"));
  GIVES("1 EMFILE", setLog("log"));
  GIVES("-1 ENOENT", setLog("missing/log"));
  EXPECT_STREQ(own.log.fileName, path("log").c_str());
}

TEST_F(LogFiles, OutputsByPermission) {
  own.configurable = 0;
  EXPECT_EQ(setLog("log") + setError("log") + own.setLogStream(nullptr) + own.setErrorStream(nullptr), 0);
  const char* const dir = root.path().c_str();
  EXPECT_EQ(own.setThirdFile(dir, "") + own.setThirdFile(dir, nullptr) + own.setThirdStream(&std::clog), 0);
  EXPECT_EQ(own.setThirdFile(dir, "third"), 1);
  *own.third.stream << "third\n" << std::flush;
  EXPECT_EQ(own.truncateThirdFile(7), 0);
  EXPECT_EQ(own.truncateThirdFile(6), 1);
  EXPECT_EQ(in("third") + in("log"), "");
  EXPECT_EQ(own.setThirdStream(&std::clog), 1);
}

TEST_F(LogFiles, StandardErrorGoesAlong) {
  EXPECT_EQ(setError("errors"), 1);
  std::clog << "past the logger\n";
  own.errorStream() << "line\n";
  EXPECT_EQ(own.setErrorStream(new std::ofstream(path("stream"))), 1);
  EXPECT_EQ(own.error.fileName, nullptr);
  std::clog << "captured\n";
  EXPECT_EQ(own.setErrorStream(&std::clog), 1);
  std::clog << "own again\n";
  const std::string redirected = "Logger: Redirected the standard error to ";
  EXPECT_EQ(in("errors"), redirected + "'" + path("errors") + "'.\npast the logger\nError: line\n");
  EXPECT_EQ(in("stream"), redirected + "the stream.\ncaptured\n");
  {
    Logger other;  // ends without having been set back
    other.configurable = 1;
    EXPECT_EQ(other.setErrorFile(nullptr, path("last").c_str()), 1);
  }
  std::clog << "and again\n";
  EXPECT_EQ(clog.take(), "own again\nand again\n");
}

TEST_F(LogFiles, EmptiedAtTheirLimit) {
  EXPECT_EQ(setLog("log"), 1);
  write("12345");
  own.flushAll();
  EXPECT_EQ(own.truncateLogFile(-1) + own.truncateLogFile(6) + own.truncateErrorFile(0), 0);
  EXPECT_EQ(in("log"), "12345");
  EXPECT_EQ(own.truncateLogFile(5), 1);
  write("anew");
  own.flushAll();
  EXPECT_EQ(in("log"), "anew");
  EXPECT_EQ(setError("errors") + own.truncateErrorFile(0), 2);
  std::clog << "still there\n" << std::flush;
  EXPECT_EQ(in("errors"), "still there\n");
  const test::Script script(std::vector<test::Answer>(5, {"fopen64", 0, EMFILE}));
  EXPECT_EQ(own.truncateErrorFile(1), -1);
  EXPECT_EQ(errno, EMFILE);
  EXPECT_EQ(own.error.fileName, nullptr);
  own.errorStream() << "back\n";
  EXPECT_EQ(clog.take(), "Error: back\n");
}

TEST(Logger, ThreadsAndForkedChildrenWriteAtOnce) {
  testing::internal::CaptureStderr();
  ::fcntl(STDERR_FILENO, F_SETFL, O_APPEND);  // it has many writers
  const auto write = [] {
    for (int n = 0; n < 200; ++n, logger().flushAll()) logStream(), errorStream() << "thread\n";
  };
  const auto fork = [] {
    for (int n = 0; n < 25; ++n, ::wait(nullptr)) {
      if (process::forkProcess() != 0) continue;
      ::alarm(60);  // a lock that was inherited held would wait for ever
      logStream() << "child\n";
      process::endProcess(0);
    }
  };
  std::vector<std::thread> threads;
  for (int n = 0; n < 3; ++n) threads.emplace_back(write);
  for (int n = 0; n < 2; ++n) threads.emplace_back(fork);
  for (std::thread& thread : threads) thread.join();
  const std::string text = testing::internal::GetCapturedStderr();
  const std::pair<const char*, int> pieces[] = {
      {"thread\n", 600}, {"child\n", 50}, {"Error: ", 600}, {R"(\d+ \d+ \d\d:\d\d:\d\d \d{3}\.\d{3} )", 650}};
  for (const auto& [piece, count] : pieces) {
    const std::regex whole(piece);
    EXPECT_EQ(std::distance(std::sregex_iterator(text.begin(), text.end(), whole), {}), count) << piece;
  }
}

}  // namespace
}  // namespace qora
