#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <atomic>
#include <filesystem>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "base/logger.h"
#include "base/process.h"
#include "tests/base/in_child.h"

namespace qora::process {
namespace {

using Texts = std::vector<const char*>;

// What the program writes to its outputs, and how it ends.
std::string outputOf(Texts program, Texts environment = {}, int32_t priority = kNormalPriority,
                     int32_t keepPrivileges = 1) {
  program.push_back(nullptr);
  environment.push_back(nullptr);
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) == -1) return "no pipe";
  const pid_t child =
      createProcess(nullptr, program.data(), environment.size() > 1 ? environment.data() : nullptr,
                    -1, fds[1], fds[1], priority, keepPrivileges);
  ::close(fds[1]);
  const std::string output = test::readAll(fds[0]);
  int status = -1;
  ::waitpid(child, &status, 0);
  return output + "exit " + std::to_string(exitStatus(status));
}

TEST(CreateProcess, RunsThePathWithArgumentsEnvironmentAndPriority) {
  ::setenv("PRESENT", "inherited", 1);
  const char* script = "echo $0 $1 ${PRESENT-none} $ADDED";
  EXPECT_EQ(outputOf({"/bin/sh", "sh", "-c", script, "name", "argument"}, {"ADDED=given"}),
            "name argument none given\nexit 0");
  EXPECT_EQ(outputOf({"sh", "sh", "-c", script, "name"}), "name inherited\nexit 0");
  EXPECT_EQ(outputOf({"nice", "nice"}, {}, 7), "7\nexit 0");
  EXPECT_EQ(outputOf({"nice", "nice"}, {}, kLowestPriority), "19\nexit 0");
  EXPECT_EQ(outputOf({"/no/such/program", "program"}), "exit 2") << "and not a word";
  EXPECT_EQ(outputOf({"/", "program"}, {"A="}), "exit 13");
}

TEST(CreateProcess, GivesTheChildItsStandardDescriptors) {
  constexpr int32_t kA = 60, kB = 61, kC = 62, kReport = 63;
  const struct {
    int32_t input, output, error;
    const char* roles;  // the file a, b or c, or the descriptor of the parent
    const char* stillOpen;
  } cases[] = {
      {kA, kB, kC, "abc", ""},       {-1, -1, -1, "012", " 60 61 62"},
      {0, 1, 2, "012", " 60 61 62"}, {-1, kB, kB, "0bb", " 60 62"},
      {kA, kB, kA, "aba", " 62"},    {kA, kA, -1, "aa2", " 61 62"},
      {kA, kA, kA, "aaa", " 61 62"}, {-1, 1, 1, "011", " 60 61 62"},
      {kA, kA, 0, "aaa", " 61 62"},
  };
  for (const int32_t fd : {kA, kB, kC, kReport}) {
    const char name[] = {static_cast<char>('a' + fd - kA), '\0'};
    const int created = ::memfd_create(name, 0);
    ::dup2(created, fd);
    ::close(created);
  }
  const char* const program[] = {
      "/bin/sh", "sh", "-c",
      "at=/proc/$$/fd; told=$(readlink $at/0 $at/1 $at/2); "
      "for n in 60 61 62; do [ -h $at/$n ] && told=\"$told $n\"; done; echo $told >$at/63",
      nullptr};
  for (const auto& c : cases) {
    const pid_t child =
        createProcess(nullptr, program, nullptr, c.input, c.output, c.error, kNormalPriority, 0);
    ::waitpid(child, nullptr, 0);
    std::string expected;
    for (const char role : std::string(c.roles)) {
      const std::string link = std::string("/proc/self/fd/") + role;
      expected += role < 'a' ? std::filesystem::read_symlink(link).string() + ' '
                             : std::string("/memfd:") + role + " (deleted) ";
    }
    expected.back() = '\n';
    char told[1000] = {};
    EXPECT_GT(::pread(kReport, told, sizeof told - 1, 0), 0);
    EXPECT_EQ(told, expected.insert(expected.size() - 1, c.stillOpen));
  }
  for (const int32_t fd : {kA, kB, kC, kReport}) ::close(fd);
}

void refuseNewProcesses() {
  const rlimit none = {0, 0};
  ::setrlimit(RLIMIT_NPROC, &none);
}

