// tests/base/captured_stderr.h -- Catches what is written to descriptor 2 while it lives.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <string>

namespace qora::test {

class CapturedStderr {
 public:
  CapturedStderr() { dup2(file_, STDERR_FILENO); }
  ~CapturedStderr() {
    dup2(previous_, STDERR_FILENO);
    close(previous_);
    close(file_);
  }
  CapturedStderr(const CapturedStderr&) = delete;
  CapturedStderr& operator=(const CapturedStderr&) = delete;

  std::string text() const {
    std::string text(static_cast<size_t>(lseek(file_, 0, SEEK_END)), '\0');
    return pread(file_, text.data(), text.size(), 0) < 0 ? "unreadable" : text;
  }

 private:
  const int previous_ = dup(STDERR_FILENO);
  const int file_ = memfd_create("stderr", MFD_CLOEXEC);
};

}  // namespace qora::test
