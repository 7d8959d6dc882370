#include "base/string.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/support/captured_log.h"

namespace qora::string {
namespace {

// A slot that gives its array back: the address sanitizer sees what an operation leaks.
struct Slot {
  char* text = nullptr;
  Slot() = default;
  explicit Slot(const char* source) : text(assign(source)) {}
  ~Slot() { release(text); }
};

std::string bytes(const char* data, size_t count) {
  return std::string(data, count);
}

TEST(String, MakesBuffers) {
  Slot buffer, filled, cut, sized("old");
  newBuffer(buffer.text);
  EXPECT_STREQ(buffer.text, "");
  buffer.text[kBufferSize - 1] = 'x';  // inside
  newBufferFrom(filled.text, nullptr);
  EXPECT_STREQ(filled.text, "");
  newBufferFrom(cut.text, std::string(2000, 'y').c_str());
  EXPECT_EQ(cut.text, std::string(1023, 'y'));
  newSizedBuffer(sized.text, 1);
  EXPECT_STREQ(sized.text, "");
}

TEST(String, CopiesIntoASlot) {
  Slot slot("text");
  char* const before = slot.text;
  assign(slot.text, before);
  EXPECT_EQ(slot.text, before);
  assign(slot.text, slot.text + 1);
  EXPECT_STREQ(slot.text, "ext");
  copyPrefix(slot.text, "abcdef", 3);
  EXPECT_EQ(bytes(slot.text, 4), bytes("abc", 4));
  copyPrefix(slot.text, "ab", 5);
  EXPECT_STREQ(slot.text, "ab");
  EXPECT_EQ(slot.text[5], '\0');
  copyPrefix(slot.text, nullptr, 5);
  EXPECT_EQ(slot.text, nullptr);
  assignFirst(slot.text, "new");
  EXPECT_STREQ(slot.text, "new");
  assign(slot.text, nullptr);
  EXPECT_EQ(slot.text, nullptr);
  release(slot.text);
  EXPECT_EQ(slot.text, nullptr);
}

TEST(String, Appends) {
  Slot slot;
  append(slot.text, nullptr, nullptr, "", nullptr);
  EXPECT_EQ(slot.text, nullptr);
  append(slot.text, "a", nullptr, "bc", "d");
  EXPECT_STREQ(slot.text, "abcd");
  append(slot.text, slot.text, "-", slot.text);
  EXPECT_STREQ(slot.text, "abcdabcd-abcd");
  char* const before = slot.text;
  appendBytes(slot.text, nullptr, 3);
  appendBytes(slot.text, "x", 0);
  EXPECT_EQ(slot.text, before);
  appendBytes(slot.text, "x\0y", 3);
  EXPECT_EQ(bytes(slot.text, 17), bytes("abcdabcd-abcdx\0y", 17));
  Slot fresh;
  appendBytes(fresh.text, "xyz", 2);
  EXPECT_STREQ(fresh.text, "xy");
}

TEST(String, Replaces) {
  const struct {
    const char *text, *pattern, *replacement, *result;
    int32_t all, prefix;
    const char* prefixResult;
  } cases[] = {
      {"one two one", "one", "three", "three two three", 2, 1, "three two one"},
      {"aaaaa", "aa", "b", "bba", 2, 1, "baaa"},
      {"/a//b", "/", "", "ab", 3, 1, "a//b"},
      {"abc", "c", "c", "abc", 1, 0, "abc"},
      {"abc", "abcd", "x", "abc", 0, 0, "abc"},
      {"", "a", "x", "", 0, 0, ""},
  };
  for (const auto& c : cases) {
    Slot slot(c.text), prefixed(c.text);
    const char* const before = slot.text;
    EXPECT_EQ(replaceAll(slot.text, c.pattern, c.replacement), c.all);
    EXPECT_STREQ(slot.text, c.result);
    EXPECT_EQ(slot.text == before, c.all == 0) << c.text;
    EXPECT_EQ(replacePrefix(prefixed.text, c.pattern, c.replacement), c.prefix);
    EXPECT_STREQ(prefixed.text, c.prefixResult);
  }
  Slot slot("abc"), null;
  EXPECT_EQ(replaceAll(slot.text, "", "x"), 0);
  EXPECT_STREQ(slot.text, "abc");
  EXPECT_EQ(replaceAll(null.text, "a", "x"), 0);
}

TEST(String, WritesAddressesAndTimes) {
  setenv("TZ", "UTC", 1);
  tzset();
  Slot slot("old");
  dottedQuadText(slot.text, 0x0100007F);
  EXPECT_STREQ(slot.text, "127.0.0.1");
  dottedQuadText(slot.text, 0xFFFFFFFF);
  EXPECT_STREQ(slot.text, "255.255.255.255");
  calendarText(slot.text, 86399);
  EXPECT_STREQ(slot.text, "Thu Jan  1 23:59:59 1970");
  clockText(slot.text, {3723, 45678});
  EXPECT_STREQ(slot.text, "01:02:03 045.678");
  calendarText(slot.text, INT64_MAX);
  EXPECT_STREQ(slot.text, "");
}

TEST(String, CutsAtTheFirstUnprintable) {
  const std::pair<const char*, const char*> cases[] = {
      {"plain ~", "plain ~"}, {"tab\there", "tab"}, {"a\x1d\x1e\x1f z\x1c", "a\x1d\x1e\x1f z"},
      {"caf\xc3\xa9", "caf"}, {"del\x7f", "del"},   {"", ""},
  };
  for (const auto& [text, result] : cases) {
    Slot slot(text);
    EXPECT_EQ(cutAtUnprintable(slot.text), slot.text);
    EXPECT_STREQ(slot.text, result);
  }
  EXPECT_EQ(cutAtUnprintable(nullptr), nullptr);
}

TEST(String, FindsPrefixesAndSuffixes) {
  const char* const text = "frame.264";
  const struct {
    const char* affix;
    bool starts;
    const char* end;
  } cases[] = {
      {"frame", true, nullptr},       {".264", false, text + 5}, {"frame.264", true, text},
      {"frame.264x", false, nullptr}, {"", true, text + 9},      {"264.", false, nullptr},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(startsWith(text, c.affix), c.starts ? text : nullptr) << c.affix;
    EXPECT_EQ(endsWith(text, c.affix), c.end) << c.affix;
  }
}

TEST(String, JudgesPaths) {
  const struct {
    const char* path;
    int32_t absolute, parent;
  } cases[] = {
      {"/a", 1, 0},  {"a", 0, 0},       {"", 0, 0},         {"..", 0, 0},
      {"../", 0, 1}, {"ab/../c", 0, 0}, {"abc/../d", 0, 1}, {"a/../b", 0, 0},
      {"/..", 1, 0}, {"/../a", 1, 0},   {"/ab/../c", 1, 1}, {"abcd/..", 0, 0},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(isAbsolutePath(c.path), c.absolute) << c.path;
    EXPECT_EQ(hasParentReference(c.path), c.parent) << c.path;
  }
}

TEST(String, ReadsVersions) {
  const struct {
    const char* text;
    int32_t count;
    std::vector<int32_t> fields;
  } cases[] = {
      {"3.1.4_159", 4, {3, 1, 4, 159}},  {"3.1", 2, {3, 1, -1, -1}},
      {"0x10.010.9", 3, {16, 8, 9, -1}}, {"1.2.3-4", 3, {1, 2, 3, -1}},
      {"x", 0, {-1, -1, -1, -1}},        {"", 0, {-1, -1, -1, -1}},
  };
  for (const auto& c : cases) {
    std::vector<int32_t> f(4);
    EXPECT_EQ(parseVersion(c.text, &f[0], &f[1], &f[2], &f[3]), c.count) << c.text;
    EXPECT_EQ(f, c.fields) << c.text;
  }
}

TEST(String, CountsSeparatorsAtEveryLengthAndAlignment) {
  std::vector<uint8_t> data(70000);
  for (size_t i = 0; i < data.size(); ++i) data[i] = i % 7 == 0 || i % 5 == 1 ? 0xFF : '\n';
  const auto check = [&data](size_t from, int32_t length) {
    const auto* begin = data.data() + from;
    for (const uint8_t separator : {uint8_t{0xFF}, uint8_t{'\n'}}) {
      ASSERT_EQ(countSeparators(begin, length, separator),
                std::count(begin, begin + std::max(length, 1), separator))
          << from << " " << length;
    }
  };
  const test::CapturedLog log;
  for (size_t from = 0; from < 16; ++from) {
    for (int32_t length = -1; length <= 300; ++length) check(from, length);
    for (const int32_t length : {255 * 64 - 1, 255 * 64 + 80, 66000}) check(from, length);
  }
  std::fill(data.begin(), data.end(), uint8_t{0xFF});  // every byte counter gets full
  check(1, 69999);
}

TEST(String, TellsTheCountOfSeparators) {
  const test::CapturedLog log;
  EXPECT_EQ(countSeparators("a\nb\n", 4, '\n'), 2);
  EXPECT_EQ(countSeparators("\xff", 0, 0xFF), 1);  // the first byte counts in any case
  EXPECT_EQ(log.withoutPrefixes(),
            "String: Found 2 lines with separator 10.\n"
            "String: Found 1 lines with separator 255.\n");
}

}  // namespace
}  // namespace qora::string