// The id of a program that is started with these real ids and root's effective ones.
int32_t idTold(const char* kind, int32_t keepPrivileges) {
  if (::setresgid(4242, 0, 0) + ::setresuid(4243, 0, 0) != 0) return -1;
  return std::stoi(outputOf({"id", "id", kind}, {}, kNormalPriority, keepPrivileges));
}

int32_t create(const char* path, const char* name) {
  const char* const program[] = {path, name, nullptr};
  return createProcess(nullptr, program, nullptr, -1, -1, -1, kNormalPriority, 0);
}

TEST(ProcessStart, FailsOrSucceedsInChildren) {
  static constexpr const char* kNone[] = {nullptr};
  const std::string refused = "WARNING! Error is 11 'Resource temporarily unavailable'.\n";
  const std::string missing = "Process: WARNING! Error is 2 'No such file or directory'.\n";
  const test::ChildCase cases[] = {
      {test::kNobody, [] { return refuseNewProcesses(), forkProcess(); }, -EAGAIN, ""},
      {test::kNobody, [] { return refuseNewProcesses(), create("id", "id"); }, -EAGAIN,
       "Process: WARNING! Function fork() failed.\nProcess: " + refused},
      {test::kAnyUser,  // and there is no child to wait for
       [] { return create("id", nullptr) == -1 && errno == EINVAL ? ::wait(nullptr) : 0; }, -ECHILD,
       "Process: WARNING! Invalid number of parameters in process creation.\n"},
      {test::kAnyUser, [] { return execProgram("/no", 0, kNone, kNone); }, -ENOENT,
       "Process: WARNING! Function execve() for '/no' failed.\n" + missing},
      {test::kAnyUser,
       [] { return ::setenv("PATH", "/no", 1), execProgram("none", 0, kNone, nullptr); }, -ENOENT,
       "Process: WARNING! Function execvp() for 'none' failed.\n" + missing},
      {test::kRoot, [] { return idTold("-u", 0); }, 4243, ""},
      {test::kRoot, [] { return idTold("-g", 0); }, 4242, ""},
      {test::kRoot, [] { return idTold("-u", 1); }, 0, ""},
      {test::kAnyUser,
       [] {
         const pid_t session = ::getsid(0);
         return detachFromTerminal() == 1 && ::getsid(0) != session ? 1 : 0;
       },
       1, ""},
      {test::kNobody, [] { return refuseNewProcesses(), detachFromTerminal(); }, -EAGAIN,
       "Process: WARNING! Detach from terminal failed.\nProvess: " + refused},  // as it is spelt
  };
  test::checkInChildren(cases);
}

TEST(ForkProcess, LetsThreadsAndChildrenLogAtOnce) {
  constexpr int32_t kLoggers = 3, kLines = 200, kForkers = 2, kForks = 25;
  std::atomic<int32_t> childrenDone = 0;
  const auto write = [] {
    for (int32_t line = 0; line < kLines; ++line) logStream() << "from a thread\n";
  };
  const auto fork = [&childrenDone] {
    for (int32_t n = 0; n < kForks; ++n) {
      const pid_t child = forkProcess();
      if (child == 0) {
        ::alarm(60);  // a lock that was inherited held would wait for ever
        logStream() << "from a child\n";
        endProcess(0);
      }
      int status = -1;
      ::waitpid(child, &status, 0);
      childrenDone += exitedNormally(status);
    }
  };
  testing::internal::CaptureStderr();
  ::fcntl(STDERR_FILENO, F_SETFL, O_APPEND);  // it has many writers
  std::vector<std::thread> threads;
  for (int32_t i = 0; i < kLoggers; ++i) threads.emplace_back(write);
  for (int32_t i = 0; i < kForkers; ++i) threads.emplace_back(fork);
  for (std::thread& thread : threads) thread.join();
  const std::string text = testing::internal::GetCapturedStderr();
  const auto count = [&text](const char* pattern) {
    const std::regex regex(pattern);
    return std::distance(std::sregex_iterator(text.begin(), text.end(), regex), {});
  };
  EXPECT_EQ(childrenDone, kForkers * kForks);
  EXPECT_EQ(count("from a thread\n"), kLoggers * kLines);
  EXPECT_EQ(count("from a child\n"), kForkers * kForks);
  EXPECT_EQ(count(R"(\d+ \d+ \d\d:\d\d:\d\d \d{3}\.\d{3} )"), kLoggers * kLines + kForkers * kForks)
      << "prefixes in one piece";
}

}  // namespace
}  // namespace qora::process
