// SPDX-License-Identifier: BSD-2-Clause
#include <arpa/inet.h>
#include <netinet/in.h>

#include <cassert>
#include <cstdlib>
#include <cstring>

#include "qora/base/socket.h"
#include "qora/base/socket_report.h"
#include "qora/base/string.h"

namespace qora::socket {
namespace {

constexpr const char* kResolverErrors[] = {
    "Unknown",
    "The specified host is unknown",
    "Temporary name server error",
    "Non-recoverable name server error",
    "Host does not have an IP address",
};
static_assert(HOST_NOT_FOUND == 1 && TRY_AGAIN == 2 && NO_RECOVERY == 3 && NO_DATA == 4);

const char* endName(int32_t end) {
  return end == kRemote ? "remote" : "local";
}

// The address of one end; a mapped one already turned into IPv4.
struct EndAddress {
  sockaddr_storage storage{};
  socklen_t length = sizeof storage;
  sockaddr* address() { return reinterpret_cast<sockaddr*>(&storage); }
};

// 0, or -1.
int32_t readAddress(int32_t fd, int32_t end, EndAddress& out) {
  assert(end == kRemote || end == kLocal);
  const auto call = end == kRemote ? ::getpeername : ::getsockname;
  if (call(fd, out.address(), &out.length) == -1) return -1;
  unmapIPv4Address(out.address(), out.length);
  return 0;
}

// The host or, for a null host, the port of `from` in digits. 0, or -1.
int32_t toDigits(EndAddress& from, char* host, socklen_t hostSize, char* port, socklen_t portSize) {
  return ::getnameinfo(from.address(), from.length, host, hostSize, port, portSize,
                       NI_NUMERICHOST | NI_NUMERICSERV) == 0
             ? 0
             : -1;
}

void reportResolverFailure(const char* text) {
  KeepErrno keep;
  reportError("Failed to resolve address '", orNil(text), "'.");
  const char* reason = resolverErrorText(h_errno);
  // Out of descriptors the resolver cannot even begin, and has no number of its own for that.
  if (reason == kResolverErrors[0] && keep.value == EMFILE) {
    h_errno = EMFILE;
    reason = errorText(EMFILE);
  }
  reportError("Error is ", h_errno, " '", reason, "'.");
}

}  // namespace

sockaddr* unmapIPv4Address(sockaddr* address, socklen_t& length) {
  assert(address != nullptr);
  if (address->sa_family != AF_INET6) return address;
  sockaddr_in6 mapped;
  memcpy(&mapped, address, sizeof mapped);
  if (!IN6_IS_ADDR_V4MAPPED(&mapped.sin6_addr)) return address;
  sockaddr_in plain{};
  plain.sin_family = AF_INET;
  plain.sin_port = mapped.sin6_port;
  memcpy(&plain.sin_addr, &mapped.sin6_addr.s6_addr[12], sizeof plain.sin_addr);
  memcpy(address, &plain, sizeof plain);
  length = sizeof plain;
  return address;
}

char* hostText(int32_t fd, int32_t end) {
  EndAddress from;
  char text[NI_MAXHOST];
  if (readAddress(fd, end, from) == -1) {
    reportErrorInTwoLines("Can't get the ", endName(end), " host info for FD#", fd, ".");
    return nullptr;
  }
  if (toDigits(from, text, sizeof text, nullptr, 0) == -1) {
    reportErrorInTwoLines("Can't get the host name info for FD#", fd, ".");
    return nullptr;
  }
  return string::assign(text);
}

int32_t portOf(int32_t fd, int32_t end) {
  EndAddress from;
  char text[NI_MAXSERV];
  if (readAddress(fd, end, from) == -1) {
    reportErrorInTwoLines("Can't get the ", endName(end), " host for FD#", fd, ".");
    return -1;
  }
  // A local socket has a path instead, which must not be read as a number.
  if (from.storage.ss_family == AF_UNIX) return 0;
  if (toDigits(from, nullptr, 0, text, sizeof text) == -1) {
    reportErrorInTwoLines("Can't get the network port.");
    return -1;
  }
  return ::atoi(text);
}

int32_t networkInfo(int32_t fd, char*& localHost, int32_t& localPort, char*& remoteHost,
                    int32_t& remotePort) {
  string::release(localHost);
  string::release(remoteHost);
  localHost = hostText(fd, kLocal);
  localPort = portOf(fd, kLocal);
  remoteHost = hostText(fd, kRemote);
  remotePort = portOf(fd, kRemote);
  if (localHost == nullptr) string::assign(localHost, "UNKNOWN");
  if (remoteHost == nullptr) string::assign(remoteHost, "UNKNOWN");
  if (localPort != -1 && remotePort != -1) return 1;
  reportError("Failed to collect network information for FD#", fd, ".");
  return -1;
}

uint32_t resolveAddress(const char* host) {
  if (host == nullptr || host[0] == '\0') {
    errno = EADDRNOTAVAIL;
    return 0;
  }
  const hostent* found = ::gethostbyname(host);
  if (found != nullptr && found->h_length == sizeof(uint32_t)) {
    uint32_t address;
    memcpy(&address, found->h_addr_list[0], sizeof address);
    return address;
  }
  const uint32_t address = ::inet_addr(host);
  if (address != INADDR_NONE) return address;
  reportResolverFailure(host);
  errno = EADDRNOTAVAIL;
  return 0;
}

const hostent* lookupAddress(const char* text) {
  const uint32_t address = text != nullptr ? ::inet_addr(text) : INADDR_NONE;
  if (address == INADDR_NONE) {
    reportError("Wrong IPv4 dotted-decimal address '", orNil(text), "'.");
    return nullptr;
  }
  const hostent* found = ::gethostbyaddr(&address, sizeof address, AF_INET);
  if (found == nullptr) reportResolverFailure(text);
  return found;
}

const char* resolverErrorText(int32_t number) {
  const bool known = number >= HOST_NOT_FOUND && number <= NO_DATA;
  return kResolverErrors[known ? number : 0];
}

int32_t isAddressText(const char* text) {
  if (text == nullptr || text[0] == '\0') return -1;
  // The colon lets a port after the address pass: callers hand over both in one text.
  return text[strspn(text, "0123456789.:")] == '\0' ? 1 : 0;
}

const char* addressText(uint32_t address) {
  static char text[string::kDottedQuadSize];
  return string::dottedQuad(text, address);
}

const char* resolvedAddressText(const char* host) {
  return addressText(resolveAddress(host));
}

}  // namespace qora::socket
