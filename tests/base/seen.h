// tests/base/seen.h -- What a row of calls gave, as one text: Seen{first(), errno, second()}.text.
#pragma once

#include <sstream>
#include <string>

namespace qora::test {

struct Seen {
  std::string text;
  template <typename... Values>  // by value, so that each errno is read in its turn
  explicit Seen(Values... values) {
    std::ostringstream out;
    const char* gap = "";
    ((out << gap << values, gap = " "), ...);
    text = out.str();
  }
};

}  // namespace qora::test
