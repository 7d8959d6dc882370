#include "base/options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/base/captured_stderr.h"

namespace qora::options {
namespace {

struct OptionCase {
  const char* what;
  const char* letters;
  std::vector<const char*> arguments;
  const char* result;  // each option, "=argument" behind it, and a space
  int32_t index;
  const char* errors = "";
};

// Parses `arguments` from the first on until the end or eight results.
std::string parse(const char* letters, std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "prog");
  std::string result;
  for (int i = 0; i < 8; ++i) {
    const int32_t option = parseOption(static_cast<int32_t>(arguments.size()),
                                       const_cast<char* const*>(arguments.data()), letters);
    if (option == -1) break;
    result += static_cast<char>(option);
    if (option == 'b') result += std::string("=") + optionState().argument;
    result += ' ';
  }
  return result;
}

const OptionCase kOptionCases[] = {
    {"one by one",
     "ab:",
     {"-a", "-bvalue", "-b"},
     "a b=value ? ",
     4,
     "prog: option requires an argument -- b\n"},
    {"joined, argument apart", "ab:", {"-ab", "value", "-a"}, "a b=value a ", 4},
    {"an argument like an option", "ab:", {"-b", "-a", "-b", "--"}, "b=-a b=-- ", 5},
    {"stops at a plain argument", "a", {"-a", "plain", "-a"}, "a ", 2},
    {"stops behind two dashes", "a", {"-a", "--", "-a"}, "a ", 3},
    {"unknown ones",
     "a",
     {"-xa", "-y"},
     "? a ? ",
     3,
     "prog: illegal option -- x\nprog: illegal option -- y\n"},
    {"a colon is no option", "ab:", {"-:"}, "? ", 2, "prog: illegal option -- :\n"},
    {"a leading colon silences", ":ab:", {"-x", "-b"}, "? : ", 3},
    {"a lone dash ends", "a", {"-", "-a"}, "", 1},
    {"a lone dash as option", "a-", {"-", "-a"}, "- a ", 3},
    {"an unknown dash inside ends, not stepped over", "a", {"-a-", "-a"}, "a ", 1},
    {"a long option ends, not stepped over", "a", {"--all"}, "", 1},
    {"nothing", "a", {}, "", 1},
    {"no letters at all", nullptr, {"-a"}, "", 1},
};

TEST(Options, ParsesLetterByLetter) {
  for (const OptionCase& c : kOptionCases) {
    SCOPED_TRACE(c.what);
    optionState() = {};
    const test::CapturedStderr errors;
    EXPECT_EQ(parse(c.letters, c.arguments), c.result);
    EXPECT_EQ(optionState().index, c.index);
    EXPECT_EQ(errors.text(), c.errors);
  }
}

TEST(Options, ResetBeginsANewVectorAndKeepsTheSilence) {
  optionState() = {};
  optionState().printErrors = 0;
  const test::CapturedStderr errors;
  const char* const first[] = {"prog", "-xab"};
  EXPECT_EQ(parseOption(2, const_cast<char* const*>(first), "a"), '?');
  EXPECT_EQ(optionState().option, 'x');
  resetOptions();  // in the middle of an element
  EXPECT_EQ(parse("ab:", {"-bvalue", "-b"}), "b=value ? ");
  EXPECT_EQ(errors.text(), "");
  optionState() = {};
}

}  // namespace
}  // namespace qora::options
