// tests/fuzz/strings_fuzzer.cc -- A row of operations on one text slot, each against the same on a
// std::string, and the tests on the texts that come out.

#include <cstring>
#include <iostream>
#include <string_view>

#include "qora/base/string.h"
#include "tests/fuzz/fuzz.h"

namespace {

using namespace qora;
using fuzz::require;

std::string replaced(const std::string& text, const std::string& pattern,
                     const std::string& replacement, int32_t& count) {
  std::string result;
  size_t from = 0;
  count = 0;
  while (!pattern.empty()) {
    const size_t match = text.find(pattern, from);
    if (match == std::string::npos) break;
    result += text.substr(from, match - from) + replacement;
    from = match + pattern.size();
    ++count;
  }
  return result + text.substr(from);
}

void change(fuzz::Input& in, char*& slot, std::string& model) {
  const uint8_t what = in.byte();
  const std::string one = in.text();
  const std::string two = in.text();
  int32_t count = 0;
  switch (what % 8) {
    case 0:
      string::append(slot, one.c_str(), nullptr, two.c_str());
      model += one + two;
      break;
    case 1:  // a piece of the slot's own text
      string::append(slot, slot == nullptr ? nullptr : slot + model.size() / 2, one.c_str());
      model += model.substr(model.size() / 2) + one;
      break;
    case 2:
      string::assign(slot, slot == nullptr ? one.c_str() : slot + model.size() / 3);
      model = slot == nullptr || model.empty() ? slot : model.substr(model.size() / 3);
      break;
    case 3: {
      const std::string expected = replaced(model, one, two, count);
      require(slot == nullptr || string::replaceAll(slot, one.c_str(), two.c_str()) == count,
              "how often a pattern occurs");
      model = expected;
      break;
    }
    case 4: {
      const bool begins = slot != nullptr && model.starts_with(one);
      require(string::replacePrefix(slot, one.c_str(), two.c_str()) == (begins ? 1 : 0), "prefix");
      if (begins) model = two + model.substr(one.size());
      break;
    }
    case 5:
      string::copyPrefix(slot, one.c_str(), what >> 3);
      model = one.substr(0, what >> 3);
      break;
    case 6:
      string::appendBytes(slot, one.data(), static_cast<int32_t>(one.size()));
      model += one;
      break;
    default:
      string::release(slot);
      model.clear();
      string::newBufferFrom(slot, one.c_str());
      model = one.substr(0, string::kBufferSize - 1);
  }
}

void ask(const std::string& model, const std::string& other, uint8_t separator) {
  const char* text = model.c_str();
  require((string::startsWith(text, other.c_str()) == text) == model.starts_with(other), "start");
  const char* end = string::endsWith(text, other.c_str());
  require((end != nullptr) == model.ends_with(other), "end");
  require(end == nullptr || end == text + model.size() - other.size(), "where the end begins");
  const bool parent =
      model.size() >= 3 && (model.starts_with("../") || model.find("/../", 3) != std::string::npos);
  require(string::hasParentReference(text) == (parent ? 1 : 0), "parent reference");
  int32_t version[4];
  const int32_t fields =
      string::parseVersion(text, &version[0], &version[1], &version[2], &version[3]);
  require(fields >= 0 && fields <= 4, "version fields");

  int32_t count = 0;
  for (const char byte : model) count += static_cast<uint8_t>(byte) == separator ? 1 : 0;
  if (!model.empty()) {
    require(string::countSeparators(model.data(), static_cast<int32_t>(model.size()), separator) ==
                count,
            "separators");
  }
  std::string cut = model;
  size_t kept = 0;
  while (kept < model.size() && model[kept] >= 0x1D && model[kept] < 0x7F) ++kept;
  require(std::string_view(string::cutAtUnprintable(cut.data())) == model.substr(0, kept), "cut");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::clog.setstate(std::ios::badbit);  // lines are not what this is about
  fuzz::Input in(data, size);
  const uint8_t separator = in.byte();
  char* slot = nullptr;
  std::string model;
  std::string last;
  for (int count = 0; in.left() > 0 && count < 24 && model.size() < 4000; ++count) {
    last = model.substr(0, 5);
    change(in, slot, model);
    require(model == (slot == nullptr ? "" : slot), "the text is not the one that it should be");
  }
  ask(model, last, separator);
  string::release(slot);
  return 0;
}
