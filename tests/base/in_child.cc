#include "tests/base/in_child.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>

#include "tests/support/captured_log.h"

namespace qora::test {
namespace {

constexpr id_t kNobodyId = 65534;

int32_t asNobody(int32_t (*body)()) {
  const bool isNobody = ::geteuid() != 0 || (::setgroups(0, nullptr) == 0 &&
                                             ::setgid(kNobodyId) == 0 && ::setuid(kNobodyId) == 0);
  return isNobody ? body() : INT32_MIN;
}

[[noreturn]] void reportAndExit(int32_t fd, const std::function<int32_t()>& body) {
  Outcome outcome;
  {
    CapturedLog log;
    errno = 0;
    outcome.result = body();
    outcome.error = errno;
    outcome.log = log.withoutPrefixes();
  }
  const int32_t numbers[] = {outcome.result, outcome.error};
  const bool written = ::write(fd, numbers, sizeof numbers) == sizeof numbers &&
                       ::write(fd, outcome.log.data(), outcome.log.size()) >= 0;
  ::_exit(written ? 0 : 1);
}

}  // namespace

Outcome runInChild(const std::function<int32_t()>& body) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) == -1) return {};
  const pid_t child = ::fork();
  if (child == 0) reportAndExit(fds[1], body);
  ::close(fds[1]);
  std::string bytes;
  char chunk[4096];
  for (ssize_t count; (count = ::read(fds[0], chunk, sizeof chunk)) > 0;)
    bytes.append(chunk, count);
  ::close(fds[0]);
  ::waitpid(child, nullptr, 0);
  int32_t numbers[2];
  if (bytes.size() < sizeof numbers) return {};
  bytes.copy(reinterpret_cast<char*>(numbers), sizeof numbers);
  return {numbers[0], numbers[1], bytes.substr(sizeof numbers)};
}

void InChild::check() {
  const ChildCase& expected = GetParam();
  if (expected.rights == kRoot && ::geteuid() != 0) GTEST_SKIP() << "needs to be root";
  const Outcome outcome = runInChild([&expected] {
    return expected.rights == kNobody ? asNobody(expected.body) : expected.body();
  });
  EXPECT_EQ(outcome.result, expected.result);
  EXPECT_EQ(outcome.log, expected.log);
  if (expected.result == -1) {
    EXPECT_EQ(outcome.error, expected.error);
  }
}

std::string caseName(const testing::TestParamInfo<ChildCase>& info) {
  std::string name = info.param.what;
  for (char& character : name) {
    if (std::isalnum(static_cast<unsigned char>(character)) == 0) character = '_';
  }
  return name;
}

}  // namespace qora::test
