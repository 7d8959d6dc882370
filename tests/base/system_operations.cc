// Sockets and processes, as the transcripts call them.
#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <iostream>
#include <regex>

#include "qora/base/process.h"
#include "qora/base/process_parameters.h"
#include "qora/base/socket.h"
#include "tests/base/operations.h"

namespace qora {
namespace {

void limit(int32_t resource, int32_t most) {
  const rlimit both = {static_cast<rlim_t>(most), static_cast<rlim_t>(most)};
  ::setrlimit(static_cast<__rlimit_resource>(resource), &both);
}

// From now on the system call fails with EPERM in this process.
void refuse(uint32_t call) {
  sock_filter program[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                           BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1),
                           BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
                           BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  const sock_fprog filter = {std::size(program), program};
  ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter);
}

// --- socket ---

// The value of an option, of a record the integer at `index`.
int32_t stored(int32_t fd, int32_t level, int32_t option, int32_t index) {
  int32_t values[2] = {};
  socklen_t size = sizeof values;
  ::getsockopt(fd, level, option, values, &size);
  return values[index];
}

// Family, length, port and IPv4 address of what unmapping twice makes of an address.
void unmap(Text text) {
  sockaddr_in6 address = {AF_INET6, htons(4711), 0, {}, 0};
  const auto* const plain = reinterpret_cast<const sockaddr_in*>(&address);
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  ::inet_pton(AF_INET6, text, &address.sin6_addr);
  socklen_t length = sizeof address;
  socket::unmapIPv4Address(socket::unmapIPv4Address(any, length), length);
  std::clog << any->sa_family << ' ' << length << ' ' << ntohs(plain->sin_port) << ' '
            << socket::addressText(plain->sin_addr.s_addr) << '\n';
}

}  // namespace

void addSockets(Transcript& told) {
  using namespace socket;
  ADD_OPERATIONS(told, setNoDelay, setCork, setReceiveBuffer, setSendBuffer, setLowDelay,
                 setKeepAlive, setLinger, setReuseAddress, setQuickAck, queryOption,
                 socketBytesWritable, pendingError, putPair(createSocketPipe), supportLevelOf,
                 detectSystemSupport, ensureSystemSupport, owned(hostText), portOf, networkInfo,
                 resolveAddress, lookupAddress, resolvedAddressText, resolverErrorText,
                 isAddressText, addressText, stored, unmap, refuse, limit, ::listen);
  told.add("level", [] { return systemSupport().level; });
  told.add("setLevel", [](int32_t level) { systemSupport().level = level; });
  told.add("socket", [](int n, int af, int type) { return put(n, ::socket(af, type, 0)); });
  told.add("flags", [](int32_t fd, int32_t command) { return ::fcntl(fd, command); });
  told.add("queuesAtLeast", [](int32_t fd, int32_t n) { return bytesQueued(fd) >= n; });
  told.add("queueAndRoom", [](int32_t fd) { return bytesQueued(fd) + socketBytesWritable(fd); });
  told.add("connect", [&told](int32_t fd, int32_t to, int32_t accepted) {
    const auto port = static_cast<uint16_t>(portOf(to, kLocal));
    const sockaddr_in address = {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    const int32_t result = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), 16);
    put(accepted, ::accept(to, nullptr, nullptr));
    told.hide(" = " + std::to_string(port), " = PORT");
    told.hide(" = " + std::to_string(portOf(fd, kLocal)), " = OTHER PORT");
    return result;
  });
  told.add("hideResolverError", [&told] {
    const std::string reason = std::to_string(h_errno) + " '" + resolverErrorText(h_errno);
    told.hide("Error is " + reason, "Error is H_ERRNO 'ITS TEXT");
  });
}

// --- process ---

namespace {

// Starts the program, its words between "|", and gives its exit status.
int32_t run(Text program, Text variable, int32_t input, int32_t output, int32_t error,
            int32_t priority, int32_t keepPrivileges) {
  std::string words = program;
  Text environment[] = {variable, nullptr};
  int32_t status = -1;
  const pid_t child = process::createProcess(nullptr, split(words, "|").data(),
                                             variable != nullptr ? environment : nullptr, input,
                                             output, error, priority, keepPrivileges);
  if (child == -1) return -1;
  ::waitpid(child, &status, 0);
  return process::exitStatus(status);
}

}  // namespace

void addProcesses(Transcript& told) {
  using namespace process;
  ADD_OPERATIONS(told, isProcessAlive, isAlive, exitedNormally, exitStatus, killedBySignal,
                 terminationSignal, terminationSignalName, stoppedBySignal, stopSignal,
                 stopSignalName, exitCode, mapPriority, setPriority, changePriority,
                 defaultHostName, hostName, isLocalHostName, temporaryDirectory, setUserId,
                 setGroupId, userIdOf, groupIdOf, userNameOf, groupNameOf, escapeParameter,
                 unescapeParameter, isValidParameterText, isValidParameter, parseCount, isItem,
                 replaceParameterPrefix, forkProcess, detachFromTerminal, run, ::setenv, ::unsetenv,
                 ::getegid, ::geteuid, ::setresuid, ::setresgid, ::wait, ::getpriority);
  told.add("memfd", [](int32_t fd, Text name) { return put(fd, ::memfd_create(name, 0)); });
  told.add("leadsSession", [] { return ::getsid(0) == ::getpid(); });
  told.add("killSelf", [](int32_t& status) {
    if (::fork() == 0) killSelf();
    return ::wait(&status) > 0;
  });
  told.add("exec", [](Text path, Text variable) {
    Text const arguments[] = {path, nullptr}, variables[] = {variable, nullptr};
    return execProgram(path, 0, arguments, variable != nullptr ? variables : nullptr);
  });
  told.add("temporaryName", [](Text directory, Text prefix) {
    const std::unique_ptr<char, decltype(&free)> name(temporaryName(directory, prefix), free);
    return std::regex_replace(name.get(), std::regex("\\d+"), "N");
  });
  told.add("temporaryNameWithoutMemory", [] {
    const std::string directory(64 << 20, 'd');
    limit(RLIMIT_AS, 1);
    return temporaryName(directory.c_str(), nullptr);
  });
}

}  // namespace qora
