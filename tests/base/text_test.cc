// SPDX-License-Identifier: BSD-2-Clause
// Texts in slots, parameter text, options.
#include <algorithm>

#include "qora/base/error_text.h"
#include "qora/base/options.h"
#include "qora/base/process_parameters.h"
#include "qora/base/string.h"
#include "tests/base/calls.h"

namespace qora {
namespace {

using namespace string;
using namespace process;

// The result of an edit, if it has one, and the text that is in the slot afterwards.
template <typename Edit>
std::string edited(const char* before, const Edit& edit) {
  char* slot = assign(before);
  if constexpr (std::is_void_v<std::invoke_result_t<Edit, char*&>>) {
    edit(slot);
    return test::take(slot);
  } else {
    const std::string result = std::to_string(edit(slot)) + " ";
    return result + test::take(slot);
  }
}
#define AFTER(expected, before, ...) EXPECT_EQ(edited(before, [&](char*& s) { __VA_ARGS__; }), expected)

TEST(String, Slots) {
  const std::string full(1023, 'y');
  AFTER("", nullptr, newBuffer(s), s[1023] = '\0');
  AFTER(full, nullptr, newBufferFrom(s, (full + "zz").c_str()));
  AFTER("", nullptr, newBufferFrom(s, nullptr));
  AFTER("", "old", newSizedBuffer(s, 1));
  AFTER("abc", "old", copyPrefix(s, "abcdef", 3));
  AFTER("ab##", "old", copyPrefix(s, "ab", 4), s[2] = '#', s[3] = '#');
  AFTER("null", "old", copyPrefix(s, nullptr, 5));
  AFTER("old", "old", assign(s, s));
  AFTER("ld", "old", assign(s, s + 1));
  AFTER("null", "old", assign(s, nullptr));
  AFTER("new", nullptr, assignFirst(s, "new"));
  AFTER("null", "old", release(s), release(s));
  AFTER("oldabcd", "old", append(s, "a", nullptr, "bc", "d"));
  AFTER("oldold-old", "old", append(s, s, "-", s));
  AFTER("null", nullptr, append(s, "", nullptr));
  AFTER("ab", nullptr, append(s, "ab"));
  AFTER("abxy", "ab", appendBytes(s, "xyz", 2));
  AFTER("ab", "ab", appendBytes(s, nullptr, 2), appendBytes(s, "x", 0));
  AFTER("1", "kept", const char* array = s; replaceAll(s, "x", "y"), s[0] = '0' + (s == array), s[1] = '\0');
  AFTER("254.255.255.255", "x", dottedQuadText(s, 0xFFFFFFFE));
  const struct {
    const char *before, *pattern, *replacement, *all, *prefix, *parameter;
  } rows[] = {{"one two one", "one", "three", "2 three two three", "1 three two one", "1 three two one"},
      {"aaaaa", "aa", "b", "2 bba", "1 baaa", "1 baaa"}, {"/a//b", "/", "", "3 ab", "1 a//b", "0 /a//b"},
      {"ab", "b", "b", "1 ab", "0 ab", "0 ab"}, {"ab", "abc", "x", "0 ab", "0 ab", "0 ab"},
      {"ab", "", "x", "0 ab", "1 xab", "0 ab"}, {nullptr, "a", "x", "0 null", "0 null", "0 null"}};
  for (const auto& row : rows) {
    AFTER(row.all, row.before, return replaceAll(s, row.pattern, row.replacement));
    AFTER(row.prefix, row.before, return replacePrefix(s, row.pattern, row.replacement));
    AFTER(row.parameter, row.before, return replaceParameterPrefix(s, row.pattern, row.replacement));
  }
  AFTER("0 a", "a", return replaceParameterPrefix(s, nullptr, "x") + replaceParameterPrefix(s, "a", nullptr));
}

TEST(String, TimesAreLocal) {
  test::inChild([] {
    ::setenv("TZ", "UTC+1", 1);
    ::tzset();
    AFTER("Thu Jan  1 22:59:59 1970", "x", calendarText(s, 86399));
    AFTER("", "x", calendarText(s, INT64_MAX));
    AFTER("01:02:03 045.678", "x", clockText(s, {7323, 45678}));
    AFTER("09:05:03 005.000", "x", clockText(s, {36303, 5000}));
  });
}

TEST(String, Questions) {
  for (const char* rest : {"", "\x09z", "\xc3\xa9", "\x1c", "\x7f"}) {
    AFTER("a\x1d\x1e\x1f ~", (std::string("a\x1d\x1e\x1f ~") + rest).c_str(), cutAtUnprintable(s));
  }
  const char* const name = "a.264";
  GIVES("null", cutAtUnprintable(nullptr));
  GIVES(name, startsWith(name, "a."));
  GIVES("null", startsWith(name, "a.264x"));
  GIVES(".264", endsWith(name, ".264"));
  GIVES(name, endsWith(name, name));
  GIVES("null", endsWith(name, "xa.264"));
  GIVES("null", endsWith(name, ".26"));
  EXPECT_EQ(isAbsolutePath("/a") - isAbsolutePath("a/"), 1);
  // A reference after a name of one character is not found.
  for (const char* path : {"../", "abc/../d", "/ab/../c"}) EXPECT_EQ(hasParentReference(path), 1);
  for (const char* path : {"..", "a/../b", "/../a", "ab/../c", "abcd/.."}) EXPECT_EQ(hasParentReference(path), 0);
  const std::pair<const char*, std::vector<int32_t>> versions[] = {{"3.1.4_159", {4, 3, 1, 4, 159}},
      {"0x10.010.9", {3, 16, 8, 9, -1}}, {"3.1", {2, 3, 1, -1, -1}}, {"1.2.3-4", {3, 1, 2, 3, -1}},
      {"", {0, -1, -1, -1, -1}}};
  for (const auto& [text, numbers] : versions) {
    std::vector<int32_t> n(5, 7);
    n[0] = parseVersion(text, &n[1], &n[2], &n[3], &n[4]);
    EXPECT_EQ(n, numbers) << text;
  }
}

TEST(String, CountsSeparatorsAtEveryLengthAndAlignment) {
  GIVES("3\n| String: Found 3 lines with separator 10.\n", countSeparators("\n\na\n", 4, '\n'));
  const test::CapturedLog captured;
  std::vector<uint8_t> data(70000);
  for (size_t i = 0; i < data.size(); ++i) data[i] = i % 7 == 0 || i % 5 == 1 ? 0xFF : '\n';
  const auto compare = [&data](size_t from, int32_t length) {
    const auto* const begin = data.data() + from;
    const auto count = std::count(begin, begin + std::max(length, 1), 0xFF);  // 0 looks at one too
    ASSERT_EQ(countSeparators(begin, length, 0xFF), count) << from << " " << length;
  };
  for (size_t from = 0; from < 16; ++from) {
    for (int32_t length = -1; length <= 300; ++length) compare(from, length);
    for (const int32_t length : {255 * 64 - 1, 255 * 64 + 80, 66000}) compare(from, length);
  }
  std::fill(data.begin(), data.end(), uint8_t{0xFF});  // every byte counter gets full
  compare(1, 69999);
}

TEST(Parameters, TextsNumbersAndItems) {
  AFTER("\037a\035b\036\036c", " a=b,,c", escapeParameter(s));
  AFTER(" a=b,,c", " a=b,,c", escapeParameter(s), unescapeParameter(s));
  const std::string full(1023, 'x'), longer(1024, 'x');
  const std::tuple<const char*, int32_t, int32_t> texts[] = {{nullptr, -1, -1}, {"a=b", -1, -1}, {"a,b", -1, -1},
      {"a b", 4, 1}, {"a b", 3, -1}, {"", -5, -1}, {"", 1, 1}, {full.c_str(), 0, 1}, {longer.c_str(), 0, -1},
      {longer.c_str(), -1, 1}};
  for (const auto& [text, limit, valid] : texts) {
    EXPECT_EQ(isValidParameterText(text, limit), valid) << orNil(text);
    EXPECT_EQ(isValidParameter("key", text, limit), valid) << orNil(text);
  }
  EXPECT_EQ(isValidParameter(full.c_str(), "value", -1) + isValidParameter(longer.c_str(), "value", -1), 0);
  GIVES("12", parseCount("12abc"));
  GIVES("2147483647", parseCount("002147483647"));
  for (const char* none : {"2147483648", "99999999999999999999", "-1", " 1", ""}) GIVES("-1", parseCount(none));
  using Item = std::pair<const char*, const char*>;
  for (const Item& item : {Item("a,ab", "a"), Item("ab", "ab"), Item(",b", "")}) {
    GIVES("1", isItem(item.first, item.second));
  }
  for (const Item& item : {Item("a,ab", "ab"), Item("ab", "a"), Item("a", "ab"), Item("a,b", "a,b")}) {
    GIVES("0", isItem(item.first, item.second));
  }
}

// Each option with its argument, after what was printed; then the index.
std::string parsed(const char* letters, std::vector<const char*> words) {
  words.insert(words.begin(), "prog");
  const auto& state = options::optionState();
  options::resetOptions();
  testing::internal::CaptureStderr();
  for (int32_t option; (option = options::parseOption(static_cast<int32_t>(words.size()),
                            const_cast<char* const*>(words.data()), letters)) != -1;) {
    fprintf(stderr, "%c %s\n", option, option == state.option ? orNil(state.argument) : "-");
  }
  return testing::internal::GetCapturedStderr() + std::to_string(options::optionState().index);
}

TEST(Options, OneByOne) {
  EXPECT_EQ(parsed("ab:", {"-a", "-bvalue", "-b"}), "a nil\nb value\nprog: option requires an argument -- b\n? -\n4");
  EXPECT_EQ(parsed("ab:", {"-ab", "value", "-a"}), "a nil\nb value\na nil\n4");
  EXPECT_EQ(parsed("ab:", {"-b", "-a", "-b", "--"}), "b -a\nb --\n5");
  EXPECT_EQ(parsed("a", {"-a", "plain", "-a"}), "a nil\n2");
  EXPECT_EQ(parsed("a", {"-a", "--", "-a"}), "a nil\n3");
  EXPECT_EQ(parsed("a", {}), "1");
  EXPECT_EQ(parsed(nullptr, {"-a"}), "1");
  EXPECT_EQ(parsed("a", {"-xa", "-:"}), "prog: illegal option -- x\n? -\na nil\nprog: illegal option -- :\n? -\n3");
  EXPECT_EQ(parsed(":ab:", {"-x", "-b"}), "? -\n: -\n3");  // a colon in front silences
  EXPECT_EQ(parsed("a", {"-", "-a"}), "1");                // an unknown dash ends and is not stepped over
  EXPECT_EQ(parsed("a-", {"-", "-a"}), "- nil\na nil\n3");
  EXPECT_EQ(parsed("a", {"-a-", "-a"}), "a nil\n1");
  EXPECT_EQ(parsed("a", {"--all"}), "1");
  EXPECT_EQ(parsed("al-", {"--al"}), "- nil\na nil\nl nil\n2");
  options::optionState() = {.printErrors = 0, .position = "xab"};  // a reset forgets the latter
  EXPECT_EQ(parsed("ab:", {"-bvalue", "-x", "-b"}), "b value\n? -\n? -\n4");
  EXPECT_STREQ(options::optionState().argument, "value");  // a bad option has none of its own
  options::optionState() = {};
}

}  // namespace
}  // namespace qora
