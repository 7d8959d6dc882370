#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <regex>
#include <sstream>

#include "base/process.h"
#include "tests/base/in_child.h"
#include "tests/support/captured_log.h"

namespace qora::process {
namespace {

struct StatusCase {
  const char* what;
  void (*end)();
  const char* told;  // each test and what belongs to it
  int32_t code;      // 0: the status itself
  const char* log;
};

constexpr StatusCase kStatusCases[] = {
    {"exits", [] { ::_exit(3); }, "exited 1 3, killed 0 0 None, stopped 0 3 SIGQUIT", 3, ""},
    {"is ended by a signal", [] { ::raise(SIGTERM); },
     "exited 0 0, killed 1 15 SIGTERM, stopped 0 0 None", 4, ""},
    {"kills itself", [] { killSelf(); }, "exited 0 0, killed 1 9 SIGKILL, stopped 0 0 None", 4, ""},
    {"stops", [] { ::raise(SIGSTOP); }, "exited 0 19, killed 0 127 None, stopped 1 19 SIGSTOP",
     0x137F, "Process: WARNING! Unrecognized exit code '4991'.\n"},
};

TEST(ProcessStatus, TellsHowAChildEnded) {
  for (const StatusCase& row : kStatusCases) {
    SCOPED_TRACE(row.what);
    const pid_t child = ::fork();
    if (child == 0) {
      row.end();
      ::_exit(99);
    }
    EXPECT_EQ(isProcessAlive(child), 1);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, WUNTRACED), child);
    if (stoppedBySignal(status) == 1) {
      ::kill(child, SIGKILL);
      ::waitpid(child, nullptr, 0);
    }
    EXPECT_EQ(isAlive(child), 0) << "the second name";
    std::ostringstream told;
    told << "exited " << exitedNormally(status) << ' ' << exitStatus(status) << ", killed "
         << killedBySignal(status) << ' ' << terminationSignal(status) << ' '
         << terminationSignalName(status) << ", stopped " << stoppedBySignal(status) << ' '
         << stopSignal(status) << ' ' << stopSignalName(status);
    EXPECT_EQ(told.str(), row.told);
    test::CapturedLog log;
    EXPECT_EQ(exitCode(status), row.code);
    EXPECT_EQ(log.withoutPrefixes(), row.log);
  }
}

int32_t nicenessAfter(int32_t result) {
  return result == 1 ? ::getpriority(PRIO_PROCESS, 0) : 99;
}

const test::ChildCase kChildCases[] = {
    {"the process is another users", test::kNobody, [] { return isProcessAlive(1); }, -1, EPERM,
     "Process: ERROR! Can't signal the pid 1.\n"
     "Process: ERROR! Error is 1 'Operation not permitted'.\n"},
    {"niceness as it is", test::kNobody, [] { return nicenessAfter(setPriority(5)); }, 5, 0, ""},
    {"highest class", test::kRoot, [] { return nicenessAfter(setPriority(kHighestPriority)); }, -20,
     0, ""},
    {"highest class is refused", test::kNobody, [] { return setPriority(kHighestPriority); }, -1,
     EACCES,
     "Process: ERROR! Can't set priority to -20.\n"
     "Process: ERROR! Error is 13 'Permission denied'.\n"},
    {"change to a negative niceness", test::kRoot, [] { return nicenessAfter(changePriority(-3)); },
     -3, 0, ""},
    {"change by nothing", test::kNobody, [] { return changePriority(0); }, 1, 0, ""},
    {"change is refused", test::kNobody, [] { return changePriority(-1); }, -1, EPERM,
     "Process: ERROR! Can't change priority by -1.\n"
     "Process: ERROR! Error is 1 'Operation not permitted'.\n"},
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // they need all addresses
    {"no memory for a name", test::kAnyUser,
     [] {
       const std::string directory(64 << 20, 'd');
       const rlimit noMore = {1, 1};
       ::setrlimit(RLIMIT_AS, &noMore);
       return temporaryName(directory.c_str(), nullptr) == nullptr ? -1 : 1;
     },
     -1, ENOMEM,
     "Process: ERROR! Can't create temporary name.\n"
     "Process: ERROR! Error is 12 'Cannot allocate memory'.\n"},
#endif
};
class ProcessStatusInChild : public test::InChild {};
TEST_P(ProcessStatusInChild, Comes) {
  check();
}
INSTANTIATE_TEST_SUITE_P(Case, ProcessStatusInChild, testing::ValuesIn(kChildCases),
                         test::caseName);

TEST(ProcessStatus, MapsPriorityClasses) {
  constexpr int32_t kCases[][2] = {{100, 19}, {101, 0},   {102, -10}, {103, -20},
                                   {99, 99},  {104, 104}, {-7, -7}};
  for (const auto& [value, niceness] : kCases) EXPECT_EQ(mapPriority(value), niceness) << value;
}

TEST(ProcessNames, ComeFromTheEnvironment) {
  ::unsetenv("HOSTNAME");
  EXPECT_STREQ(hostName(), defaultHostName());
  ::setenv("HOSTNAME", "", 1);
  EXPECT_STREQ(hostName(), "") << "set, though empty";
  ::unsetenv("TEMP");
  ::unsetenv("TMP");
  EXPECT_STREQ(temporaryDirectory(), "/tmp");
  ::setenv("TMP", "/second", 1);
  ::setenv("TEMP", "", 1);
  EXPECT_STREQ(temporaryDirectory(), "/second") << "TEMP is empty";
  ::setenv("TEMP", "/first", 1);
  EXPECT_STREQ(temporaryDirectory(), "/first");

  for (const char* name : {"localhost", "localhost.localdomain", "127.0.0.1"}) {
    EXPECT_EQ(isLocalHostName(name), 1) << name;
  }
  for (const char* name : {"", "Localhost", "localhost.", "127.0.0.2"}) {
    EXPECT_EQ(isLocalHostName(name), 0) << name;
  }

  struct NameCase {
    const char *directory, *prefix, *pattern, *log;
  };
  const std::string longPrefix(2000, 'p');
  const NameCase cases[] = {
      {nullptr, nullptr, "/first/T-\\d+", ""},
      {"/d/", "x", "/d//x\\d+", ""},
      {"", nullptr, "T-\\d+", "Process: WARNING! Returning temporary name in current directory.\n"},
      {"d", longPrefix.c_str(), "d/p{1023}", ""},
  };
  for (const NameCase& row : cases) {
    test::CapturedLog log;
    char* name = temporaryName(row.directory, row.prefix);
    EXPECT_TRUE(std::regex_match(name, std::regex(row.pattern))) << name;
    EXPECT_EQ(log.withoutPrefixes(), row.log);
    free(name);
  }
}

}  // namespace
}  // namespace qora::process
