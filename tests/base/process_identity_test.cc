#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "base/process.h"
#include "base/string.h"
#include "tests/base/in_child.h"
#include "tests/support/captured_log.h"

namespace qora::process {
namespace {

const test::ChildCase kChildCases[] = {
    {"root becomes another user", test::kRoot,
     [] {
       const bool changed = setGroupId(4242) == 1 && setUserId(4243) == 1;
       return changed && ::getegid() == 4242 && ::geteuid() == 4243 ? 1 : 0;
     },
     1, 0, ""},
    {"another user", test::kNobody, [] { return setUserId(0); }, -1, EPERM,
     "Process: ERROR! Can't set user id to 0.\n"
     "Process: ERROR! Error is 1, Operation not permitted.\n"},
    {"another group", test::kNobody, [] { return setGroupId(0); }, -1, EPERM,
     "Process: ERROR! Can't set group id to 0.\n"
     "Process: ERROR! Error is 1, Operation not permitted.\n"},
};
class ProcessIdentityInChild : public test::InChild {};
TEST_P(ProcessIdentityInChild, Comes) {
  check();
}
INSTANTIATE_TEST_SUITE_P(Case, ProcessIdentityInChild, testing::ValuesIn(kChildCases),
                         test::caseName);

TEST(ProcessIdentity, FindsUsersAndGroups) {
  test::CapturedLog log;
  passwd user;
  group members;
  char* scratch = nullptr;
  ASSERT_EQ(lookupUser("root", user, scratch), 1);
  EXPECT_STREQ(user.pw_dir, "/root");
  delete[] scratch;
  ASSERT_EQ(lookupGroup("root", members, scratch), 1);
  EXPECT_EQ(members.gr_gid, 0u);
  delete[] scratch;
  EXPECT_EQ(userIdOf("root"), 0);
  EXPECT_EQ(groupIdOf("root"), 0);
  char* slot = string::assign("before");
  EXPECT_EQ(userNameOf(slot, 0), 1);
  EXPECT_STREQ(slot, "root");
  EXPECT_EQ(groupNameOf(slot, 0), 1);
  EXPECT_STREQ(slot, "root");
  string::release(slot);
  EXPECT_EQ(log.text(), "");
}

TEST(ProcessIdentity, TellsWhoIsUnknown) {
  constexpr id_t kUnknown = 4000000000;
  static char* slot;
  slot = string::assign("kept");
  struct UnknownCase {
    const char* who;
    int32_t (*call)();
  };
  constexpr UnknownCase kCases[] = {
      {"user 'no-such'", [] { return userIdOf("no-such"); }},
      {"group 'no-such'", [] { return groupIdOf("no-such"); }},
      {"user id '4000000000'", [] { return userNameOf(slot, kUnknown); }},
      {"group id '4000000000'", [] { return groupNameOf(slot, kUnknown); }},
  };
  for (const UnknownCase& row : kCases) {
    test::CapturedLog log;
    EXPECT_EQ(row.call(), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(log.withoutPrefixes(),
              std::string("Process: ERROR! Can't get information for ") + row.who +
                  ".\n"
                  "Process: ERROR! Error is 2, No such file or directory.\n");
  }
  EXPECT_STREQ(slot, "kept");
  string::release(slot);
}

TEST(ParameterText, IsEscapedInPlace) {
  char text[] = " a=b,,c";
  escapeParameter(text);
  EXPECT_STREQ(text,
               "\x1F"
               "a\x1D"
               "b\x1E\x1E"
               "c");
  unescapeParameter(text);
  EXPECT_STREQ(text, " a=b,,c");
}

TEST(ParameterText, KeepsItsLimits) {
  const std::string longest(1023, 'x');
  const std::string tooLong(1024, 'x');
  struct TextCase {
    const char* text;
    int32_t limit, result;
  };
  const TextCase cases[] = {
      {nullptr, -1, -1},       {"a=b", -1, -1},          {"a,b", -1, -1},
      {"a b", 4, 1},           {"a b", 3, -1},           {"", -5, -1},
      {longest.c_str(), 0, 1}, {tooLong.c_str(), 0, -1}, {tooLong.c_str(), -1, 1},
  };
  for (const TextCase& row : cases) {
    EXPECT_EQ(isValidParameterText(row.text, row.limit), row.result)
        << (row.text != nullptr ? row.text : "null") << " within " << row.limit;
  }
  EXPECT_EQ(isValidParameter("key", tooLong.c_str(), -1), 1);
  EXPECT_EQ(isValidParameter(tooLong.c_str(), "value", -1), -1) << "the key has limit 0";
  EXPECT_EQ(isValidParameter("key", "value", 5), -1);
}

TEST(ParameterText, IsRead) {
  struct CountCase {
    const char* text;
    int32_t count;
  };
  constexpr CountCase kCounts[] = {{"12abc", 12},
                                   {"007", 7},
                                   {"2147483647", 2147483647},
                                   {"2147483648", -1},
                                   {"99999999999999999999", -1},
                                   {"-1", -1},
                                   {" 1", -1},
                                   {"", -1}};
  for (const CountCase& row : kCounts) EXPECT_EQ(parseCount(row.text), row.count) << row.text;

  struct ItemCase {
    const char *list, *key;
    int32_t result;
  };
  constexpr ItemCase kItems[] = {{"a,ab", "ab", 0}, {"a,ab", "a", 1}, {"ab", "ab", 1},
                                 {"ab", "a", 0},    {"a", "ab", 0},   {"a,b", "a,b", 0},
                                 {",b", "", 1},     {"b", "", 0}};
  for (const ItemCase& row : kItems) {
    EXPECT_EQ(isItem(row.list, row.key), row.result) << row.list << " with " << row.key;
  }
}

TEST(ParameterText, HasItsPrefixReplaced) {
  char* slot = string::assign("old/name");
  EXPECT_EQ(replaceParameterPrefix(slot, nullptr, "new"), 0);
  EXPECT_EQ(replaceParameterPrefix(slot, "old", ""), 0);
  EXPECT_STREQ(slot, "old/name");
  EXPECT_EQ(replaceParameterPrefix(slot, "old", "new"), 1);
  EXPECT_STREQ(slot, "new/name");
  string::release(slot);
}

}  // namespace
}  // namespace qora::process
