#include "client/codec_client.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

#include "client/service_end.h"
#include "tests/support/message_bytes.h"

namespace qora::client {
namespace {

using test::Bytes;

int32_t startPeer(CodecClient& client, const char* script, const char* codecRoot = "/the/root") {
  setenv("PEER_SCRIPT", script, 1);
  return client.start({.servicePath = SCRIPTED_PEER, .codecRoot = codecRoot});
}

bool noChildIsLeft() {
  return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

void expectError(int error, int32_t result) {
  EXPECT_EQ(error, errno);
  EXPECT_EQ(-1, result);
}

TEST(CodecClientTest, SendsTheBytesOfEachCommand) {
  using test::bytesOf, test::operator+;
  CodecClient client;
  ASSERT_EQ(1, startPeer(client, "echo"));
  const service::AddStreamRequest add{service::kAnnexBFlag, 7, 2, 0x1122, 10, 40, 0x280, 0x168};
  const service::EncodeRequest encode{7, 1, 99, {0, 256, 512}, {64, 32, 32}, 99};
  const test::FrameHints hints{{{-2, 16, 32, 48, 64}, {}}, {{6, 1, 2, 3, 4, 5, 6}}, 1};
  EXPECT_EQ(1, client.attachSegment(0x01020304));
  EXPECT_EQ(1, client.addStream(add));
  EXPECT_EQ(1, client.encode(encode, hints.rectangles, hints.copies));
  EXPECT_EQ(1, client.removeStream(7));
  EXPECT_EQ(1, client.removeSegment(0x01020304));
  EXPECT_EQ(1, client.encode({}, {}, {}));
  Reply reply;
  ASSERT_EQ(1, client.readReply(reply));
  EXPECT_EQ(bytesOf(service::buildSegmentMessage(service::CommandType::attachSegment, 0x01020304)) +
                bytesOf(service::buildAddStream(add)) + test::encodeMessage(encode, hints),
            reply.frame);
  EXPECT_EQ(5u, encodeMilliseconds(reply.fields));  // across the clock's wrap
  ASSERT_EQ(1, client.readReply(reply));
  EXPECT_EQ(
      bytesOf(service::buildRemoveStream(7)) +
          bytesOf(service::buildSegmentMessage(service::CommandType::removeSegment, 0x01020304)) +
          test::encodeMessage({}, {}),
      reply.frame);
}

TEST(CodecClientTest, MatchesRepliesByOrder) {
  CodecClient client;
  Reply reply;
  EXPECT_EQ(0, client.stop());
  expectError(EPIPE, client.encode({}, {}, {}));  // nothing is started
  ASSERT_EQ(1, startPeer(client, "size 70000"));
  expectError(EBUSY, startPeer(client, "echo"));
  EXPECT_EQ(0, client.readReply(reply));  // none is due
  for (const uint8_t stream : {3, 0, 7, 3}) {
    ASSERT_EQ(1, client.encode({stream, 0, 0, {}, {}, 0}, {}, {}));
  }
  for (const uint8_t stream : {3, 0, 7, 3}) {
    int32_t result;
    while ((result = client.readReply(reply, 1)) == 0) continue;  // it may come later
    ASSERT_EQ(1, result);
    EXPECT_EQ(stream, reply.streamId);
    EXPECT_EQ(Bytes(70000, stream), reply.frame);
  }
  EXPECT_EQ(1, client.stop());
  EXPECT_TRUE(noChildIsLeft());
}

// Commands and replies that are far larger than both pipes, and no reply read between them.
TEST(CodecClientTest, GoesOnWhileBothPipesAreFull) {
  CodecClient client;
  ASSERT_EQ(1, startPeer(client, "size 1048576"));
  const std::vector<service::Rectangle> most(static_cast<size_t>(maxRectangles(0)));
  for (int i = 0; i < 4; ++i) ASSERT_EQ(1, client.encode({}, most, {}));
  Reply reply;
  for (int i = 0; i < 4; ++i) {
    ASSERT_EQ(1, client.readReply(reply));
    EXPECT_EQ(1048576u, reply.frame.size());
  }
  const service::RegionCopy oneTooMany{};
  expectError(EMSGSIZE, client.encode({}, most, {&oneTooMany, 1}));
  ASSERT_EQ(1, client.encode({}, {}, {}));
  EXPECT_EQ(1, client.stop());  // in the middle of a reply that nobody reads
}

TEST(CodecClientTest, TellsHowTheServiceEnded) {
  const std::pair<const char*, const char*> cases[] = {
      {"exit 0", "service ended with status 0: orderly end"},
      {"exit 2", "service ended with status 2: service program or encoder library not found"},
      {"exit 13", "service ended with status 13: Permission denied"},
      {"half 22", "service ended with status 22: malformed message"},
      {"signal 9", "service ended by signal 9 (SIGKILL)"}};
  for (const auto& [script, words] : cases) {
    SCOPED_TRACE(script);
    CodecClient client;
    Reply reply;
    ASSERT_EQ(1, startPeer(client, script));
    int32_t result = client.encode({}, {}, {});
    if (result == 1) result = client.readReply(reply);
    expectError(EPIPE, result);
    EXPECT_EQ(words, client.endText());
    EXPECT_TRUE(!client.isRunning() && noChildIsLeft());
    expectError(EPIPE, client.encode({}, {}, {}));
    ASSERT_EQ(1, startPeer(client, "echo"));  // and starts again
    EXPECT_EQ("", client.endText());
  }
  EXPECT_EQ("service ended by signal 33", describeServiceEnd(33));  // one without a name
  CodecClient client;
  expectError(ENOENT, client.start({.servicePath = "/no/such/program", .codecRoot = ""}));
  expectError(EACCES, client.start({.servicePath = "/etc/passwd", .codecRoot = ""}));
}

TEST(CodecClientTest, GivesUpOnAServiceThatTalksNonsenseOrHangs) {
  CodecClient client;
  Reply reply;
  ASSERT_EQ(1, startPeer(client, "garbage"));
  ASSERT_EQ(1, client.encode({}, {}, {}));
  expectError(EPROTO, client.readReply(reply));
  EXPECT_EQ(1, client.stop());
  ASSERT_EQ(1, startPeer(client, "hang"));
  EXPECT_EQ(-1, client.stop(20));
  EXPECT_EQ("service did not end in time and was killed", client.endText());
  EXPECT_TRUE(noChildIsLeft());
}

// Descriptors of one service must not reach the other, or its end of input would never come.
TEST(CodecClientTest, GivesTheServiceNothingButItsOwn) {
  setenv("QORA_SYSTEM", "/ours", 1);
  CodecClient clients[2];
  ASSERT_EQ(1, startPeer(clients[0], "tell"));
  ASSERT_EQ(1, startPeer(clients[1], "tell", ""));
  unsetenv("QORA_SYSTEM");
  Reply replies[2];
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(1, clients[i].encode({}, {}, {}));
    ASSERT_EQ(1, clients[i].readReply(replies[i]));
  }
  const std::string told(replies[0].frame.begin(), replies[0].frame.end());
  EXPECT_EQ("/the/root 0 1 2", told.substr(0, 15));
  EXPECT_EQ("/ours" + told.substr(9),
            std::string(replies[1].frame.begin(), replies[1].frame.end()));
}

TEST(CodecClientTest, LeavesSignalsAlone) {
  signal(SIGPIPE, SIG_DFL);  // one that gets through ends this test
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  for (const int others : {0, 1}) {  // whether somebody else's is waiting
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    if (others == 1) raise(SIGPIPE);
    CodecClient client;
    ASSERT_EQ(1, startPeer(client, "exit 0"));
    while (client.removeStream(0) == 1) continue;
    EXPECT_EQ(EPIPE, errno);
    sigset_t waiting;
    sigpending(&waiting);
    EXPECT_EQ(others, sigismember(&waiting, SIGPIPE));
    const timespec noWait{};
    sigtimedwait(&pipe, nullptr, &noWait);
    pthread_sigmask(SIG_UNBLOCK, &pipe, nullptr);
    ASSERT_EQ(1, startPeer(client, "exit 0"));
    while (client.removeStream(0) == 1) continue;
  }
}

}  // namespace
}  // namespace qora::client
