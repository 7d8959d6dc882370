// SPDX-License-Identifier: GPL-2.0-or-later
#include "qora/bridge/diagnostics.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>

namespace qora::bridge {

void complain(const char* format, ...) {
  const int error = errno;
  char line[512] = "x264 bridge: ";
  constexpr size_t kPrefix = sizeof("x264 bridge: ") - 1;
  constexpr size_t kRoom = sizeof(line) - kPrefix - 1;  // the newline takes the last byte
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(line + kPrefix, kRoom, format, arguments);
  va_end(arguments);
  size_t end = kPrefix + std::min(static_cast<size_t>(std::max(length, 0)), kRoom - 1);
  line[end++] = '\n';
  // When standard error cannot be written there is nowhere left to report it.
  [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line, end);
  errno = error;
}

}  // namespace qora::bridge
