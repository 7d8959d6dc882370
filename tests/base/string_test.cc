#include "base/string.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/support/captured_log.h"

namespace qora::string {
namespace {

const std::string kLong(2000, 'y');

// What a slot that held `before` holds after `change`; "(null)" for null.
std::string after(const char* before, void (*change)(char*& slot)) {
  char* slot = assign(before);
  change(slot);
  const std::string result = slot != nullptr ? slot : "(null)";
  release(slot);
  EXPECT_EQ(slot, nullptr);
  return result;
}

TEST(String, StoresIntoSlots) {
  const struct {
    const char *what, *before;
    void (*change)(char*& s);
    std::string result;
  } cases[] = {
      {"sized, released", "old", [](char*& s) { newSizedBuffer(s, 1); }, ""},
      {"buffer", nullptr, [](char*& s) { newBuffer(s), s[1023] = 'x'; }, ""},
      {"cut to fit", nullptr, [](char*& s) { newBufferFrom(s, kLong.c_str()); }, kLong.substr(977)},
      {"prefix", "old", [](char*& s) { copyPrefix(s, "abcdef", 3); }, "abc"},
      {"all of a short one", "old", [](char*& s) { copyPrefix(s, "ab", 5), s[4] = s[5]; }, "ab"},
      {"prefix of null", "old", [](char*& s) { copyPrefix(s, nullptr, 5); }, "(null)"},
      {"its own middle", "old", [](char*& s) { assign(s, s + 1); }, "ld"},
      {"null", "old", [](char*& s) { assign(s, nullptr); }, "(null)"},
      {"first", nullptr, [](char*& s) { assignFirst(s, "new"); }, "new"},
      {"append nothing", nullptr, [](char*& s) { append(s, nullptr, ""); }, "(null)"},
      {"append", nullptr, [](char*& s) { append(s, "a", nullptr, "bc", "d"); }, "abcd"},
      {"append itself", "ab", [](char*& s) { append(s, s, "-", s); }, "abab-ab"},
      {"append bytes", "ab", [](char*& s) { appendBytes(s, "xyz", 2); }, "abxy"},
      {"append null bytes", "ab", [](char*& s) { appendBytes(s, nullptr, 2); }, "ab"},
      {"address", "old", [](char*& s) { dottedQuadText(s, 0x0100007F); }, "127.0.0.1"},
      {"widest address", "old", [](char*& s) { dottedQuadText(s, 0xFFFFFFFE); }, "254.255.255.255"},
      {"calendar", "old", [](char*& s) { calendarText(s, 86399); }, "Thu Jan  1 23:59:59 1970"},
      {"beyond the calendar", "old", [](char*& s) { calendarText(s, INT64_MAX); }, ""},
      {"clock", "old",
       [](char*& s) {
         clockText(s, timeval{3723, 45678});
       },
       "01:02:03 045.678"},
      {"cut at a tab", "a\x1d\x1f ~\tz", [](char*& s) { cutAtUnprintable(s); }, "a\x1d\x1f ~"},
      {"cut at a high byte", "caf\xc3\xa9", [](char*& s) { cutAtUnprintable(s); }, "caf"},
      {"cut null", nullptr, [](char*& s) { cutAtUnprintable(s); }, "(null)"},
  };
  setenv("TZ", "UTC", 1);
  tzset();
  for (const auto& c : cases) EXPECT_EQ(after(c.before, c.change), c.result) << c.what;
}

TEST(String, Replaces) {
  const struct {
    const char *text, *pattern, *replacement, *result;
    int32_t count, prefix;
    const char* prefixResult;
  } cases[] = {
      {"one two one", "one", "three", "three two three", 2, 1, "three two one"},
      {"aaaaa", "aa", "b", "bba", 2, 1, "baaa"},
      {"/a//b", "/", "", "ab", 3, 1, "a//b"},
      {"abc", "c", "c", "abc", 1, 0, "abc"},
      {"abc", "abcd", "x", "abc", 0, 0, "abc"},
      {"abc", "", "x", "abc", 0, 1, "xabc"},
      {nullptr, "a", "x", nullptr, 0, 0, nullptr},
  };
  for (const auto& c : cases) {
    char *slot = assign(c.text), *prefixed = assign(c.text);
    const char* const before = slot;
    EXPECT_EQ(replaceAll(slot, c.pattern, c.replacement), c.count);
    EXPECT_STREQ(slot, c.result);
    EXPECT_EQ(slot == before, c.count == 0) << c.result;
    EXPECT_EQ(replacePrefix(prefixed, c.pattern, c.replacement), c.prefix);
    EXPECT_STREQ(prefixed, c.prefixResult);
    release(slot);
    release(prefixed);
  }
}

TEST(String, JudgesTexts) {
  const char* const text = "frame.264";
  EXPECT_EQ(endsWith(text, ".264"), text + 5);
  EXPECT_EQ(endsWith(text, "frame.264x"), nullptr);
  EXPECT_EQ(startsWith(text, "frame.264x"), nullptr);
  for (const auto& judge : {startsWith, endsWith}) EXPECT_EQ(judge(text, "frame.264"), text);
  for (const char* path : {"../", "abc/../d", "/ab/../c"}) EXPECT_EQ(hasParentReference(path), 1);
  for (const char* path : {"", "..", "a/../b", "/../a", "ab/../c", "abcd/.."}) {
    EXPECT_EQ(hasParentReference(path), 0) << path;
  }
  const std::pair<const char*, std::vector<int32_t>> versions[] = {
      {"3.1.4_159", {4, 3, 1, 4, 159}},  {"3.1", {2, 3, 1, -1, -1}},
      {"0x10.010.9", {3, 16, 8, 9, -1}}, {"1.2.3-4", {3, 1, 2, 3, -1}},
      {"", {0, -1, -1, -1, -1}},
  };
  for (const auto& [version, fields] : versions) {
    std::vector<int32_t> f(5);
    f[0] = parseVersion(version, &f[1], &f[2], &f[3], &f[4]);
    EXPECT_EQ(f, fields) << version;
  }
}

TEST(String, CountsSeparatorsAtEveryLengthAndAlignment) {
  std::vector<uint8_t> data(70000);
  for (size_t i = 0; i < data.size(); ++i) data[i] = i % 7 == 0 || i % 5 == 1 ? 0xFF : '\n';
  const auto check = [&data](size_t from, int32_t length) {
    const auto* begin = data.data() + from;
    const auto count = std::count(begin, begin + std::max(length, 1), 0xFF);  // 0 looks at one too
    ASSERT_EQ(countSeparators(begin, length, 0xFF), count) << from << " " << length;
  };
  const test::CapturedLog log;
  for (size_t from = 0; from < 16; ++from) {
    for (int32_t length = -1; length <= 300; ++length) check(from, length);
    for (const int32_t length : {255 * 64 - 1, 255 * 64 + 80, 66000}) check(from, length);
  }
  std::fill(data.begin(), data.end(), uint8_t{0xFF});  // every byte counter gets full
  check(1, 69999);
  const std::string last = "String: Found 69999 lines with separator 255.\n",
                    all = log.withoutPrefixes();
  EXPECT_EQ(all.substr(all.size() - last.size()), last);
}

}  // namespace
}  // namespace qora::string
