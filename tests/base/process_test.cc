#include "base/process.h"

#include <sys/resource.h>

#include <csignal>
#include <regex>

#include "base/string.h"
#include "tests/base/in_child.h"
#include "tests/base/seen.h"

namespace qora::process {
namespace {

using test::Seen;

TEST(ProcessStatus, TellsHowAChildEnded) {
  const struct {
    void (*end)();
    const char* told;  // exited, status, killed, signal, name, stopped, signal, name, code
    const char* log;
  } cases[] = {
      {[] { ::_exit(3); }, "1 3 0 0 None 0 3 SIGQUIT 3", ""},
      {[] { ::raise(SIGTERM); }, "0 0 1 15 SIGTERM 0 0 None 4", ""},
      {[] { killSelf(); }, "0 0 1 9 SIGKILL 0 0 None 4", ""},
      {[] { ::raise(SIGSTOP); }, "0 19 0 127 None 1 19 SIGSTOP 4991",
       "Process: WARNING! Unrecognized exit code '4991'.\n"},
  };
  for (const auto& c : cases) {
    const pid_t child = ::fork();
    if (child == 0) c.end();
    EXPECT_EQ(isProcessAlive(child), 1);
    int status = 0;
    ::waitpid(child, &status, WUNTRACED);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    EXPECT_EQ(isAlive(child), 0);
    const test::CapturedLog log;
    const Seen told{exitedNormally(status),
                    exitStatus(status),
                    killedBySignal(status),
                    terminationSignal(status),
                    terminationSignalName(status),
                    stoppedBySignal(status),
                    stopSignal(status),
                    stopSignalName(status),
                    exitCode(status)};
    EXPECT_EQ(told.text, c.told);
    EXPECT_EQ(log.withoutPrefixes(), c.log);
  }
}

int32_t nicenessAfter(int32_t result) {
  return result == 1 ? ::getpriority(PRIO_PROCESS, 0) : 99;
}

int32_t idsChanged() {
  const bool changed = setGroupId(4242) == 1 && setUserId(4243) == 1;
  return changed && ::getegid() == 4242 && ::geteuid() == 4243;
}

TEST(Process, DependsOnRights) {
  const std::string notPermitted = "Process: ERROR! Error is 1 'Operation not permitted'.\n";
  const std::string idNotPermitted = "Process: ERROR! Error is 1, Operation not permitted.\n";
  const test::ChildCase cases[] = {
      {test::kNobody, [] { return nicenessAfter(setPriority(5)); }, 5, ""},
      {test::kRoot, [] { return nicenessAfter(setPriority(kHighestPriority)); }, -20, ""},
      {test::kNobody, [] { return setPriority(kHighPriority); }, -EACCES,
       "Process: ERROR! Can't set priority to -10.\n"
       "Process: ERROR! Error is 13 'Permission denied'.\n"},
      {test::kRoot, [] { return nicenessAfter(changePriority(-3)); }, -3, ""},
      {test::kNobody, [] { return changePriority(0); }, 1, ""},
      {test::kNobody, [] { return changePriority(-1); }, -EPERM,
       "Process: ERROR! Can't change priority by -1.\n" + notPermitted},
      {test::kNobody, [] { return isProcessAlive(1); }, -EPERM,
       "Process: ERROR! Can't signal the pid 1.\n" + notPermitted},
      {test::kRoot, idsChanged, 1, ""},
      {test::kNobody, [] { return setUserId(0); }, -EPERM,
       "Process: ERROR! Can't set user id to 0.\n" + idNotPermitted},
      {test::kNobody, [] { return setGroupId(0); }, -EPERM,
       "Process: ERROR! Can't set group id to 0.\n" + idNotPermitted},
  };
  test::checkInChildren(cases);
}

TEST(Process, NamesTheHostAndTemporaryFiles) {
  ::unsetenv("HOSTNAME");
  EXPECT_STREQ(hostName(), defaultHostName());
  ::setenv("HOSTNAME", "", 1);
  EXPECT_STREQ(hostName(), "");
  for (const char* name : {"localhost", "localhost.localdomain", "127.0.0.1", "Localhost", ""}) {
    EXPECT_EQ(isLocalHostName(name), *name == 'l' || *name == '1') << name;
  }
  ::unsetenv("TMP");
  ::setenv("TEMP", "", 1);
  EXPECT_STREQ(temporaryDirectory(), "/tmp");
  ::setenv("TMP", "/second", 1);
  EXPECT_STREQ(temporaryDirectory(), "/second");
  ::setenv("TEMP", "/first", 1);
  const std::string longPrefix(2000, 'p');
  const char* const cases[][3] = {{nullptr, nullptr, "/first/T-\\d+"},
                                  {"/d/", "x", "/d//x\\d+"},
                                  {"", nullptr, "T-\\d+"},
                                  {"d", longPrefix.c_str(), "d/p{1023}"}};
  const test::CapturedLog log;
  for (const auto& [directory, prefix, pattern] : cases) {
    char* name = temporaryName(directory, prefix);
    EXPECT_TRUE(std::regex_match(name, std::regex(pattern))) << name;
    free(name);
  }
  EXPECT_EQ(log.withoutPrefixes(),
            "Process: WARNING! Returning temporary name in current directory.\n");
  for (const char* variable : {"TEMP", "TMP"}) ::unsetenv(variable);
}

TEST(Process, HasNoMemoryForAName) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers need all addresses";
#endif
  const auto body = [] {
    const std::string directory(64 << 20, 'd');
    const rlimit noMore = {1, 1};
    ::setrlimit(RLIMIT_AS, &noMore);
    return temporaryName(directory.c_str(), nullptr) == nullptr ? -1 : 1;
  };
  EXPECT_EQ(test::runInChild(test::kAnyUser, body),
            "-12\nProcess: ERROR! Can't create temporary name.\n"
            "Process: ERROR! Error is 12 'Cannot allocate memory'.\n");
}

TEST(Process, FindsUsersAndGroups) {
  const test::CapturedLog log;
  char* slot = nullptr;
  EXPECT_EQ(Seen(userIdOf("root"), groupIdOf("root"), groupNameOf(slot, 0)).text, "0 0 1");
  EXPECT_EQ(userNameOf(slot, 0), 1);
  const Seen unknown{userIdOf("none"),      errno, groupIdOf("none"),      errno,
                     userNameOf(slot, 4e9), errno, groupNameOf(slot, 4e9), errno};
  EXPECT_EQ(unknown.text, "-1 2 -1 2 -1 2 -1 2");
  EXPECT_STREQ(slot, "root") << "kept through the failures";
  std::string lines;
  for (const char* who :
       {"user 'none'", "group 'none'", "user id '4000000000'", "group id '4000000000'"}) {
    lines += std::string("Process: ERROR! Can't get information for ") + who +
             ".\nProcess: ERROR! Error is 2, No such file or directory.\n";
  }
  EXPECT_EQ(log.withoutPrefixes(), lines);
  string::release(slot);
}

TEST(ParameterText, IsEscapedTestedAndRead) {
  char text[] = " a=b,,c";
  escapeParameter(text);
  EXPECT_STREQ(text, "\037a\035b\036\036c");
  unescapeParameter(text);
  EXPECT_STREQ(text, " a=b,,c");

  const std::string x1023(1023, 'x'), x1024(1024, 'x');
  const char *longest = x1023.c_str(), *tooLong = x1024.c_str();
  for (const char* bad : {static_cast<const char*>(nullptr), "a=b", "a,b"}) {
    EXPECT_EQ(isValidParameterText(bad, -1), -1);
  }
  const Seen lengths{isValidParameterText("a b", 4),     isValidParameterText("a b", 3),
                     isValidParameterText("", -5),       isValidParameterText(longest, 0),
                     isValidParameterText(tooLong, 0),   isValidParameterText(tooLong, -1),
                     isValidParameter("k", tooLong, -1), isValidParameter(tooLong, "v", -1),
                     isValidParameter("k", "value", 5)};
  EXPECT_EQ(lengths.text, "1 -1 -1 1 -1 1 1 -1 -1");

  const Seen counts{parseCount("12abc"),
                    parseCount("007"),
                    parseCount("2147483647"),
                    parseCount("2147483648"),
                    parseCount("99999999999999999999"),
                    parseCount("-1"),
                    parseCount(" 1"),
                    parseCount("")};
  EXPECT_EQ(counts.text, "12 7 2147483647 -1 -1 -1 -1 -1");
  const Seen items{isItem("a,ab", "a"),  isItem("ab", "ab"), isItem(",b", ""),
                   isItem("a,ab", "ab"), isItem("ab", "a"),  isItem("a", "ab"),
                   isItem("a,b", "a,b")};
  EXPECT_EQ(items.text, "1 1 1 0 0 0 0");

  char* slot = string::assign("old/name");
  const Seen replaced{replaceParameterPrefix(slot, nullptr, "new"),
                      replaceParameterPrefix(slot, "old", ""),
                      replaceParameterPrefix(slot, "old", "new"), slot};
  EXPECT_EQ(replaced.text, "0 0 1 new/name");
  string::release(slot);
}

}  // namespace
}  // namespace qora::process
