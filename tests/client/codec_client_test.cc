#include "qora/client/codec_client.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <vector>

#include "qora/client/service_end.h"

namespace qora::client {
namespace {

using Bytes = std::vector<uint8_t>;

// A client whose service does what the script says.
struct PeerClient : CodecClient {
  explicit PeerClient(const char* script, const char* codecRoot = "/the/root") {
    setenv("PEER_SCRIPT", script, 1);
    EXPECT_EQ(1, start({.servicePath = SCRIPTED_PEER, .codecRoot = codecRoot}));
  }
  int32_t encodeNothing() { return encode({}, {}, {}); }
  Reply reply;
};

bool noChildIsLeft() {
  return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

void expectError(int error, int32_t result) {
  EXPECT_EQ(error, errno);
  EXPECT_EQ(-1, result);
}

TEST(CodecClientTest, SendsTheBytesOfEachCommand) {
  using namespace service;
  Bytes sent;
  const auto add = [&](const auto& part) { sent.insert(sent.end(), part.begin(), part.end()); };
  const AddStreamRequest stream{kAnnexBFlag, 7, 2, 0x1122, 10, 40, 0x280, 0x168};
  EncodeRequest encode{7, 1, 99, {0, 256, 512}, {64, 32, 32}, 99};  // lengths are the client's own
  const Rectangle rectangles[] = {{-2, 16, 32, 48, 64}, {}};
  const RegionCopy copy{6, 1, 2, 3, 4, 5, 6};
  PeerClient client("echo");
  EXPECT_TRUE(client.attachSegment(77) == 1 && client.addStream(stream) == 1 &&
              client.removeStream(7) == 1 && client.removeSegment(77) == 1 &&
              client.encode(encode, rectangles, {&copy, 1}) == 1);
  ASSERT_EQ(1, client.readReply(client.reply));
  encode.rectangleBytes = 24;
  encode.copyBytes = 16;
  std::array<uint8_t, 40> lists{};
  buildRectangle(rectangles[0], &lists[0]);
  buildRegionCopy(copy, &lists[24]);
  add(buildSegmentMessage(CommandType::attachSegment, 77));
  add(buildAddStream(stream));
  add(buildRemoveStream(7));
  add(buildSegmentMessage(CommandType::removeSegment, 77));
  add(buildEncodeHead(encode));
  add(lists);
  EXPECT_EQ(sent, client.reply.frame);
  EXPECT_EQ(5u, encodeMilliseconds(client.reply.fields));  // across the clock's wrap
}

TEST(CodecClientTest, MatchesRepliesByOrder) {
  PeerClient client("size 70000");
  expectError(EBUSY, client.start({}));
  EXPECT_EQ(0, client.readReply(client.reply));  // none is due
  for (const uint8_t stream : {3, 0, 7, 3}) client.encode({stream, 0, 0, {}, {}, 0}, {}, {});
  for (const uint8_t stream : {3, 0, 7, 3}) {
    while (client.readReply(client.reply, 1) == 0) continue;  // it may come later
    EXPECT_EQ(stream, client.reply.streamId);
    EXPECT_EQ(Bytes(70000, stream), client.reply.frame);
  }
  EXPECT_EQ(1, client.stop());
  EXPECT_TRUE(noChildIsLeft());
}

// Commands and replies that are far larger than both pipes, and no reply read between them.
TEST(CodecClientTest, GoesOnWhileBothPipesAreFull) {
  PeerClient client("size 1048576");
  const std::vector<service::Rectangle> most(static_cast<size_t>(maxRectangles(0)));
  for (int i = 0; i < 4; ++i) ASSERT_EQ(1, client.encode({}, most, {}));
  for (int i = 0; i < 4; ++i) {
    ASSERT_EQ(1, client.readReply(client.reply));
    EXPECT_EQ(1048576u, client.reply.frame.size());
  }
  const service::RegionCopy oneTooMany{};
  expectError(EMSGSIZE, client.encode({}, most, {&oneTooMany, 1}));
  ASSERT_EQ(1, client.encodeNothing());
  EXPECT_EQ(1, client.stop());  // in the middle of a reply that nobody reads
}

TEST(CodecClientTest, TellsHowTheServiceEnded) {
  const std::pair<const char*, const char*> cases[] = {
      {"exit 0",
       "service ended with status 0: it refused a command, or cannot load its encoder library"},
      {"half 22",
       "service ended with status 22: it refused a command, or cannot load its encoder library"},
      {"signal 11", "service ended by signal 11 (SIGSEGV)"}};
  for (const auto& [script, words] : cases) {
    PeerClient client(script);
    int32_t result = client.encodeNothing();
    if (result == 1) result = client.readReply(client.reply);
    expectError(EPIPE, result);
    EXPECT_EQ(words, client.endText());
    EXPECT_TRUE(!client.isRunning() && noChildIsLeft());
    expectError(EPIPE, client.encodeNothing());
    EXPECT_EQ(1, client.start({.servicePath = SCRIPTED_PEER, .codecRoot = "/"}));  // once more
    EXPECT_EQ("", client.endText());
  }
  EXPECT_EQ("ended by signal 33", describeServiceEnd({33, false, true}, {}));  // without a name
}

TEST(CodecClientTest, GivesUpOnAServiceThatIsNoService) {
  CodecClient unstarted;
  EXPECT_EQ(0, unstarted.stop());
  expectError(EPIPE, unstarted.encode({}, {}, {}));
  expectError(ENOENT, unstarted.start({.servicePath = "/no/such/program", .codecRoot = ""}));
  expectError(EACCES, unstarted.start({.servicePath = "/etc/passwd", .codecRoot = ""}));
  PeerClient nonsense("garbage");
  ASSERT_EQ(1, nonsense.encodeNothing());
  expectError(EPROTO, nonsense.readReply(nonsense.reply));
  EXPECT_EQ(-1, nonsense.stop());
  PeerClient hanging("hang");
  ASSERT_EQ(1, hanging.encodeNothing());
  for (const int32_t timeout : {0, 5}) EXPECT_EQ(0, hanging.readReply(hanging.reply, timeout));
  EXPECT_EQ(-1, hanging.stop(20));
  EXPECT_EQ("service did not end in time and was killed", hanging.endText());
  EXPECT_TRUE(noChildIsLeft());
}

// Descriptors of one service must not reach the other, or its end of input would never come.
TEST(CodecClientTest, GivesTheServiceNothingButItsOwn) {
  setenv("QORA_SYSTEM", "/ours", 1);
  PeerClient clients[] = {PeerClient("tell"), PeerClient("tell", "")};
  unsetenv("QORA_SYSTEM");
  std::string told[2];
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(clients[i].encodeNothing() == 1 && clients[i].readReply(clients[i].reply) == 1);
    told[i].assign(clients[i].reply.frame.begin(), clients[i].reply.frame.end());
  }
  EXPECT_TRUE(told[0].starts_with("/the/root 0 1 2")) << told[0];
  EXPECT_EQ("/ours" + told[0].substr(9), told[1]);
}

TEST(CodecClientTest, LeavesSignalsAlone) {
  signal(SIGPIPE, SIG_DFL);  // one that gets through ends this test
  PeerClient client("exit 0");
  while (client.removeStream(0) == 1) continue;  // until the pipe that nobody reads is full
  expectError(EPIPE, client.removeStream(0));
  EXPECT_TRUE(noChildIsLeft());
}

}  // namespace
}  // namespace qora::client
