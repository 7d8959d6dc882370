// SPDX-License-Identifier: BSD-2-Clause
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cassert>
#include <cstdio>
#include <cstring>

#include "qora/base/socket.h"
#include "qora/base/socket_report.h"

namespace qora::socket {
namespace {

constexpr int32_t kNewestLinux = 5;
constexpr int32_t kQueueQueryLevel = 3;
constexpr int32_t kSendReserve = 16384;  // bytes of the send buffer that the kernel may need itself

struct ReleaseLevel {
  char begin[5];  // four characters decide
  int32_t level;
};
constexpr ReleaseLevel kLinuxReleases[] = {
    {"2.0.", 2}, {"2.2.", 2}, {"2.4.", 3}, {"2.6.", 4}, {"2.8.", 4},
};

enum Report { kError, kErrorInTwoLines, kWarning };

struct IntegerOption {
  int32_t level, name;  // as setsockopt(2) takes them
  int32_t support;      // least support level; below it nothing is done
  int32_t silent[2];    // errors that are not reported
  Report report;
  const char* failure;  // for printf: argument 1 is the descriptor, 2 the value
};

constexpr int32_t kAny = -1;  // every level, even before the detection
// clang-format off
constexpr IntegerOption kNoDelay = {
    IPPROTO_TCP, TCP_NODELAY, kAny, {EOPNOTSUPP, ENOPROTOOPT}, kError,
    "Can't set no-delay mode on FD#%1$d to %2$d."};
constexpr IntegerOption kCork = {
    IPPROTO_TCP, TCP_CORK, 3, {}, kErrorInTwoLines,
    "Failed to set TCP_CORK to %2$d on FD#%1$d."};
constexpr IntegerOption kReceiveBuffer = {
    SOL_SOCKET, SO_RCVBUF, kAny, {}, kError,
    "Failed to set SO_RCVBUF size to %2$d on FD#%1$d."};
constexpr IntegerOption kSendBuffer = {
    SOL_SOCKET, SO_SNDBUF, kAny, {}, kError,
    "Failed to set SO_SNDBUF size to %2$d on FD#%1$d."};
constexpr IntegerOption kLowDelay = {
    IPPROTO_IP, IP_TOS, 1, {EOPNOTSUPP}, kWarning,
    "Failed to set IPTOS_LOWDELAY on FD#%1$d to %2$d."};
constexpr IntegerOption kKeepAlive = {
    SOL_SOCKET, SO_KEEPALIVE, kAny, {}, kError,
    "Failed to set SO_KEEPALIVE on FD#%1$d to %2$d."};
constexpr IntegerOption kReuseAddress = {
    SOL_SOCKET, SO_REUSEADDR, kAny, {}, kError,
    "Failed to set SO_REUSEADDR on FD#%1$d to %2$d."};
constexpr IntegerOption kQuickAck = {
    IPPROTO_TCP, TCP_QUICKACK, 3, {}, kErrorInTwoLines,
    "Failed to set TCP_QUICKACK to %2$d on FD#%1$d."};
// clang-format on

void reportOption(const IntegerOption& option, int32_t fd, int32_t value) {
  const ErrorIs reason;
  char failure[96];
  snprintf(failure, sizeof failure, option.failure, fd, value);
  switch (option.report) {
    case kError:
      return reportError(failure, " ", reason);
    case kErrorInTwoLines:
      return reportErrorInTwoLines(failure);
    case kWarning:
      return reportWarning(failure, " ", reason);
  }
}

int32_t setInteger(const IntegerOption& option, int32_t fd, int32_t value) {
  if (systemSupport().level < option.support) return 0;
  if (::setsockopt(fd, option.level, option.name, &value, sizeof value) == 0) return 1;
  if (errno != option.silent[0] && errno != option.silent[1]) reportOption(option, fd, value);
  return -1;
}

// 0, or -1.
int32_t readInteger(int32_t fd, int32_t level, int32_t name, int32_t& value) {
  socklen_t size = sizeof value;
  return ::getsockopt(fd, level, name, &value, &size);
}

SystemSupport processSupport;

}  // namespace

SystemSupport& systemSupport() {
  return processSupport;
}

int32_t supportLevelOf(const char* kernelName, const char* release) {
  assert(kernelName != nullptr && release != nullptr);
  if (strcmp(kernelName, "SunOS") == 0) return 1;
  if (strcmp(kernelName, "Linux") != 0) return 0;
  for (const ReleaseLevel& row : kLinuxReleases) {
    if (strncmp(release, row.begin, strlen(row.begin)) == 0) return row.level;
  }
  return kNewestLinux;
}

void detectSystemSupport() {
  utsname system;
  if (uname(&system) == -1) {
    const ErrorIs reason;
    logStream() << "Socket: WARNING! Failed to get system info. " << reason << "\n";
    logStream() << "Socket: WARNING! Assuming lowest system support.\n";
    warningStream() << "Failed to get system info. " << reason << "\n";
    warningStream() << "Assuming lowest system support.\n";
    systemSupport().level = 0;
    return;
  }
  systemSupport().level = supportLevelOf(system.sysname, system.release);
}

int32_t ensureSystemSupport() {
  if (systemSupport().level == -1) detectSystemSupport();
  return 1;
}

int32_t setNonBlocking(int32_t fd, int32_t enable) {
  const int flags = fcntl(fd, F_GETFL);
  if (flags != -1) {
    if (((flags & O_NONBLOCK) != 0) == (enable != 0)) return 1;
    if (fcntl(fd, F_SETFL, flags ^ O_NONBLOCK) != -1) return 1;
  }
  reportError("Can't set non-blocking mode on FD#", fd, " to ", enable, ". ", ErrorIs{});
  return -1;
}

int32_t setNoInherit(int32_t fd, int32_t value) {
  if (fcntl(fd, F_SETFD, value) != -1) return 1;
  reportError("Can't set no-inherit mode on FD#", fd, " to ", value, ". ", ErrorIs{});
  return -1;
}

int32_t setNoDelay(int32_t fd, int32_t enable) {
  return setInteger(kNoDelay, fd, enable);
}
int32_t setCork(int32_t fd, int32_t enable) {
  return setInteger(kCork, fd, enable);
}
int32_t setReceiveBuffer(int32_t fd, int32_t bytes) {
  return setInteger(kReceiveBuffer, fd, bytes);
}
int32_t setSendBuffer(int32_t fd, int32_t bytes) {
  return setInteger(kSendBuffer, fd, bytes);
}
int32_t setLowDelay(int32_t fd) {
  return setInteger(kLowDelay, fd, IPTOS_LOWDELAY);
}
int32_t setKeepAlive(int32_t fd, int32_t enable) {
  return setInteger(kKeepAlive, fd, enable);
}
int32_t setReuseAddress(int32_t fd, int32_t enable) {
  return setInteger(kReuseAddress, fd, enable);
}
int32_t setQuickAck(int32_t fd, int32_t enable) {
  return setInteger(kQuickAck, fd, enable);
}

int32_t setLinger(int32_t fd, int32_t seconds) {
  const linger value = {seconds > 0, seconds > 0 ? seconds : 0};
  if (::setsockopt(fd, SOL_SOCKET, SO_LINGER, &value, sizeof value) == 0) return 1;
  reportError("Failed to set SO_LINGER values to ", value.l_onoff, " and ", value.l_linger,
              " on FD#", fd, ". ", ErrorIs{});
  return -1;
}

int32_t queryOption(int32_t fd, int32_t option) {
  int32_t value = 0;
  int32_t status = -1;
  if (option == kQueryNonBlocking) {
    // The flags count as the outcome too: any flag that is set makes the query fail. Callers live
    // with that, it stays.
    status = ::fcntl(fd, F_GETFL);
    value = status & O_NONBLOCK;
  } else if (option == kQueryNoDelay) {
    status = readInteger(fd, IPPROTO_TCP, TCP_NODELAY, value);
  } else {
    logStream() << "Socket: WARNING! Query for option " << option << " not implemented.\n";
    errno = ENOSYS;
  }
  if (status == 0) return value;
  reportErrorInTwoLines("Query failed for option ", option, " on FD#", fd, ".");
  return -1;
}

int32_t bytesQueued(int32_t fd) {
  if (systemSupport().level < kQueueQueryLevel) {
    errno = ENOSYS;
    return -1;
  }
  int unsent = 0;
  if (ioctl(fd, TIOCOUTQ, &unsent) != -1) return unsent;
  reportError("Failed to get bytes queued on FD#", fd, ". ", ErrorIs{});
  return -1;
}

int32_t socketBytesWritable(int32_t fd) {
  const int32_t queued = bytesQueued(fd);
  if (queued == -1) return -1;
  int32_t size;
  if (readInteger(fd, SOL_SOCKET, SO_SNDBUF, size) == -1) {
    reportError("Failed to get the SO_SNDBUF size on FD#", fd, ". ", ErrorIs{});
    return -1;
  }
  return std::max(size - (queued + kSendReserve), 0);
}

int32_t pendingError(int32_t fd) {
  int32_t error;
  if (readInteger(fd, SOL_SOCKET, SO_ERROR, error) == 0) return error;
  reportError("Failed to get the SO_ERROR option for FD#", fd, ". ", ErrorIs{});
  return -1;
}

int32_t createSocketPipe(int32_t (&fds)[2], int32_t bufferSize) {
  fds[0] = fds[1] = -1;
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == -1 || setNoInherit(fds[0], 1) == -1 ||
      setNoInherit(fds[1], 1) == -1) {
    reportError("Can't create the socket pipe. ", ErrorIs{});
    return -1;
  }
  for (const int32_t fd : fds) {
    setReceiveBuffer(fd, bufferSize);
    setSendBuffer(fd, bufferSize);
  }
  return 0;
}

}  // namespace qora::socket
