// SPDX-License-Identifier: BSD-2-Clause
// qora/base/socket.h -- Socket options, and what the kernel underneath is able to do.
// Results: 1 or a count, 0 where the system lacks the option, -1 with the system's errno. "Level n"
// after an operation names the least support level that it needs. A failure is reported on the log
// stream after "Socket: ERROR! " and, without those words, on the error stream. Nothing may be null
// unless null is named.
#pragma once

#include <netdb.h>
#include <sys/socket.h>

#include <cstdint>

namespace qora::socket {

// What the kernel supports, found out once for the process. An operation that needs a level and
// runs before the detection meets -1 and acts as on the lowest one.
struct SystemSupport {
  int32_t level = -1;  // 5 Linux, 4 to 2 older Linux, 1 SunOS, 0 any other, -1 not detected yet
};
SystemSupport& systemSupport();

// The level of a kernel by its name and release as in uname(2).
int32_t supportLevelOf(const char* kernelName, const char* release);
// Asks uname(2) and sets the level; two warnings and level 0 when that fails.
void detectSystemSupport();
// Detects unless that was done before; always 1.
int32_t ensureSystemSupport();

// Turns non-blocking mode on (1) or off (0); 1 also when it was so already.
int32_t setNonBlocking(int32_t fd, int32_t enable);
// Sets the descriptor flags to `value`: 1 closes the descriptor on exec, 0 keeps it.
int32_t setNoInherit(int32_t fd, int32_t value);

// The options. setNoDelay and setLowDelay do not report an error that means "not for this kind of
// socket".
int32_t setNoDelay(int32_t fd, int32_t enable);
int32_t setCork(int32_t fd, int32_t enable);  // level 3
int32_t setReceiveBuffer(int32_t fd, int32_t bytes);
int32_t setSendBuffer(int32_t fd, int32_t bytes);
int32_t setLowDelay(int32_t fd);  // level 1; a failure is only a warning
int32_t setKeepAlive(int32_t fd, int32_t enable);
int32_t setLinger(int32_t fd, int32_t seconds);  // 0 or less: do not linger
int32_t setReuseAddress(int32_t fd, int32_t enable);
int32_t setQuickAck(int32_t fd, int32_t enable);  // level 3

// The value of one of these, or -1. The first fails whenever the status flags of the descriptor are
// not all zero, so it never gives anything but 0 or -1: callers of old live with that, ask
// fcntl(2) instead. Any other number is -1 with ENOSYS and a warning before the failure's lines.
constexpr int32_t kQueryNonBlocking = 0;
constexpr int32_t kQueryNoDelay = 2;
int32_t queryOption(int32_t fd, int32_t option);

// The unsent bytes in the send queue. Level 3; below it -1 with ENOSYS and no message.
int32_t bytesQueued(int32_t fd);
// How many more bytes the send buffer takes, less a reserve for the kernel; the same level.
int32_t socketBytesWritable(int32_t fd);
// The socket's pending error, cleared by the question; 0 when there is none.
int32_t pendingError(int32_t fd);

// A connected pair of local stream sockets, closed on exec, with both buffers of both ends set to
// `bufferSize` bytes where the kernel agrees. 0, or -1; what exists by then stays open in `fds`.
[[nodiscard]] int32_t createSocketPipe(int32_t (&fds)[2], int32_t bufferSize);

// Turns an IPv4 address that is mapped into IPv6 into a plain one, in place, and sets its length;
// leaves any other as it is. Returns the address. Of an IPv6 address all 28 bytes are read,
// whatever `length` says.
sockaddr* unmapIPv4Address(sockaddr* address, socklen_t& length);

// The ends of an IP socket. Of a local socket the host is "localhost" and the port 0; any other
// kind is a failure whose errno means nothing.
constexpr int32_t kRemote = 0;
constexpr int32_t kLocal = 1;
// The numeric address of an end in a new array, the caller's to delete[]; or null.
[[nodiscard]] char* hostText(int32_t fd, int32_t end);
// The port of an end, or -1.
int32_t portOf(int32_t fd, int32_t end);
// Both of both ends, the hosts into string slots; a host that cannot be had is "UNKNOWN". 1, or -1
// when a port is missing.
int32_t networkInfo(int32_t fd, char*& localHost, int32_t& localPort, char*& remoteHost,
                    int32_t& remotePort);

// Names and IPv4 addresses in network order. These use the C library's static records and the
// text of addressText() is one as well: one thread at a time.

// The address of a host name or dotted text, 0 with EADDRNOTAVAIL when there is none; null and
// empty texts have none and are not reported.
uint32_t resolveAddress(const char* host);
// The record of the host with that dotted address, valid until the next look-up; or null, also for
// a null text.
[[nodiscard]] const hostent* lookupAddress(const char* text);
// What a value of h_errno means.
const char* resolverErrorText(int32_t number);
// 1 when the text is made of digits, dots and colons, 0 when not, -1 when it is null or empty.
int32_t isAddressText(const char* text);
// "a.b.c.d", overwritten by the next call.
const char* addressText(uint32_t address);
const char* resolvedAddressText(const char* host);

}  // namespace qora::socket
