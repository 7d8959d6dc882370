// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/codec_client.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>

#include "tests/client/peer.h"

// A pipe that is made in two steps can be inherited by a child that another thread starts between
// them, which no test meets reliably. So the calls are watched.
static std::atomic<int> inheritablePipes = 0;
extern "C" int pipe(int ends[2]) noexcept {
  ++inheritablePipes;
  return static_cast<int>(syscall(SYS_pipe2, ends, 0));
}
extern "C" int pipe2(int ends[2], int flags) noexcept {
  if ((flags & O_CLOEXEC) == 0) ++inheritablePipes;
  return static_cast<int>(syscall(SYS_pipe2, ends, flags));
}

namespace qora::client {
namespace {

using namespace peer;

// Answers an encode with all command bytes since its last answer.
const bool kEchoes = addPeer("echoes", [] {
  Bytes received;
  for (Bytes command = nextCommand(); !command.empty(); command = nextCommand()) {
    received.insert(received.end(), command.begin(), command.end());
    if (command[4] == 2) put(replyWith(std::exchange(received, {})));
  }
  return 0;
});

// Answers with its surroundings, logs a line and ends.
const bool kTells = addPeer("tells", [] {
  sigset_t blocked;
  sigprocmask(SIG_SETMASK, nullptr, &blocked);
  std::string text = getenv("QORA_SYSTEM");
  for (int fd = 0; fd < 1024; ++fd) {
    if (fcntl(fd, F_GETFD) != -1) text.append(" ").append(std::to_string(fd));
  }
  if (sigisemptyset(&blocked) == 0) text += " blocked";
  nextCommand();
  put(replyWith({text.begin(), text.end()}));
  if (fcntl(2, F_GETFD) != -1) put({'l', 'o', 'g', '\n'}, 2);
  return 0;
});

const bool kNeverReads = addPeer("never reads", hang);

void expectError(int error, int32_t result) {
  EXPECT_EQ(error, errno);
  EXPECT_EQ(-1, result);
}

template <typename... Parts>
Bytes joined(const Parts&... parts) {
  Bytes all;
  (all.insert(all.end(), parts.begin(), parts.end()), ...);
  return all;
}

// No two alike, so that bytes sent twice or left out are noticed.
std::vector<service::Rectangle> differentRectangles(int32_t count) {
  std::vector<service::Rectangle> list;
  for (int32_t i = 0; i < count; ++i) {
    const auto low = static_cast<uint16_t>(i);
    list.push_back(
        {static_cast<int8_t>(i % 101 - 50), low, static_cast<uint16_t>(i >> 16), 1, low});
  }
  return list;
}

service::EncodeRequest toStream(uint8_t stream) {
  service::EncodeRequest request{};
  request.streamId = stream;
  return request;
}

// The bytes of that command, whose lengths the client fills in.
Bytes encodeBytes(service::EncodeRequest request, const std::vector<service::Rectangle>& list,
                  const Bytes& copies = {}) {
  request.rectangleBytes = static_cast<uint32_t>(list.size() * service::kRectangleSize);
  request.copyBytes = static_cast<uint32_t>(copies.size());
  Bytes lists(request.rectangleBytes);
  uint8_t* out = lists.data();
  for (const service::Rectangle& rectangle : list) {
    service::buildRectangle(rectangle, out);
    out += service::kRectangleSize;
  }
  return joined(service::buildEncodeHead(request), lists, copies);
}

TEST(CodecClientTest, SendsTheBytesOfEachCommand) {
  using namespace service;
  const AddStreamRequest stream{kAnnexBFlag, 7, 2, 0x1122, 10, 40, 0x280, 0x168};
  const EncodeRequest encode{7, 1, 99, {0, 256, 512}, {64, 32, 32}, 99};
  const RegionCopy copy{6, 1, 2, 3, 4, 5, 6};
  Bytes copies(kRegionCopySize);
  buildRegionCopy(copy, copies.data());
  const auto rectangles = differentRectangles(2);
  CodecClient client;
  Reply reply;
  ASSERT_EQ(1, startPeer(client, "echoes"));
  EXPECT_TRUE(client.attachSegment(77) == 1 && client.addStream(stream) == 1 &&
              client.removeStream(7) == 1 && client.removeSegment(77) == 1 &&
              client.encode(encode, rectangles, {&copy, 1}) == 1);
  ASSERT_EQ(1, client.readReply(reply));
  EXPECT_EQ(joined(buildSegmentMessage(CommandType::attachSegment, 77), buildAddStream(stream),
                   buildRemoveStream(7), buildSegmentMessage(CommandType::removeSegment, 77),
                   encodeBytes(encode, rectangles, copies)),
            reply.frame);
  EXPECT_EQ(5u, encodeMilliseconds(reply.fields));  // across the clock's wrap
}

// Commands and replies that are far larger than both pipes, and no reply read between them.
TEST(CodecClientTest, SendsMoreThanThePipesHold) {
  static_assert(maxRectangles(0) > 80000 && maxRectangles(1 << 30) == 1 && maxRectangles(-1) > 0);
  const auto most = differentRectangles(maxRectangles(0));
  CodecClient client;
  Reply reply;
  ASSERT_EQ(1, startPeer(client, "echoes"));
  expectError(EBUSY, client.start({}));
  EXPECT_EQ(0, client.readReply(reply));  // none is due
  for (const uint8_t i : {3, 0, 7}) ASSERT_EQ(1, client.encode(toStream(i), most, {}));
  for (const uint8_t i : {3, 0, 7}) {
    while (client.readReply(reply, 1) == 0) continue;  // it may come later
    EXPECT_EQ(i, reply.streamId);
    EXPECT_TRUE(encodeBytes(toStream(i), most) == reply.frame) << int{i};
  }
  const service::RegionCopy oneTooMany{};
  expectError(EMSGSIZE, client.encode({}, most, {&oneTooMany, 1}));
  ASSERT_EQ(1, client.encode({}, most, {}));
  EXPECT_EQ(1, client.stop());  // in the middle of a reply that nobody reads
  EXPECT_TRUE(noChildIsLeft());
}

TEST(CodecClientTest, SendsMoreThanThePipesHoldWithoutWaiting) {
  const auto most = differentRectangles(maxRectangles(0));
  CodecClient client;
  Reply reply;
  ASSERT_EQ(1, startPeer(client, "echoes"));
  uint8_t sent = 0;
  for (uint8_t taken = 0; taken < 4;) {
    // What waits for room goes out before a command that waits for it.
    if (sent == 2 && client.encode(toStream(sent), most, {}) == 1) ++sent;
    const int32_t result = sent < 4 ? client.tryEncode(toStream(sent), most, {}) : 0;
    EXPECT_TRUE(result == 1 || sent == 4 || client.wantsWrite());
    sent = static_cast<uint8_t>(sent + result);
    pollfd wake = {client.replyDescriptor(), POLLIN, 0};
    ASSERT_EQ(1, poll(&wake, 1, 20000));
    ASSERT_NE(-1, client.process());
    while (client.readReply(reply, 0) == 1) {
      EXPECT_TRUE(encodeBytes(toStream(taken), most) == reply.frame) << int{taken};
      ++taken;
    }
  }
  EXPECT_FALSE(client.wantsWrite());
}

TEST(CodecClientTest, GivesUpOnAServiceThatTakesNoCommand) {
  const auto most = differentRectangles(maxRectangles(0));
  CodecClient client;
  ASSERT_EQ(1, startPeer(client, "never reads", {.commandTimeout = 50}));
  EXPECT_EQ(1, client.tryEncode({}, most, {}));
  EXPECT_EQ(0, client.tryEncode({}, {}, {}));
  pollfd wake = {client.replyDescriptor(), POLLIN, 0};
  EXPECT_TRUE(client.wantsWrite() && poll(&wake, 1, 0) == 0);
  expectError(ETIMEDOUT, client.removeStream(0));
  EXPECT_EQ("service took no command for 50 milliseconds and was killed", client.endText());
  EXPECT_TRUE(noChildIsLeft() && client.pendingReplies() == 0 && !client.wantsWrite());
}

TEST(CodecClientTest, RefusesWhatCannotBeStarted) {
  const std::pair<ServiceOptions, int> cases[] = {
      {{.servicePath = ""}, ENOENT},
      {{.servicePath = "/etc/passwd"}, EACCES},
      {{.servicePath = "/"}, EACCES},
      {{.servicePath = "/bin/true", .sandboxPath = "/no/such/program"}, ENOENT},
      {{.servicePath = "/bin/true", .errorDescriptor = 2, .keepLog = true}, EINVAL},
      {{.servicePath = "/bin/true", .errorDescriptor = 1 << 20}, EBADF}};
  CodecClient client;
  for (const auto& [options, error] : cases) {
    expectError(error, client.start(options));
    EXPECT_TRUE(!client.isRunning() && client.replyDescriptor() == -1 && noChildIsLeft());
  }
  EXPECT_EQ(0, client.stop());
  expectError(EPIPE, client.encode({}, {}, {}));
  expectError(EPIPE, client.process());
}

// Otherwise each frame would be taken for the next one's.
TEST(CodecClientTest, NoticesAReplyTooManyBetweenFrames) {
  CodecClient client;
  ASSERT_EQ(1, startPeer(client, "answers before it is asked"));
  while (client.removeStream(0) == 1) usleep(1000);
  EXPECT_EQ(EPROTO, errno);
}

// Between frames, when no reply is due and nobody calls.
TEST(CodecClientTest, WakesWhenTheServiceEnds) {
  CodecClient client;
  Reply reply;
  ASSERT_EQ(1, startPeer(client, "tells", {.codecRoot = "/", .keepLog = true}));
  EXPECT_TRUE(client.encode({}, {}, {}) == 1 && client.readReply(reply) == 1);
  int32_t result = 0;
  for (pollfd wake = {client.replyDescriptor(), POLLIN, 0}; result == 0;) {
    ASSERT_EQ(1, poll(&wake, 1, 20000));  // the log line is a wake too
    result = client.process();
  }
  expectError(EPIPE, result);
  EXPECT_EQ(-1, client.replyDescriptor());
  EXPECT_EQ(std::deque<std::string>{"log"}, client.logLines());
}

struct Surroundings {
  bool standard;            // the parent has its descriptors 0 to 2 open
  int32_t errorDescriptor;  // a pipe's end in the parent, unless it is -1
  const char* told;
};
constexpr Surroundings kSurroundings[] = {
    {true, -1, "/the/root 0 1 2"},    {true, 0, "/the/root 0 1 2 log"},
    {true, 1, "/the/root 0 1 2 log"}, {true, 7, "/the/root 0 1 2 log"},
    {false, -1, "/the/root 0 1"},     {false, 0, "/the/root 0 1 2 log"}};

// What the service said of itself, and what it logged to the descriptor. In a child of the test.
std::string tellFrom(const Surroundings& row) {
  int log[2];
  if (pipe2(log, O_CLOEXEC | O_NONBLOCK) == -1) return "no pipe";
  const int ends[] = {fcntl(log[0], F_DUPFD, 100), fcntl(log[1], F_DUPFD, 100)};
  for (int fd = 0; fd < 3 && !row.standard; ++fd) close(fd);
  if (row.errorDescriptor != -1) dup2(ends[1], row.errorDescriptor);
  CodecClient client;
  Reply reply;
  const ServiceOptions options{.codecRoot = "/the/root", .errorDescriptor = row.errorDescriptor};
  if (startPeer(client, "tells", options) == -1 || client.encode({}, {}, {}) == -1 ||
      client.readReply(reply) == -1) {
    return client.endText();
  }
  // What the parent writes there goes nowhere, and never to the service.
  for (int fd = 0; fd < 3 && !row.standard; ++fd) {
    if (fd != row.errorDescriptor && fcntl(fd, F_GETFD) != -1) return "ours on a standard one";
  }
  client.stop();
  char line[4] = {};
  const bool logged = read(ends[0], line, 4) == 4;
  return std::string(reply.frame.begin(), reply.frame.end()) + (logged ? " log" : "");
}

TEST(CodecClientTest, GivesTheServiceNothingButItsOwn) {
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
  for (const Surroundings& row : kSurroundings) {
    const pid_t child = fork();
    if (child == 0) _exit(tellFrom(row) == row.told && inheritablePipes == 0 ? 0 : 1);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status) << row.told << ", diagnostics to " << row.errorDescriptor;
  }
  pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
}

}  // namespace
}  // namespace qora::client
