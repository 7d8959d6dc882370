// SPDX-License-Identifier: BSD-2-Clause
// qora-sandbox -- Runs a program under the service's system call filter:
//     qora-sandbox PROGRAM [ARGUMENT...]
// PROGRAM is not searched for. It takes this process over, so its process id, its three standard
// descriptors and its end are what the caller of qora-sandbox sees; all other descriptors are
// closed. A start that fails is reported on standard error and is the errno as exit status.

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "qora/sandbox/call_filter.h"

namespace {

constexpr char kUsage[] = "usage: qora-sandbox PROGRAM [ARGUMENT...]";
constexpr char kAbout[] =
    "Runs PROGRAM, which is not searched for, with the system calls that the codec service\n"
    "makes and no others. It takes this process over; all descriptors but the three standard\n"
    "ones are closed. Exit status: PROGRAM's, or the number of the error that kept it from\n"
    "starting.\n";

int fail(const char* what) {
  const int error = errno;
  std::fprintf(stderr, "qora-sandbox: %s: %s\n", what, std::strerror(error));
  return error;
}

}  // namespace

int main(int argc, char* argv[]) {
  if (argc < 2) {
    errno = EINVAL;
    return fail(kUsage);
  }
  if (std::strcmp(argv[1], "--help") == 0) {
    return std::printf("%s\n\n%s", kUsage, kAbout) < 0 ? EIO : 0;
  }
  if (std::strcmp(argv[1], "--version") == 0) {
    return std::puts("qora-sandbox " QORA_VERSION) == EOF ? EIO : 0;
  }
  // An inherited socket would be a way out that the filter does not see.
  if (::close_range(STDERR_FILENO + 1, ~0U, 0) == -1) return fail("descriptors cannot be closed");
  const qora::sandbox::ProgramStart start = {argv[1], argv + 1, environ};
  if (qora::sandbox::installCallFilter(start) == -1) return fail("the filter cannot be installed");
  ::execve(start.path, start.arguments, start.environment);
  return fail(start.path);
}
