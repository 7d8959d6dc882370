// tests/fuzz/options_fuzzer.cc -- Argument vectors of any kind through the single-letter parser,
// which must come to an end and point into the vector, and through qora-encode's command line.

#include "qora/base/options.h"

#include "qora/tools/encode_options.h"
#include "tests/fuzz/fuzz.h"

namespace {

using namespace qora;
using fuzz::require;

void parseLetters(const std::string& letters, std::vector<std::string>& words,
                  std::vector<char*>& arguments) {
  const auto count = static_cast<int32_t>(words.size());
  size_t characters = 0;
  for (const std::string& word : words) characters += word.size() + 1;
  options::resetOptions();
  const options::OptionState& state = options::optionState();
  int32_t option;
  for (size_t calls = 0;
       (option = options::parseOption(count, arguments.data(), letters.c_str())) != -1; ++calls) {
    require(calls <= characters, "the options do not end");
    if (option == '?' || option == ':' || state.argument == nullptr) continue;
    bool inside = false;
    for (const std::string& word : words) {
      inside =
          inside || (state.argument >= word.data() && state.argument <= word.data() + word.size());
    }
    require(inside, "an argument from elsewhere");
    require(letters.find(static_cast<char>(option)) != std::string::npos, "an unknown option");
  }
  require(state.index >= 1 && state.index <= count + 1, "the index left the vector");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  const std::string letters = in.text();
  std::vector<std::string> words = {"program"};
  while (in.left() > 0 && words.size() < 12) words.push_back(in.text());
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  options::optionState().printErrors = 0;
  parseLetters(letters, words, arguments);

  tools::EncodeOptions options;
  std::string text;
  const int32_t parsed =
      tools::parseEncodeOptions(static_cast<int>(words.size()), arguments.data(), options, text);
  if (parsed != 1) {
    require(!text.empty(), "a command line is refused without a word");
    return 0;
  }
  require(!options.input.empty() || words.size() > 1, "no input");
  require(options.qpMin >= 0 && options.qpMin <= options.qpMax && options.qpMax <= 51 &&
              options.bitrate >= 0 && options.bitrate <= 65535 && options.threads >= 0 &&
              options.threads <= 128 && options.streams >= 1 && options.streams <= 8 &&
              options.width % 2 == 0 && options.height % 2 == 0,
          "a value that is out of its range");
  for (int32_t stream = 0; stream < options.streams; ++stream) {
    require(tools::outputPath(options.output, stream).size() >= options.output.size(), "a path");
  }
  return 0;
}
