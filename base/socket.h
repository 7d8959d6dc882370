// base/socket.h -- Socket options, and what the kernel underneath is able to do.
// Results: 1 or a count, 0 where the system lacks the option, -1 with the system's errno. A failure
// is told on the log stream behind "Socket: ERROR! " and, without those words, on the error stream.
#pragma once

#include <cstdint>

namespace qora::socket {

// What the kernel supports, found out once for the process. An operation that needs a level and
// runs before the detection meets -1 and acts as on the lowest one.
struct SystemSupport {
  int32_t level = -1;  // 5 Linux, 4 to 2 older Linux, 1 SunOS, 0 any other, -1 not detected yet
};
SystemSupport& systemSupport();

// The level of a kernel by its name and release as uname(2) tells them.
int32_t supportLevelOf(const char* kernelName, const char* release);
// Asks uname(2) and sets the level; two warnings and level 0 when the kernel refuses to tell.
void detectSystemSupport();
// Detects unless that was done before; always 1.
int32_t ensureSystemSupport();

// Turns non-blocking mode on (1) or off (0); 1 also when it was so already.
int32_t setNonBlocking(int32_t fd, int32_t enable);
// Sets the descriptor flags to `value`: 1 closes the descriptor on exec, 0 keeps it.
int32_t setNoInherit(int32_t fd, int32_t value);

// The unsent bytes in the send queue. Level 3; below it -1 with ENOSYS and no message.
int32_t bytesQueued(int32_t fd);

}  // namespace qora::socket
