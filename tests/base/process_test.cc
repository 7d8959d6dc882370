// SPDX-License-Identifier: BSD-2-Clause
#include "qora/base/process.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <functional>

#include "qora/base/logger.h"
#include "tests/base/calls.h"
#include "tests/support/temporary_root.h"

namespace qora::process {
namespace {

using test::contents;
using test::inChild;
using test::Script;

TEST(Process, HowOthersEndedAndThisOneRuns) {
  EXPECT_EQ(exitCode(3 << 8), 3);
  EXPECT_EQ(exitCode(SIGTERM), 4);
  GIVES("4991\n| Process: WARNING! Unrecognized exit code '4991'.\n", exitCode(0x137F));
  EXPECT_EQ(stoppedBySignal(0x137F) + stoppedBySignal(SIGTERM), 1);
  GIVES("SIGSTOP", stopSignalName(0x137F));
  GIVES("SIGABRT", terminationSignalName(0x80 | SIGABRT));  // with a core
  int32_t status = 0;
  if (::fork() == 0) killSelf();
  ::wait(&status);
  EXPECT_EQ(status, SIGKILL);
  for (const int32_t niceness : {5, -3}) EXPECT_EQ(mapPriority(niceness), niceness);
  const int32_t classes[] = {19, 0, -10, -20};
  for (int32_t n = 0; n < 4; ++n) EXPECT_EQ(mapPriority(kLowestPriority + n), classes[n]);
  inChild([] {
    EXPECT_EQ(changePriority(0) + setPriority(kLowestPriority), 2);
    EXPECT_EQ(::getpriority(PRIO_PROCESS, 0), 19);
    const Script script({{"nice", -13}});
    EXPECT_EQ(changePriority(-3), 1);  // a niceness, no failure
    EXPECT_EQ(setGroupId(::getgid()) + setUserId(::getuid()), 2);
  });
  EXPECT_EQ(isProcessAlive(::getpid()), 1);
  const Script script({{"kill", -1, ESRCH}});
  GIVES("0 ESRCH", isAlive(1));
}

TEST(Process, Failures) {
  char* text = nullptr;
  const char* const program[] = {"/no/such", "such", nullptr};
  const struct {
    test::Answer answer;
    std::function<int32_t()> call;
    const char* lines;
    bool quoted;  // the text of the error
  } rows[] = {
      // clang-format off
      {{"kill", -1, EPERM}, [] { return isAlive(1); }, "ERROR! Can't signal the pid 1.", true},
      {{"setpriority", -1, EACCES}, [] { return setPriority(102); }, "ERROR! Can't set priority to -10.", true},
      {{"nice", -1, EPERM}, [] { return changePriority(-1); }, "ERROR! Can't change priority by -1.", true},
      {{"malloc", 0, ENOMEM}, [] { return temporaryName("d", "p") ? 1 : -1; }, "ERROR! Can't create temporary name.", true},
      {{"setuid", -1, EPERM}, [] { return setUserId(4000000000); }, "ERROR! Can't set user id to 4000000000.", false},
      {{"setgid", -1, EPERM}, [] { return setGroupId(0); }, "ERROR! Can't set group id to 0.", false},
      {{"getpwnam_r", 0, ENOENT}, [] { return userIdOf("x"); }, "ERROR! Can't get information for user 'x'.", false},
      {{"sysconf", 1, ERANGE}, [] { return groupIdOf("root"); }, "ERROR! Can't get information for group 'root'.", false},
      {{"sysconf", 1, ERANGE}, [&] { return userNameOf(text, 0); }, "ERROR! Can't get information for user id '0'.", false},
      {{"sysconf", 1, ERANGE}, [&] { return groupNameOf(text, 0); }, "ERROR! Can't get information for group id '0'.", false},
      {{"fork", -1, EAGAIN}, [&] { return createProcess(nullptr, program, nullptr, -1, -1, -1, 0, 1); }, "WARNING! Function fork() failed.", true},
      {{"", 0, ENOENT}, [&] { return execProgram("/no", 0, program, program); }, "WARNING! Function execve() for '/no' failed.", true},
      {{"", 0, ENOENT}, [&] { return execProgram("/no", 0, program, nullptr); }, "WARNING! Function execvp() for '/no' failed.", true},
      // clang-format on
  };
  for (const auto& [answer, call, lines, quoted] : rows) {
    const Script script(answer.function.empty() ? std::vector<test::Answer>{} : std::vector{answer});
    const auto& fails = call;
    const std::string level(lines, strchr(lines, ' ')), error = strerror(answer.error);
    const std::string reason = quoted ? " '" + error + "'" : ", " + error;
    GIVES(std::string("-1 ") + strerrorname_np(answer.error) + "\n| Process: " + lines + "\n| Process: " + level +
              " Error is " + std::to_string(answer.error) + reason + ".\n",
        fails());
  }
  EXPECT_EQ(text, nullptr);  // as it was
  {
    const Script script({{"fork", -1, EINTR}, {"fork", -1, EAGAIN}});
    GIVES("-1 EAGAIN", forkProcess());
  }
  const Script script({{"daemon", -1, EAGAIN}});
  GIVES(
      "-1 EAGAIN\n| Process: WARNING! Detach from terminal failed.\n"
      "| Provess: WARNING! Error is 11 'Resource temporarily unavailable'.\n",
      detachFromTerminal());
  GIVES("-1 EINVAL\n| Process: WARNING! Invalid number of parameters in process creation.\n",
      createProcess(nullptr, program + 1, nullptr, -1, -1, -1, 0, 1));
  GIVES("-1 ECHILD", ::wait(nullptr));  // nothing was started
}

TEST(Process, Names) {
  char* name = nullptr;
  EXPECT_EQ(userIdOf("root") + userNameOf(name, 0), 1);
  GIVES("root", test::take(std::exchange(name, nullptr)));
  const Script script({{"sysconf", -1}, {"sysconf", -1}});
  EXPECT_EQ(groupIdOf("root") + groupNameOf(name, 0), 1);
  GIVES("root", test::take(name));
  inChild([] {
    const auto set = [](const char* variable, const char* value) {
      return value != nullptr ? ::setenv(variable, value, 1) : ::unsetenv(variable);
    };
    const char* const rows[][5] = {{nullptr, "localhost", nullptr, nullptr, "/tmp"}, {"", "", "", "", "/tmp"},
        {"pc", "pc", "", "/2", "/2"}, {"pc", "pc", "/1", "/2", "/1"}};
    for (const auto& [host, hostGives, temp, tmp, directory] : rows) {
      set("HOSTNAME", host), set("TEMP", temp), set("TMP", tmp);
      EXPECT_STREQ(hostName(), hostGives);
      EXPECT_STREQ(temporaryDirectory(), directory);
    }
    const auto madeUp = [](const char* directory, const char* prefix) {
      const std::unique_ptr<char, decltype(&free)> text(temporaryName(directory, prefix), free);
      return std::regex_replace(text.get(), std::regex("\\d+$"), "N");
    };
    const std::string longest(1023, 'p'),
        bare = "\n| Process: WARNING! Returning temporary name in current directory.\n";
    GIVES("/1/T-N", madeUp(nullptr, nullptr));
    GIVES("/d//xN", madeUp("/d/", "x"));
    GIVES("T-N" + bare, madeUp("", nullptr));
    GIVES(longest + bare, madeUp("", (longest + "pp").c_str()));
  });
  for (const char* host : {"localhost", "localhost.localdomain", "127.0.0.1", "Localhost", ""}) {
    EXPECT_EQ(isLocalHostName(host), host[0] == 'l' || host[0] == '1') << host;
  }
}

struct Start : testing::Test {
  const test::TemporaryRoot root;
  const std::string path = root.path() + "/out";
  int32_t input = -1, outputEnd = -1, error = -1, priority = kNormalPriority, keepPrivileges = 1;

