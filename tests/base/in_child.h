// tests/base/in_child.h -- Cases that change their process or need other rights, each in a child.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>

namespace qora::test {

enum Rights { kAnyUser, kRoot, kNobody };  // kNobody: root's child gives its privileges up first

struct ChildCase {
  const char* what;
  Rights rights;
  int32_t (*body)();
  int32_t result;
  int32_t error;    // errno, looked at when the result is -1
  const char* log;  // without time prefixes
};

struct Outcome {
  int32_t result = INT32_MIN;  // stays so when the child died
  int32_t error = 0;
  std::string log;
};
Outcome runInChild(const std::function<int32_t()>& body);

// Runs the case and compares; skips one that needs root when the test is not.
class InChild : public testing::TestWithParam<ChildCase> {
 protected:
  void check();
};

// The test's name: the case's phrase with each other character turned into "_".
std::string caseName(const testing::TestParamInfo<ChildCase>& info);

}  // namespace qora::test
