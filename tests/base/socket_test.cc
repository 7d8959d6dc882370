// SPDX-License-Identifier: BSD-2-Clause
#include "qora/base/socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <sys/un.h>

#include "qora/base/descriptor.h"
#include "tests/base/calls.h"
#include "tests/support/temporary_root.h"

namespace qora::socket {
namespace {

using test::Script;

// What a call gives, and each line of `text` on the log stream and, bare, on the error stream.
std::string failed(const std::string& gives, const std::string& text) {
  return gives + "\n" + std::regex_replace(text, std::regex("(.+)"), "| Socket: ERROR! $1\nError: $1") + "\n";
}
const std::string kBad = "Error is 9 'Bad file descriptor'.";

struct Sockets : testing::Test {
  const Descriptor tcp{::socket(AF_INET, SOCK_STREAM, 0)}, udp{::socket(AF_INET, SOCK_DGRAM, 0)};
  const Descriptor local{::socket(AF_UNIX, SOCK_STREAM, 0)};
  int32_t pair[2];
  Sockets() { systemSupport().level = 5 + createSocketPipe(pair, 20000); }
  ~Sockets() { systemSupport().level = -1, ::close(pair[0]), ::close(pair[1]); }
};

// The value of an option, of a record its first.
int32_t stored(int32_t fd, int32_t level, int32_t name) {
  int32_t value = -1;
  socklen_t size = sizeof value;
  ::getsockopt(fd, level, name, &value, &size);
  return value;
}

TEST_F(Sockets, OptionsReachTheKernelOrReport) {
  const struct {
    int32_t (*set)(int32_t fd);
    int32_t level, name, value;
    std::string failure;
  } rows[] = {
      // clang-format off
      {[](int32_t fd) { return setNoDelay(fd, 1); }, IPPROTO_TCP, TCP_NODELAY, 1, "Can't set no-delay mode on FD#-1 to 1. "},
      {[](int32_t fd) { return setCork(fd, 1); }, IPPROTO_TCP, TCP_CORK, 1, "Failed to set TCP_CORK to 1 on FD#-1.\n"},
      {[](int32_t fd) { return setQuickAck(fd, 0); }, IPPROTO_TCP, TCP_QUICKACK, 0, "Failed to set TCP_QUICKACK to 0 on FD#-1.\n"},
      {[](int32_t fd) { return setReuseAddress(fd, 1); }, SOL_SOCKET, SO_REUSEADDR, 1, "Failed to set SO_REUSEADDR on FD#-1 to 1. "},
      {[](int32_t fd) { return setKeepAlive(fd, 1); }, SOL_SOCKET, SO_KEEPALIVE, 1, "Failed to set SO_KEEPALIVE on FD#-1 to 1. "},
      // The kernel doubles a buffer.
      {[](int32_t fd) { return setSendBuffer(fd, 8192); }, SOL_SOCKET, SO_SNDBUF, 16384, "Failed to set SO_SNDBUF size to 8192 on FD#-1. "},
      {[](int32_t fd) { return setReceiveBuffer(fd, 8192); }, SOL_SOCKET, SO_RCVBUF, 16384, "Failed to set SO_RCVBUF size to 8192 on FD#-1. "},
      {[](int32_t fd) { return setLinger(fd, 3); }, SOL_SOCKET, SO_LINGER, 1, "Failed to set SO_LINGER values to 1 and 3 on FD#-1. "},
      {[](int32_t fd) { return setLinger(fd, -5); }, SOL_SOCKET, SO_LINGER, 0, "Failed to set SO_LINGER values to 0 and 0 on FD#-1. "},
      {[](int32_t fd) { return socket::setNonBlocking(fd, 1); }, SOL_SOCKET, SO_TYPE, SOCK_STREAM, "Can't set non-blocking mode on FD#-1 to 1. "},
      // clang-format on
  };
  for (const auto& row : rows) {
    GIVES("1", row.set(tcp.get())) << row.failure;
    EXPECT_EQ(stored(tcp.get(), row.level, row.name), row.value) << row.failure;
    GIVES(failed("-1 EBADF", row.failure + kBad), row.set(-1));
  }
  const std::string text = " Failed to set IPTOS_LOWDELAY on FD#-1 to 16. " + kBad + "\n";
  GIVES("-1 EBADF\n| Socket: WARNING!" + text + "Warning:" + text, setLowDelay(-1));
  GIVES("1", setLowDelay(tcp.get()));
  EXPECT_EQ(stored(tcp.get(), IPPROTO_IP, IP_TOS), IPTOS_LOWDELAY);
  // Not a word where the option makes no sense.
  GIVES("-1 EOPNOTSUPP", setNoDelay(local.get(), 1));
  GIVES("-1 ENOPROTOOPT", setNoDelay(udp.get(), 1));
  GIVES("-1 EOPNOTSUPP", setLowDelay(local.get()));
}

TEST_F(Sockets, NeedALevelThatIsDetectedOnce) {
  const auto cork = [](int32_t fd) { return setCork(fd, 1); };
  const auto ack = [](int32_t fd) { return setQuickAck(fd, 1); };
  const std::tuple<int32_t (*)(int32_t), int32_t, const char*> rows[] = {{setLowDelay, 1, "0"}, {cork, 3, "0"},
      {ack, 3, "0"}, {bytesQueued, 3, "-1 ENOSYS"}, {socketBytesWritable, 3, "-1 ENOSYS"}};
  for (const auto& [call, least, below] : rows) {
    for (int32_t level = -1; level < 6; ++level) {
      systemSupport().level = level;
      EXPECT_EQ(test::outcome([call = call] { return call(-1); }) == below, level < least) << level;
    }
  }
  const std::tuple<const char*, const char*, int32_t> kernels[] = {{"Linux", "5.10.0", 5}, {"Linux", "2.6.32", 4},
      {"Linux", "2.8.0", 4}, {"Linux", "2.4.20", 3}, {"Linux", "2.2.1", 2}, {"Linux", "2.0.36", 2},
      {"Linux", "2.40", 5}, {"SunOS", "5.11", 1}, {"Linux2", "2.6.32", 0}};
  for (const auto& [kernel, release, level] : kernels) EXPECT_EQ(supportLevelOf(kernel, release), level) << release;
  const Script script({{"uname", -1, EPERM}});
  const std::string texts[] = {
      "Failed to get system info. Error is 1 'Operation not permitted'.\n", "Assuming lowest system support.\n"};
  GIVES("1 EPERM\n| Socket: WARNING! " + texts[0] + "| Socket: WARNING! " + texts[1] + "Warning: " + texts[0] +
            "Warning: " + texts[1],
      (systemSupport().level = -1, ensureSystemSupport() + systemSupport().level));
  EXPECT_EQ((systemSupport().level = -1, ensureSystemSupport() + systemSupport().level), 6);
  EXPECT_EQ((systemSupport().level = 2, ensureSystemSupport() + systemSupport().level), 3);
}

TEST_F(Sockets, Queries) {
  for (const int32_t fd : pair) {
    EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(stored(fd, SOL_SOCKET, SO_SNDBUF) + stored(fd, SOL_SOCKET, SO_RCVBUF), 80000);
  }
  const std::string tcpNumber = std::to_string(tcp.get());
  GIVES("0", queryOption(tcp.get(), kQueryNoDelay));
  GIVES("1", (setNoDelay(tcp.get(), 1), queryOption(tcp.get(), kQueryNoDelay)));
  // All flags of the descriptor are taken for the outcome.
  GIVES(failed("-1", "Query failed for option 0 on FD#" + tcpNumber + ".\nError is 0 'No error'."),
      queryOption(tcp.get(), kQueryNonBlocking));
  GIVES(failed("-1 EBADF", "Query failed for option 2 on FD#-1.\n" + kBad), queryOption(-1, kQueryNoDelay));
  GIVES("-1 ENOSYS\n| Socket: WARNING! Query for option 1 not implemented" +
            failed(".", "Query failed for option 1 on FD#-1.\nError is 38 'Function not implemented'."),
      queryOption(-1, 1));
  GIVES(failed("-1 EBADF", "Failed to get the SO_ERROR option for FD#-1. " + kBad), pendingError(-1));
  GIVES(failed("-1 EBADF", "Failed to get bytes queued on FD#-1. " + kBad), bytesQueued(-1));
  GIVES(failed("-1 EBADF", "Failed to get bytes queued on FD#-1. " + kBad), socketBytesWritable(-1));
  const Script script({{"getsockopt", -1, EPERM}, {"socketpair", -1, EMFILE}});
  GIVES(failed("-1 EPERM",
            "Failed to get the SO_SNDBUF size on FD#" + tcpNumber + ". Error is 1 'Operation not permitted'."),
      socketBytesWritable(tcp.get()));
  int32_t none[2];
  GIVES(failed("-1 EMFILE", "Can't create the socket pipe. Error is 24 'Too many open files'."),
      createSocketPipe(none, 4096));
  EXPECT_EQ(none[0] + none[1], -2);
  // 16384 bytes of the send buffer are the kernel's.
  GIVES("23616", socketBytesWritable(pair[0]));
  GIVES("1", ::write(pair[0], "unread", 6) == 6 && bytesQueued(pair[0]) >= 6);
  GIVES("23616", bytesQueued(pair[0]) + socketBytesWritable(pair[0]));
  GIVES("0", (setSendBuffer(pair[0], 5000), socketBytesWritable(pair[0])));
  GIVES("0", pendingError(pair[0]));
  GIVES("104", (::close(std::exchange(pair[1], -1)), pendingError(pair[0])));  // ECONNRESET
  GIVES("0", pendingError(pair[0]));
}

TEST_F(Sockets, BothEnds) {
  char *localHost = nullptr, *remoteHost = nullptr;
  int32_t localPort = 1, remotePort = 1;
  const auto info = [&](int32_t fd) { return networkInfo(fd, localHost, localPort, remoteHost, remotePort); };
  const auto hosts = [&] { return std::string(localHost) + " " + remoteHost; };
  for (const int32_t family : {AF_INET, AF_INET6}) {
    const Descriptor listener(::socket(family, SOCK_STREAM, 0)), caller(::socket(AF_INET, SOCK_STREAM, 0));
    if (listener.get() == -1) continue;  // a machine without IPv6
    const int32_t v6Only = 0;
    ::setsockopt(listener.get(), IPPROTO_IPV6, IPV6_V6ONLY, &v6Only, sizeof v6Only);
    ASSERT_EQ(::listen(listener.get(), 1), 0);
    const sockaddr_in to = {AF_INET, htons(uint16_t(portOf(listener.get(), kLocal))), {htonl(INADDR_LOOPBACK)}, {}};
    ASSERT_EQ(::connect(caller.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to), 0);
    const Descriptor accepted(::accept(listener.get(), nullptr, nullptr));
    GIVES("1", info(accepted.get()));
    GIVES("127.0.0.1 127.0.0.1", hosts());
    EXPECT_EQ(localPort, ntohs(to.sin_port));
    EXPECT_EQ(remotePort, portOf(caller.get(), kLocal));
    GIVES(family == AF_INET ? "0.0.0.0" : "::", test::take(hostText(listener.get(), kLocal)));
  }
  std::string text;
  for (const char* what : {"local host info", "local host", "remote host info", "remote host"}) {
    text += std::string("Can't get the ") + what + " for FD#-1.\n" + kBad + "\n";
  }
  GIVES(failed("-1 EBADF", text + "Failed to collect network information for FD#-1."), info(-1));
  GIVES("UNKNOWN UNKNOWN", hosts());
  EXPECT_EQ(localPort + remotePort, -2);
  // A local socket has no port, whatever number its path begins with.
  const test::TemporaryRoot root;
  test::inChild([&] {
    const sockaddr_un path = {AF_UNIX, "4711"};
    EXPECT_EQ(::chdir(root.path().c_str()), 0);
    EXPECT_EQ(::bind(local.get(), reinterpret_cast<const sockaddr*>(&path), sizeof path), 0);
    GIVES("0", portOf(local.get(), kLocal));
  });
  GIVES("1", info(pair[0]));
  GIVES("localhost localhost", hosts());
  EXPECT_EQ(localPort + remotePort, 0);
  const Descriptor netlink(::socket(AF_NETLINK, SOCK_RAW, 0));
  GIVES(failed("null",
            "Can't get the host name info for FD#" + std::to_string(netlink.get()) + ".\nError is 0 'No error'."),
      hostText(netlink.get(), kLocal));
  GIVES(failed("-1", "Can't get the network port.\nError is 0 'No error'."), portOf(netlink.get(), kLocal));
  delete[] localHost;
  delete[] remoteHost;
}

TEST(SocketAddress, TextsAndNames) {
  const std::pair<const char*, const char*> addresses[] = {{"::ffff:127.0.0.1", "2 16 4711 127.0.0.1"},
      {"::127.0.0.1", "10 28 4711 0.0.0.0"}, {"1::ffff:127.0.0.1", "10 28 4711 0.0.0.0"}};
  for (const auto& [text, plain] : addresses) {
    sockaddr_in6 address = {AF_INET6, htons(4711), 0, {}, 0};
    ::inet_pton(AF_INET6, text, &address.sin6_addr);
    socklen_t length = sizeof address;
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    const auto* const v4 = reinterpret_cast<const sockaddr_in*>(&address);
    EXPECT_EQ(unmapIPv4Address(unmapIPv4Address(any, length), length), any);  // a plain one stays
    EXPECT_EQ(std::to_string(any->sa_family) + " " + std::to_string(length) + " " +
                  std::to_string(ntohs(v4->sin_port)) + " " + addressText(v4->sin_addr.s_addr),
        plain);
  }
  char four[] = {127, 0, 0, 1}, sixteen[16] = {}, *list[] = {four, sixteen, nullptr};
  const hostent v4 = {nullptr, nullptr, AF_INET, 4, list}, v6 = {nullptr, nullptr, AF_INET6, 16, list + 1};
  const Script script({{"gethostbyname", reinterpret_cast<int64_t>(&v4)},
      {"gethostbyname", reinterpret_cast<int64_t>(&v6)}, {"gethostbyname", 0, EMFILE}, {"gethostbyname", 0, 99},
      {"gethostbyaddr", reinterpret_cast<int64_t>(&v4)}, {"gethostbyaddr", 0, TRY_AGAIN}});
  GIVES("127.0.0.1", resolvedAddressText("host"));
  GIVES("1.2.3.4", resolvedAddressText("1.2.3.4"));
  GIVES("0 EADDRNOTAVAIL", resolveAddress(""));
  GIVES("0 EADDRNOTAVAIL", resolveAddress(nullptr));
  // Out of descriptors the resolver has no number of its own.
  GIVES(failed("0 EADDRNOTAVAIL", "Failed to resolve address 'host'.\nError is 24 'Too many open files'."),
      resolveAddress("host"));
  GIVES(failed("0 EADDRNOTAVAIL", "Failed to resolve address 'host'.\nError is 99 'Unknown'."), resolveAddress("host"));
  GIVES("not null", lookupAddress("127.0.0.1"));
  GIVES(failed("null ENOENT", "Failed to resolve address '1.2.3.4'.\nError is 2 'Temporary name server error'."),
      lookupAddress("1.2.3.4"));
  GIVES(failed("null", "Wrong IPv4 dotted-decimal address 'x'."), lookupAddress("x"));
  GIVES(failed("null", "Wrong IPv4 dotted-decimal address 'nil'."), lookupAddress(nullptr));
  GIVES("The specified host is unknown", resolverErrorText(HOST_NOT_FOUND));
  GIVES("Non-recoverable name server error", resolverErrorText(NO_RECOVERY));
  GIVES("Host does not have an IP address", resolverErrorText(NO_DATA));
  GIVES("Unknown", resolverErrorText(-1));
  GIVES("127.254.0.255", addressText(0xFF00FE7F));
  EXPECT_EQ(isAddressText(nullptr) + isAddressText(""), -2);
  EXPECT_EQ(isAddressText("127.0.0.1:80") - isAddressText("127.x"), 1);
}

}  // namespace
}  // namespace qora::socket