  // The exit status.
  int32_t run(std::vector<const char*> words, const char* variable = nullptr) {
    words.push_back(nullptr);
    const char* const environment[] = {variable, nullptr};
    int32_t status = -1;
    ::waitpid(createProcess(nullptr, words.data(), variable != nullptr ? environment : nullptr, input, outputEnd, error,
                  priority, keepPrivileges),
        &status, 0);
    return exitStatus(status);
  }
  // The exit status and the output.
  std::string output(const std::vector<const char*>& words, const char* variable = nullptr) {
    outputEnd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const int32_t status = run(words, variable);
    ::close(outputEnd);
    return std::to_string(status) + " " + contents(path);
  }
};

TEST_F(Start, ArgumentsEnvironmentPriorityAndPrivileges) {
  inChild([this] {
    ::setenv("PRESENT", "inherited", 1);
    const char* const script = "echo $0 $1 ${PRESENT-none} $ADDED";
    GIVES("0 name argument none given\n", output({"/bin/sh", "sh", "-c", script, "name", "argument"}, "ADDED=given"));
    GIVES("0 name inherited\n", output({"sh", "sh", "-c", script, "name"}));
    priority = kLowestPriority;
    GIVES("0 19\n", output({"nice", "nice"}));
    // Only root can have privileges that are not its own.
    if (::setresgid(4242, 0, 0) != 0 || ::setresuid(4243, 0, 0) != 0) return;
    GIVES("0 0\n", output({"id", "id", "-u"}));
    keepPrivileges = 0;
    GIVES("0 4243\n", output({"id", "id", "-u"}));
    GIVES("0 4242\n", output({"id", "id", "-g"}));
  });
}

// The child's streams are copies: neither a line of its own nor one that waits in a buffer leaves.
TEST_F(Start, ChildThatCannotRunSaysNothing) {
  const std::string log = root.path() + "/log";
  testing::internal::CaptureStderr();
  logger().configurable = 1;
  logger().setLogFile(nullptr, log.c_str());
  logger().plainLogStream() << "waiting\n";
  EXPECT_EQ(output({"/no/such", "such"}), "2 ");
  logger().setLogStream(&std::clog);
  logger().configurable = 0;
  EXPECT_EQ(contents(log), "waiting\n");
  EXPECT_EQ(output({"/", "directory"}, "A="), "13 ");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(Start, Descriptors) {
  const char* const names[] = {"in", "out", "err", "a", "b", "c"};
  const std::string show =
      "for n in 0 1 2 60 61 62; do readlink /proc/$$/fd/$n || echo none; done |"
      "sed 's,/memfd:,,; s, .*,,' | xargs > " +
      path;
  const int32_t rows[][3] = {{60, 61, 62}, {-1, -1, -1}, {0, 1, 2}, {-1, 61, 61}, {60, 61, 60}, {60, 60, -1},
      {60, 60, 60}, {-1, 1, 1}, {60, 60, 0}, {60, 0, -1}};
  const char* const shown[] = {"a b c none none none", "in out err a b c", "in out err a b c", "in b b a none c",
      "a b a none none c", "a a err none b c", "a a a none b c", "in out out a b c", "a a a none b c",
      "a a err none b c"};
  for (size_t row = 0; row < std::size(rows); ++row) {
    inChild([&] {
      for (int32_t n = 0; n < 6; ++n) ::dup2(::memfd_create(names[n], MFD_CLOEXEC), n < 3 ? n : 57 + n);
      input = rows[row][0], outputEnd = rows[row][1], error = rows[row][2];
      ::_exit(run({"/bin/sh", "sh", "-c", show.c_str()}));
    });
    EXPECT_EQ(contents(path), shown[row] + std::string("\n")) << row;
  }
}

TEST(Process, DetachesFromTheTerminal) {
  int32_t ends[2];
  char leads = '?';
  ASSERT_EQ(::pipe(ends), 0);
  inChild([&] {
    const bool before = ::getsid(0) == ::getpid(), detached = detachFromTerminal() == 1;
    const bool leadsNow = !before && detached && ::getsid(0) == ::getpid();
    if (::write(ends[1], leadsNow ? "y" : "n", 1) != 1) ::_exit(1);
  });
  EXPECT_EQ(::read(ends[0], &leads, 1), 1);
  EXPECT_EQ(leads, 'y');
  EXPECT_EQ(::close(ends[0]) + ::close(ends[1]), 0);
}

}  // namespace
}  // namespace qora::process
