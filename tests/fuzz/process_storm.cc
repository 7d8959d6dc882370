// tests/fuzz/process_storm.cc -- The built service as a process, with arbitrary standard input:
// sessions of mostly sound commands, damaged here and there, against the scripted encoder library.
//
// Usage: process_storm SERVICE ENCODER RUNS [SECONDS [FOLDER]]
// Stops after RUNS sessions, SECONDS or 20 findings. Each session must end by itself, not by a
// signal, with a documented status, and its output must be whole replies. One that does not is
// written to FOLDER. Prints "process_storm EXECUTIONS FINDINGS"; ends with 1 if there was a
// finding.

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "qora/service/wire/messages.h"
#include "tests/support/temporary_root.h"

namespace qora::fuzz {
namespace {

using namespace service;
using Bytes = std::vector<uint8_t>;
using Random = std::mt19937;

constexpr int kTimeout = 20000;  // milliseconds; far beyond what a session takes
constexpr long kMostFindings = 20;
// End of input and failures that leave no errno; no memory; no such segment, malformed, too large;
// no permission for a segment; an unknown command; a segment that is being removed.
constexpr int kStatuses[] = {0, 12, 13, 22, 42, 43};

uint32_t below(Random& random, uint32_t limit) {
  return static_cast<uint32_t>(random() % limit);
}

template <typename Message>
void append(Bytes& bytes, const Message& message) {
  bytes.insert(bytes.end(), message.begin(), message.end());
}

void appendEncode(Bytes& bytes, Random& random, uint8_t id) {
  EncodeRequest request{};
  request.streamId = id;
  request.invalidate = below(random, 2) == 0 ? 1 : 0;
  request.rectangleBytes = below(random, 4) * kRectangleSize;
  request.copyBytes = below(random, 3) * kRegionCopySize;
  append(bytes, buildEncodeHead(request));
  for (uint32_t i = 0; i < request.rectangleBytes + request.copyBytes; ++i) {
    bytes.push_back(static_cast<uint8_t>(below(random, 3) == 0 ? random() : below(random, 64)));
  }
}

void appendMessage(Bytes& bytes, Random& random, int32_t segment) {
  const auto id = static_cast<uint8_t>(below(random, 40) == 0 ? random() : below(random, 3));
  switch (below(random, 10)) {
    case 0:
    case 1:
      return append(bytes, buildAddStream({.flags = static_cast<uint8_t>(random()),
                                           .streamId = id,
                                           .threads = 1,
                                           .bitrate = static_cast<uint16_t>(below(random, 2000)),
                                           .qpMin = 0,
                                           .qpMax = 51,
                                           .width = static_cast<uint16_t>(below(random, 200)),
                                           .height = static_cast<uint16_t>(below(random, 200))}));
    case 2:
      return append(bytes, buildRemoveStream(id));
    case 3:
    case 4:
      return append(bytes, buildSegmentMessage(CommandType::attachSegment, segment));
    case 5:
      if (below(random, 4) != 0) return;
      return append(bytes, buildSegmentMessage(CommandType::removeSegment, segment));
    default:
      return appendEncode(bytes, random, id);
  }
}

// Changes bytes, or takes a piece away, or puts one in; sometimes leaves everything as it is.
void damage(Bytes& bytes, Random& random) {
  for (uint32_t count = below(random, 4); count > 0 && !bytes.empty(); --count) {
    const auto at = static_cast<ptrdiff_t>(below(random, static_cast<uint32_t>(bytes.size())));
    const auto length =
        std::min<ptrdiff_t>(below(random, 20), static_cast<ptrdiff_t>(bytes.size()) - at);
    switch (below(random, 4)) {
      case 0:
        bytes[static_cast<size_t>(at)] = static_cast<uint8_t>(random());
        break;
      case 1:
        bytes[static_cast<size_t>(at)] ^= static_cast<uint8_t>(1 << below(random, 8));
        break;
      case 2:
        bytes.erase(bytes.begin() + at, bytes.begin() + at + length);
        break;
      default:
        bytes.insert(bytes.begin() + at, static_cast<size_t>(length),
                     static_cast<uint8_t>(random()));
    }
  }
}

Bytes makeSession(Random& random, int32_t segment) {
  Bytes bytes;
  for (uint32_t count = below(random, 30); count > 0; --count) {
    appendMessage(bytes, random, segment);
  }
  damage(bytes, random);
  return bytes;
}

int memoryFile(const Bytes& bytes) {
  const int file = memfd_create("session", MFD_CLOEXEC);
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t count =
        ::pwrite(file, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
    if (count <= 0) std::abort();
    done += static_cast<size_t>(count);
  }
  return file;
}

// Whether a file holds replies and nothing else.
bool holdsReplies(int file) {
  const off_t end = ::lseek(file, 0, SEEK_END);
  off_t at = 0;
  uint8_t head[kReplyHeadSize];
  while (::pread(file, head, sizeof head, at) == sizeof head) {
    const ReplyFields fields = parseReplyHead(head);
    const auto expected = buildReplyHead(fields);
    if (!std::equal(expected.begin(), expected.end(), head)) return false;
    at += kReplyHeadSize + static_cast<off_t>(fields.frameSize);
  }
  return at == end;
}

// Null, or what is wrong with the way the service took the session.
const char* runSession(const char* service, const Bytes& session) {
  const int input = memoryFile(session);
  const int output = memoryFile({});
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  char* const arguments[] = {const_cast<char*>(service), nullptr};
  pid_t child;
  if (posix_spawn(&child, service, &actions, nullptr, arguments, environ) != 0) std::abort();
  posix_spawn_file_actions_destroy(&actions);

  const int handle = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
  pollfd end = {handle, POLLIN, 0};
  const bool ended = handle == -1 || ::poll(&end, 1, kTimeout) == 1;
  if (!ended) ::kill(child, SIGKILL);
  int status = 0;
  ::waitpid(child, &status, 0);
  const char* problem = nullptr;
  if (!ended) {
    problem = "did not end";
  } else if (!WIFEXITED(status)) {
    problem = "was ended by a signal";
  } else if (std::find(std::begin(kStatuses), std::end(kStatuses), WEXITSTATUS(status)) ==
             std::end(kStatuses)) {
    problem = "has a status that nobody knows";
  } else if (!holdsReplies(output)) {
    problem = "wrote something that is no reply";
  }
  for (const int descriptor : {input, output, handle}) ::close(descriptor);
  return problem;
}

}  // namespace
}  // namespace qora::fuzz

