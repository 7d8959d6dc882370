#include "base/socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <cstring>

#include "base/string.h"
#include "tests/base/in_child.h"
#include "tests/base/seen.h"

namespace qora::socket {
namespace {

using test::Seen;

// A failure's line on the log stream and then on the error stream.
std::string told(const std::string& line) {
  return "Socket: ERROR! " + line + "\nError: " + line + "\n";
}
const std::string kBad = "Error is 9 'Bad file descriptor'.";

template <typename Value>
Value stored(int32_t fd, int32_t level, int32_t option) {
  Value value{};
  socklen_t size = sizeof value;
  ::getsockopt(fd, level, option, &value, &size);
  return value;
}

class SocketOptions : public testing::Test {
 protected:
  SocketOptions() { systemSupport().level = 5; }
  ~SocketOptions() override {
    for (const int32_t fd : {tcp_, udp_, local_, pipe_[0], pipe_[1]}) ::close(fd);
    systemSupport() = SystemSupport{};
  }
  const int32_t tcp_ = ::socket(AF_INET, SOCK_STREAM, 0);
  const int32_t udp_ = ::socket(AF_INET, SOCK_DGRAM, 0);
  const int32_t local_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
  int32_t pipe_[2] = {};
  const int32_t made_ = ::pipe(pipe_);
  const test::CapturedLog log_;
};

TEST_F(SocketOptions, AreSetOrTold) {
  // clang-format off
  const struct {
    int32_t (*set)(int32_t fd, int32_t value);
    int32_t value, level, option, stored;
    std::string line;  // ends in a blank when the error follows in the same line
  } cases[] = {
      {setNoDelay, 1, IPPROTO_TCP, TCP_NODELAY, 1, "Can't set no-delay mode on FD#-1 to 1. "},
      {setCork, 1, IPPROTO_TCP, TCP_CORK, 1, "Failed to set TCP_CORK to 1 on FD#-1."},
      {setReceiveBuffer, 8192, SOL_SOCKET, SO_RCVBUF, 16384, "Failed to set SO_RCVBUF size to 8192 on FD#-1. "},
      {setSendBuffer, 8192, SOL_SOCKET, SO_SNDBUF, 16384, "Failed to set SO_SNDBUF size to 8192 on FD#-1. "},
      {setKeepAlive, 1, SOL_SOCKET, SO_KEEPALIVE, 1, "Failed to set SO_KEEPALIVE on FD#-1 to 1. "},
      {setReuseAddress, 1, SOL_SOCKET, SO_REUSEADDR, 1, "Failed to set SO_REUSEADDR on FD#-1 to 1. "},
      {setQuickAck, 0, IPPROTO_TCP, TCP_QUICKACK, 0, "Failed to set TCP_QUICKACK to 0 on FD#-1."},
      {setLinger, -5, SOL_SOCKET, SO_LINGER, 0, "Failed to set SO_LINGER values to 0 and 0 on FD#-1. "},
      {setLinger, 3, SOL_SOCKET, SO_LINGER, 1, "Failed to set SO_LINGER values to 1 and 3 on FD#-1. "},
  };
  // clang-format on
  for (const auto& c : cases) {
    const test::CapturedLog log;
    const Seen seen{c.set(tcp_, c.value), stored<int32_t>(tcp_, c.level, c.option),
                    c.set(-1, c.value), errno};
    EXPECT_EQ(seen.text, "1 " + std::to_string(c.stored) + " -1 9");
    const bool oneLine = c.line.back() == ' ';
    EXPECT_EQ(log.withoutPrefixes(), oneLine ? told(c.line + kBad) : told(c.line) + told(kBad));
  }
  EXPECT_EQ(stored<linger>(tcp_, SOL_SOCKET, SO_LINGER).l_linger, 3);
  const Seen lowDelay{setLowDelay(tcp_), stored<int32_t>(tcp_, IPPROTO_IP, IP_TOS), setLowDelay(-1),
                      errno};
  EXPECT_EQ(lowDelay.text, "1 16 -1 9");
  const std::string line = "Failed to set IPTOS_LOWDELAY on FD#-1 to 16. " + kBad + "\n";
  EXPECT_EQ(log_.withoutPrefixes(), "Socket: WARNING! " + line + "Warning: " + line);
}

TEST_F(SocketOptions, AreQuietWhereTheyMakeNoSense) {
  const Seen wrong{setNoDelay(local_, 1), errno, setNoDelay(udp_, 1), errno,
                   setLowDelay(local_),   errno};
  EXPECT_EQ(wrong.text, "-1 95 -1 92 -1 95");
  for (const int32_t level : {-1, 0, 1, 2}) {
    systemSupport().level = level;
    EXPECT_EQ(setLowDelay(tcp_), level < 1 ? 0 : 1);
    const Seen below{setCork(-1, 1), setQuickAck(-1, 1),          bytesQueued(local_),
                     errno,          socketBytesWritable(local_), errno};
    EXPECT_EQ(below.text, "0 0 -1 38 -1 38") << level;
  }
  systemSupport().level = 3;
  EXPECT_EQ(Seen(setCork(tcp_, 1), setQuickAck(tcp_, 1), bytesQueued(local_)).text, "1 1 0");
  EXPECT_EQ(log_.text(), "");
}

TEST_F(SocketOptions, AreQueriedWithAnOddNonBlocking) {
  setNoDelay(tcp_, 1);
  EXPECT_EQ(Seen(queryOption(tcp_, 2), queryOption(pipe_[0], 0)).text, "1 0");
  EXPECT_EQ(log_.text(), "");
  setNonBlocking(pipe_[0], 1);
  const auto failed = [](int32_t option, int32_t fd) {
    return told("Query failed for option " + std::to_string(option) + " on FD#" +
                std::to_string(fd) + ".");
  };
  errno = 0;
  const Seen queries{queryOption(pipe_[0], 0), queryOption(tcp_, 0), queryOption(pipe_[0], 2),
                     queryOption(tcp_, 1)};
  EXPECT_EQ(queries.text, "-1 -1 -1 -1");
  EXPECT_EQ(log_.withoutPrefixes(),
            failed(0, pipe_[0]) + told("Error is 0 'No error'.") + failed(0, tcp_) +
                told("Error is 0 'No error'.") + failed(2, pipe_[0]) +
                told("Error is 88 'Socket operation on non-socket'.") +
                "Socket: WARNING! Query for option 1 not implemented.\n" + failed(1, tcp_) +
                told("Error is 38 'Function not implemented'."));
}

TEST_F(SocketOptions, MakeAPipeAndTellItsRoom) {
  int32_t fds[2];
  ASSERT_EQ(createSocketPipe(fds, 50000), 0);
  for (const int32_t fd : fds) {
    const Seen seen{::fcntl(fd, F_GETFD), stored<int32_t>(fd, SOL_SOCKET, SO_RCVBUF),
                    stored<int32_t>(fd, SOL_SOCKET, SO_SNDBUF), bytesQueued(fd),
                    socketBytesWritable(fd)};
    EXPECT_EQ(seen.text, "1 100000 100000 0 83616") << "16384 bytes are held back";
  }
  EXPECT_EQ(::write(fds[0], "unread", 6), 6);
  EXPECT_GE(bytesQueued(fds[0]), 6);
  EXPECT_EQ(socketBytesWritable(fds[0]), 83616 - bytesQueued(fds[0]));
  setSendBuffer(fds[0], 5000);
  EXPECT_EQ(Seen(socketBytesWritable(fds[0]), pendingError(fds[0])).text, "0 0");
  ::close(fds[1]);  // with unread data in it
  EXPECT_EQ(pendingError(fds[0]), ECONNRESET);
  ::close(fds[0]);
}

TEST(SystemSupport, FollowsKernelAndRelease) {
  const struct {
    const char *kernel, *release;
    int32_t level;
  } cases[] = {{"Linux", "5.10.0", 5}, {"Linux", "2.6.32", 4}, {"Linux", "2.8.0", 4},
               {"Linux", "2.4.20", 3}, {"Linux", "2.2.1", 2},  {"Linux", "2.0.36", 2},
               {"Linux", "2.40", 5},   {"SunOS", "5.11", 1},   {"Linux2", "2.6.32", 0}};
  for (const auto& c : cases) EXPECT_EQ(supportLevelOf(c.kernel, c.release), c.level) << c.release;
  systemSupport().level = 2;
  ensureSystemSupport();
  EXPECT_EQ(systemSupport().level, 2) << "known already";
  systemSupport() = SystemSupport{};
  EXPECT_EQ(ensureSystemSupport(), 1);
  EXPECT_EQ(systemSupport().level, 5);
  systemSupport() = SystemSupport{};
}

void refuseDescriptors() {
  const rlimit none = {0, 0};
  ::setrlimit(RLIMIT_NOFILE, &none);
}

int32_t pipeWithoutDescriptors() {
  refuseDescriptors();
  int32_t fds[2] = {7, 7};
  const int32_t result = createSocketPipe(fds, 4096);
  return fds[0] == -1 && fds[1] == -1 ? result : 0;
}

int32_t pipeWithoutFlags() {
  ::close(0);  // where the pipe's first end comes to lie
  test::refuseSystemCall(SYS_fcntl);
  int32_t fds[2];
  return createSocketPipe(fds, 4096);
}

int32_t writableWithoutBufferSize() {
  systemSupport().level = 5;
  ::dup2(::socket(AF_UNIX, SOCK_STREAM, 0), 0);
  test::refuseSystemCall(SYS_getsockopt);
  return socketBytesWritable(0);
}

TEST(Socket, FailsInChildren) {
  const std::string refused = "Error is 1 'Operation not permitted'.";
  const test::ChildCase cases[] = {
      {test::kAnyUser,
       [] {
         test::refuseSystemCall(SYS_uname);
         return ensureSystemSupport() == 1 ? systemSupport().level : -1;
       },
       0,
       "Socket: WARNING! Failed to get system info. " + refused +
           "\nSocket: WARNING! Assuming lowest system support.\n"
           "Warning: Failed to get system info. " +
           refused + "\nWarning: Assuming lowest system support.\n"},
      {test::kAnyUser, pipeWithoutDescriptors, -EMFILE,
       told("Can't create the socket pipe. Error is 24 'Too many open files'.")},
      {test::kAnyUser, pipeWithoutFlags, -EPERM,
       told("Can't set no-inherit mode on FD#0 to 1. " + refused) +
           told("Can't create the socket pipe. " + refused)},
      {test::kAnyUser, [] { return systemSupport().level = 5, socketBytesWritable(-1); }, -EBADF,
       told("Failed to get bytes queued on FD#-1. " + kBad)},
      {test::kAnyUser, writableWithoutBufferSize, -EPERM,
       told("Failed to get the SO_SNDBUF size on FD#0. " + refused)},
      {test::kAnyUser, [] { return pendingError(-1); }, -EBADF,
       told("Failed to get the SO_ERROR option for FD#-1. " + kBad)},
      {test::kAnyUser,
       [] { return refuseDescriptors(), resolveAddress("localhost") == 0 ? -h_errno : 0; }, -EMFILE,
       told("Failed to resolve address 'localhost'.") + told("Error is 24 'Too many open files'.")},
  };
  test::checkInChildren(cases);
}

TEST(SocketAddress, TellsBothEnds) {
  for (const int family : {AF_INET, AF_INET6}) {  // of the listening end; the calling one is IPv4
    const int32_t listening = ::socket(family, SOCK_STREAM, 0);
    const int32_t calling = ::socket(AF_INET, SOCK_STREAM, 0);
    if (::listen(listening, 1) == -1) GTEST_SKIP() << "needs IPv6";
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(portOf(listening, kLocal)));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::connect(calling, reinterpret_cast<sockaddr*>(&to), sizeof to);
    const int32_t accepted = ::accept(listening, nullptr, nullptr);
    const test::CapturedLog log;
    char *localHost = string::assign("before"), *remoteHost = nullptr;
    int32_t localPort = 0, remotePort = 0;
    EXPECT_EQ(networkInfo(accepted, localHost, localPort, remoteHost, remotePort), 1);
    EXPECT_EQ(Seen(localHost, localPort, remoteHost, remotePort).text,
              Seen("127.0.0.1", ntohs(to.sin_port), "127.0.0.1", portOf(calling, kLocal)).text);
    EXPECT_EQ(log.text(), "");
    string::release(localHost);
    string::release(remoteHost);
    for (const int32_t fd : {listening, calling, accepted}) ::close(fd);
  }
}

TEST_F(SocketOptions, EndsThatCannotBeTold) {
  const int32_t other = ::socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
  char *localHost = nullptr, *remoteHost = nullptr;
  int32_t localPort = -1, remotePort = 0;
  EXPECT_EQ(networkInfo(tcp_, localHost, localPort, remoteHost, remotePort), -1);
  EXPECT_EQ(Seen(localHost, localPort, remoteHost, remotePort).text, "0.0.0.0 0 UNKNOWN -1");
  errno = 0;
  for (const int32_t fd : {other, -1}) {
    EXPECT_EQ(hostText(fd, kLocal), nullptr);
    EXPECT_EQ(portOf(fd, kLocal), -1);
  }
  const std::string tcp = std::to_string(tcp_);
  const std::string unconnected = told("Error is 107 'Transport endpoint is not connected'.");
  EXPECT_EQ(log_.withoutPrefixes(),
            told("Can't get the remote host info for FD#" + tcp + ".") + unconnected +
                told("Can't get the remote host for FD#" + tcp + ".") + unconnected +
                told("Failed to collect network information for FD#" + tcp + ".") +
                told("Can't get the host name info for FD#" + std::to_string(other) + ".") +
                told("Error is 0 'No error'.") + told("Can't get the network port.") +
                told("Error is 0 'No error'.") + told("Can't get the local host info for FD#-1.") +
                told(kBad) + told("Can't get the local host for FD#-1.") + told(kBad));
  string::release(localHost);
  string::release(remoteHost);
  ::close(other);
}

TEST(SocketAddress, IsUnmappedInPlace) {
  constexpr uint8_t kPlain[16] = {2, 0, 4711 >> 8, 4711 & 0xFF, 127, 0, 0, 1};
  for (const char* text : {"::ffff:127.0.0.1", "::127.0.0.1", "1::ffff:127.0.0.1"}) {
    sockaddr_in6 address{AF_INET6, htons(4711), 0, {}, 0};
    ::inet_pton(AF_INET6, text, &address.sin6_addr);
    const sockaddr_in6 before = address;
    auto* const given = reinterpret_cast<sockaddr*>(&address);
    for (int32_t again = 0; again < 2; ++again) {  // plain IPv4 stays as well
      socklen_t length = again == 0 ? sizeof address : 16;
      EXPECT_EQ(unmapIPv4Address(given, length), given);
      const bool mapped = text[2] == 'f';
      EXPECT_EQ(length, mapped || again == 1 ? 16u : 28u) << text;
      EXPECT_EQ(memcmp(given, mapped ? static_cast<const void*>(kPlain) : &before, 16), 0) << text;
    }
  }
}

TEST(HostNames, AreResolvedBothWaysOrToldWhyNot) {
  const test::CapturedLog log;
  EXPECT_STREQ(resolvedAddressText("localhost"), "127.0.0.1");
  EXPECT_EQ(resolveAddress("1.2.3.4"), 0x04030201u);
  EXPECT_EQ(addressText(0), addressText(0xFF00FE7F)) << "one text for all";
  EXPECT_STREQ(addressText(0xFF00FE7F), "127.254.0.255");
  const hostent* host = lookupAddress("127.0.0.1");
  EXPECT_STREQ(host != nullptr ? host->h_name : "none", "localhost");
  EXPECT_EQ((Seen{resolveAddress(nullptr), resolveAddress(""), errno}.text), "0 0 99");
  EXPECT_EQ(log.text(), "");

  const auto reason = [] {
    return told("Error is " + std::to_string(h_errno) + " '" + resolverErrorText(h_errno) + "'.");
  };
  const std::string name(70, 'x');  // longer than a label may be: no server needs to be asked
  EXPECT_EQ((Seen{resolveAddress(name.c_str()), errno}.text), "0 99");
  std::string lines = told("Failed to resolve address '" + name + "'.") + reason();
  EXPECT_EQ(lookupAddress("no-address"), nullptr);
  EXPECT_EQ(lookupAddress(nullptr), nullptr);
  lines += told("Wrong IPv4 dotted-decimal address 'no-address'.");
  lines += told("Wrong IPv4 dotted-decimal address 'nil'.");
  EXPECT_EQ(log.withoutPrefixes(), lines);
}

TEST(HostNames, TextsOfErrorsAndAddresses) {
  const char* const texts[] = {"Unknown",
                               "The specified host is unknown",
                               "Temporary name server error",
                               "Non-recoverable name server error",
                               "Host does not have an IP address",
                               "Unknown"};
  for (int32_t number = 0; number < 6; ++number) {
    EXPECT_STREQ(resolverErrorText(number), texts[number]);
  }
  const Seen seen{isAddressText(nullptr), isAddressText(""), isAddressText("127.0.0.1"),
                  isAddressText("127.0.0.1:80"), isAddressText("127.x")};
  EXPECT_EQ(seen.text, "-1 -1 1 1 0");
}

}  // namespace
}  // namespace qora::socket
