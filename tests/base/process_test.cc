#include "base/process.h"

#include <sys/resource.h>

#include <csignal>
#include <memory>
#include <regex>
#include <sstream>

#include "base/string.h"
#include "tests/base/in_child.h"

namespace qora::process {
namespace {

const std::string kNotPermitted = "Process: ERROR! Error is 1 'Operation not permitted'.\n";
const std::string kIdentityNotPermitted = "Process: ERROR! Error is 1, Operation not permitted.\n";

TEST(ProcessStatus, TellsHowAChildEnded) {
  const struct {
    void (*end)();
    const char* told;
    int32_t code;
    const char* log;
  } cases[] = {
      {[] { ::_exit(3); }, "exited 1 3, killed 0 0 None, stopped 0 3 SIGQUIT", 3, ""},
      {[] { ::raise(SIGTERM); }, "exited 0 0, killed 1 15 SIGTERM, stopped 0 0 None", 4, ""},
      {[] { killSelf(); }, "exited 0 0, killed 1 9 SIGKILL, stopped 0 0 None", 4, ""},
      {[] { ::raise(SIGSTOP); }, "exited 0 19, killed 0 127 None, stopped 1 19 SIGSTOP", 0x137F,
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
    std::ostringstream told;
    told << "exited " << exitedNormally(status) << ' ' << exitStatus(status) << ", killed "
         << killedBySignal(status) << ' ' << terminationSignal(status) << ' '
         << terminationSignalName(status) << ", stopped " << stoppedBySignal(status) << ' '
         << stopSignal(status) << ' ' << stopSignalName(status);
    EXPECT_EQ(told.str(), c.told);
    const test::CapturedLog log;
    EXPECT_EQ(exitCode(status), c.code);
    EXPECT_EQ(log.withoutPrefixes(), c.log);
  }
}

int32_t nicenessAfter(int32_t result) {
  return result == 1 ? ::getpriority(PRIO_PROCESS, 0) : 99;
}

const test::ChildCase kChildCases[] = {
    {"another's process", test::kNobody, [] { return isProcessAlive(1); }, -EPERM,
     "Process: ERROR! Can't signal the pid 1.\n" + kNotPermitted},
    {"niceness", test::kNobody, [] { return nicenessAfter(setPriority(5)); }, 5, ""},
    {"class", test::kRoot, [] { return nicenessAfter(setPriority(103)); }, -20, ""},
    {"class not permitted", test::kNobody, [] { return setPriority(103); }, -EACCES,
     "Process: ERROR! Can't set priority to -20.\n"
     "Process: ERROR! Error is 13 'Permission denied'.\n"},
    {"below 0", test::kRoot, [] { return nicenessAfter(changePriority(-3)); }, -3, ""},
    {"no change", test::kNobody, [] { return changePriority(0); }, 1, ""},
    {"change not permitted", test::kNobody, [] { return changePriority(-1); }, -EPERM,
     "Process: ERROR! Can't change priority by -1.\n" + kNotPermitted},
    {"new ids", test::kRoot,
     [] {
       const bool changed = setGroupId(4242) == 1 && setUserId(4243) == 1;
       return static_cast<int32_t>(changed ? ::getegid() + ::geteuid() : 0);
     },
     8485, ""},
    {"user not permitted", test::kNobody, [] { return setUserId(0); }, -EPERM,
     "Process: ERROR! Can't set user id to 0.\n" + kIdentityNotPermitted},
    {"group not permitted", test::kNobody, [] { return setGroupId(0); }, -EPERM,
     "Process: ERROR! Can't set group id to 0.\n" + kIdentityNotPermitted},
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // they need all addresses
    {"no memory for a name", test::kAnyUser,
     [] {
       const std::string directory(64 << 20, 'd');
       const rlimit noMore = {1, 1};
       ::setrlimit(RLIMIT_AS, &noMore);
       return temporaryName(directory.c_str(), nullptr) == nullptr ? -1 : 1;
     },
     -ENOMEM,
     "Process: ERROR! Can't create temporary name.\n"
     "Process: ERROR! Error is 12 'Cannot allocate memory'.\n"},
#endif
};
TEST(Process, DependsOnRights) {
  test::checkInChildren(kChildCases);
}

TEST(Process, TakesNamesFromTheEnvironment) {
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
  const struct {
    const char *directory, *prefix, *pattern, *log;
  } cases[] = {
      {nullptr, nullptr, "/first/T-\\d+", ""},
      {"/d/", "x", "/d//x\\d+", ""},
      {"", nullptr, "T-\\d+", "Process: WARNING! Returning temporary name in current directory.\n"},
      {"d", longPrefix.c_str(), "d/p{1023}", ""},
  };
  for (const auto& c : cases) {
    const test::CapturedLog log;
    const std::unique_ptr<char, void (*)(void*)> name(temporaryName(c.directory, c.prefix), free);
    EXPECT_TRUE(std::regex_match(name.get(), std::regex(c.pattern))) << name.get();
    EXPECT_EQ(log.withoutPrefixes(), c.log);
  }
  for (const char* variable : {"TEMP", "TMP"}) ::unsetenv(variable);
}

TEST(Process, FindsUsersAndGroups) {
  static char* slot = nullptr;
  EXPECT_EQ(userIdOf("root"), 0);
  EXPECT_EQ(groupIdOf("root"), 0);
  EXPECT_EQ(groupNameOf(slot, 0), 1);
  EXPECT_EQ(userNameOf(slot, 0), 1);
  const struct {
    const char* who;
    int32_t (*call)();
  } unknown[] = {
      {"user 'no-such'", [] { return userIdOf("no-such"); }},
      {"group 'no-such'", [] { return groupIdOf("no-such"); }},
      {"user id '4000000000'", [] { return userNameOf(slot, 4000000000); }},
      {"group id '4000000000'", [] { return groupNameOf(slot, 4000000000); }},
  };
  for (const auto& c : unknown) {
    const test::CapturedLog log;
    EXPECT_EQ(c.call(), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(log.withoutPrefixes(), std::string("Process: ERROR! Can't get information for ") +
                                         c.who +
                                         ".\nProcess: ERROR! Error is 2, No such file or "
                                         "directory.\n");
  }
  EXPECT_STREQ(slot, "root") << "kept through the failures";
  string::release(slot);
}

TEST(ParameterText, IsEscapedTestedAndRead) {
  char text[] = " a=b,,c";
  escapeParameter(text);
  EXPECT_STREQ(text, "\037a\035b\036\036c");
  unescapeParameter(text);
  EXPECT_STREQ(text, " a=b,,c");

  const std::string longest(1023, 'x'), tooLong(1024, 'x');
  const struct {
    const char* text;
    int32_t limit, result;
  } texts[] = {{nullptr, -1, -1},       {"a=b", -1, -1},          {"a,b", -1, -1},
               {"a b", 4, 1},           {"a b", 3, -1},           {"", -5, -1},
               {longest.c_str(), 0, 1}, {tooLong.c_str(), 0, -1}, {tooLong.c_str(), -1, 1}};
  for (const auto& c : texts) EXPECT_EQ(isValidParameterText(c.text, c.limit), c.result);
  EXPECT_EQ(isValidParameter("key", tooLong.c_str(), -1), 1);
  EXPECT_EQ(isValidParameter(tooLong.c_str(), "value", -1), -1) << "the key has limit 0";
  EXPECT_EQ(isValidParameter("key", "value", 5), -1);

  const struct {
    const char* text;
    int32_t count;
  } counts[] = {{"12abc", 12},
                {"007", 7},
                {"2147483647", INT32_MAX},
                {"2147483648", -1},
                {"99999999999999999999", -1},
                {"-1", -1},
                {" 1", -1},
                {"", -1}};
  for (const auto& c : counts) EXPECT_EQ(parseCount(c.text), c.count) << c.text;

  const struct {
    const char *list, *key;
    int32_t result;
  } items[] = {{"a,ab", "ab", 0}, {"a,ab", "a", 1},  {"ab", "ab", 1}, {"ab", "a", 0},
               {"a", "ab", 0},    {"a,b", "a,b", 0}, {",b", "", 1}};
  for (const auto& c : items) EXPECT_EQ(isItem(c.list, c.key), c.result) << c.list << ' ' << c.key;

  char* slot = string::assign("old/name");
  EXPECT_EQ(replaceParameterPrefix(slot, nullptr, "new"), 0);
  EXPECT_EQ(replaceParameterPrefix(slot, "old", ""), 0);
  EXPECT_EQ(replaceParameterPrefix(slot, "old", "new"), 1);
  EXPECT_STREQ(slot, "new/name");
  string::release(slot);
}

}  // namespace
}  // namespace qora::process