int main(int count, char* arguments[]) {
  using namespace qora::fuzz;
  using Clock = std::chrono::steady_clock;
  if (count < 4) {
    std::fprintf(stderr, "usage: process_storm SERVICE ENCODER RUNS [SECONDS [FOLDER]]\n");
    return 2;
  }
  const qora::test::TemporaryRoot root(
      {{"lib/libx264.so", std::filesystem::absolute(arguments[2])}});
  ::setenv("QORA_SYSTEM", root.path().c_str(), 1);
  // A second add leaves the first encoder behind, which a leak checker would make a status of.
  ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
  const long runs = std::atol(arguments[3]);
  const auto deadline =
      Clock::now() + std::chrono::seconds(count > 4 ? std::atol(arguments[4]) : 3600);
  const std::string folder = count > 5 ? arguments[5] : ".";
  // Without a time the sessions are always the same.
  Random random(count > 4 ? std::random_device()() : 1);
  const int segment = ::shmget(IPC_PRIVATE, 4096, 0600);

  long done = 0;
  long findings = 0;
  for (; done < runs && Clock::now() < deadline && findings < kMostFindings; ++done) {
    const Bytes session = makeSession(random, segment);
    const char* problem = runSession(arguments[1], session);
    if (problem == nullptr) continue;
    const std::string file = folder + "/session-" + std::to_string(++findings);
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(session.data()),
               static_cast<std::streamsize>(session.size()));
    std::fprintf(stderr, "%s: the service %s\n", file.c_str(), problem);
  }
  ::shmctl(segment, IPC_RMID, nullptr);
  std::printf("process_storm %ld %ld\n", done, findings);
  return findings == 0 ? 0 : 1;
}
