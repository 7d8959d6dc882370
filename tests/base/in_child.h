// tests/base/in_child.h -- Cases that change their process or need other rights, each in a child.
#pragma once

#include <grp.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <string>

#include "tests/support/captured_log.h"

namespace qora::test {

enum Rights { kAnyUser, kRoot, kNobody };  // kNobody: a child of root gives its privileges up

struct ChildCase {
  Rights rights;
  int32_t (*body)();
  int32_t result;   // -errno for -1
  std::string log;  // without time prefixes
};

inline std::string readAll(int fd) {
  std::string text;
  for (char byte; ::read(fd, &byte, 1) == 1;) text += byte;
  ::close(fd);
  return text;
}

// Returns "<result>\n<log>", or nothing when the child died.
inline std::string runInChild(Rights rights, int32_t (*body)()) {
  int fds[2];
  if (::pipe(fds) == -1) return "no pipe";
  if (::fork() == 0) {
    const bool drop = rights == kNobody && ::geteuid() == 0;
    if (drop && ::setgroups(0, nullptr) + ::setgid(65534) + ::setuid(65534) != 0) ::_exit(1);
    const CapturedLog log;
    errno = 0;
    const int32_t result = body();
    const int32_t number = result == -1 ? -errno : result;
    const std::string told = std::to_string(number) + '\n' + log.withoutPrefixes();
    ::_exit(::write(fds[1], told.data(), told.size()) > 0 ? 0 : 1);
  }
  ::close(fds[1]);
  const std::string told = readAll(fds[0]);
  ::wait(nullptr);
  return told;
}

template <size_t Count>
void checkInChildren(const ChildCase (&cases)[Count]) {
  bool skipped = false;
  for (const ChildCase& row : cases) {
    const std::string expected = std::to_string(row.result) + '\n' + row.log;
    const bool possible = row.rights != kRoot || ::geteuid() == 0;
    EXPECT_EQ(possible ? runInChild(row.rights, row.body) : expected, expected) << &row - cases;
    skipped |= !possible;
  }
  if (skipped) GTEST_SKIP() << "all held but the cases that need to be root";
}

// From now on the system call fails with EPERM in this process.
inline void refuseSystemCall(uint32_t number) {
  sock_filter program[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                           BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1),
                           BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
                           BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  const sock_fprog filter = {std::size(program), program};
  ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter);
}

}  // namespace qora::test
