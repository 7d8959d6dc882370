#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/utsname.h>

#include <cstring>

#include "base/socket.h"
#include "base/socket_report.h"

namespace qora::socket {
namespace {

constexpr int32_t kNewestLinux = 5;
constexpr int32_t kQueueQueryLevel = 3;

struct ReleaseLevel {
  char begin[5];  // four characters decide
  int32_t level;
};
constexpr ReleaseLevel kLinuxReleases[] = {
    {"2.0.", 2}, {"2.2.", 2}, {"2.4.", 3}, {"2.6.", 4}, {"2.8.", 4},
};

SystemSupport processSupport;

}  // namespace

SystemSupport& systemSupport() {
  return processSupport;
}

int32_t supportLevelOf(const char* kernelName, const char* release) {
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

}  // namespace qora::socket
