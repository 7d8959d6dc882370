// SPDX-License-Identifier: BSD-2-Clause
// Services that stop, flood, lie, answer too much or too little, and die: every call returns, and
// the client's memory stays bounded.
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <thread>

#include "tests/client/peer.h"

namespace qora::client {
namespace {

using namespace peer;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int64_t kMemoryLimit = 1 << 30;  // KiB; freed memory is kept for a while
#else
constexpr int64_t kMemoryLimit = 80 << 10;
#endif

constexpr int kAllGood = 0;
constexpr int kTimedOut = ETIME;  // no reply in time, and no error

// What a service does, in this order.
struct Script {
  std::string log = {};
  Bytes unasked = {};           // sent before anything is read
  bool forks = false;           // leaves a child that reads to the end of input
  Bytes answer = {};            // to the first encode,
  size_t zeros = 0;             // which goes on with so many zeros
  int closes = 0;               // a bit for each of the descriptors 0 to 2
  int raises = 0;               // a signal, after it ignored all others
  bool serves = false;          // reads all commands, and answers encodes with
  Bytes eachAnswer = reply(9);  // this
  size_t piece = 1 << 20;       // in writes of so many bytes
  Bytes flood = {};             // sent for ever, to
  int floodTo = 1;              // this descriptor
  int status = -1;              // -1: does not end
};

struct Hostile {
  const char* phrase;
  int outcome;          // an errno of the client, or one of the two above
  const char* endText;  // part of it, after stop()
  Script script;
};

Bytes nextEncode() {
  Bytes command = nextCommand();
  while (!command.empty() && command[4] != 2) command = nextCommand();
  return command;
}

int play(const Script& script) {
  put({script.log.begin(), script.log.end()}, 2);
  put(script.unasked);
  if (script.forks && fork() != 0) return script.status;
  if (!script.answer.empty()) nextEncode();
  put(script.answer);
  put(Bytes(script.zeros));
  for (int end = 0; end < 3; ++end) {
    if ((script.closes >> end & 1) != 0) close(end);
  }
  for (int number = 1; number < NSIG && script.raises != 0; ++number) {
    if (number != script.raises) signal(number, SIG_IGN);
  }
  if (script.raises != 0) raise(script.raises);
  while (script.serves && !nextEncode().empty()) {
    for (size_t at = 0; at < script.eachAnswer.size(); at += script.piece) {
      const size_t end = std::min(at + script.piece, script.eachAnswer.size());
      put({&script.eachAnswer[at], &script.eachAnswer[end]});
    }
  }
  while (!script.flood.empty()) put(script.flood, script.floodTo);
  return script.status == -1 ? hang() : script.status;
}

Bytes cut(Bytes bytes, size_t size) {
  bytes.resize(size);
  return bytes;
}

Bytes twice(Bytes bytes) {
  bytes.insert(bytes.end(), bytes.begin(), bytes.end());
  return bytes;
}

constexpr char kKilled[] = "service did not end in time and was killed";
constexpr char kOrderly[] = "service ended with status 0: orderly end";
constexpr char kUnasked[] = "service sent a reply that nobody asked for and was killed";
constexpr char kClosed[] = "service closed its replies and was killed";
constexpr char kNoReply[] = "service sent what is no reply: ";

// clang-format off
const std::vector<Hostile> kHostile = {
    // --- it ends ---
    {"ends at once", EPIPE, "status 0: it refused a command, or cannot load its enc", {.status = 0}},
    {"refuses a command", EPIPE, "status 22: it refused a command; its last line: Invalid [A].",
     {.log = "first\nInvalid [A].\n", .status = 22}},
    {"has no encoder", EPIPE, "status 2: it cannot load its encoder library; its last line: Error",
     {.log = "Error: Can't load H.264 codec library.\n", .status = 2}},
    {"steers a terminal", EPIPE, "last line: ?[2J?", {.log = "\x1b[2J\x7f", .status = 2}},
    {"raises a signal", EPIPE, "service ended by signal 15 (SIGTERM)", {.raises = SIGTERM}},
    {"raises one without a name", EPIPE, "service ended by signal 40", {.raises = 40}},
    {"leaves a child", kTimedOut, "service ended with status 5",
     {.forks = true, .serves = true, .eachAnswer = {}, .status = 5}},
    {"ends otherwise", kAllGood, "service ended with status 6", {.serves = true, .status = 6}},
    // --- it closes what it has ---
    {"closes its input", kTimedOut, kKilled, {.closes = 1}},
    {"closes its replies", EPIPE, kClosed, {.closes = 2}},
    {"closes them in an answer", EPIPE, kClosed, {.answer = head(1), .closes = 2}},
    {"closes all", EPIPE, kClosed, {.closes = 7}},
    {"closes its log", kAllGood, kOrderly, {.closes = 4, .serves = true, .status = 0}},
    // --- it stops ---
    {"takes nothing", kTimedOut, kKilled, {}},
    {"answers nothing", kTimedOut, kOrderly, {.serves = true, .eachAnswer = {}, .status = 0}},
    {"ignores signals", kTimedOut, kKilled, {.raises = SIGURG}},
    {"is stopped", kTimedOut, kKilled, {.raises = SIGSTOP}},
    {"answers half a head", kTimedOut, kKilled, {.answer = cut(head(1), 3)}},
    {"answers a head only", kTimedOut, kKilled, {.answer = head(1)}},
    {"goes on after its input", kAllGood, kKilled, {.serves = true}},
    // --- it lies ---
    {"sends no reply", EPROTO, "service sent what is no reply: 78 78 78 78 78 and was killed",
     {.answer = Bytes(20, 'x')}},
    {"sends another size", EPROTO, kNoReply, {.answer = cut({21, 0, 0, 0, 5}, 20)}},
    {"sends a command", EPROTO, kNoReply, {.answer = cut({20, 0, 0, 0, 2}, 20)}},
    {"promises 4 GiB", EPROTO, "a reply of 4294967295 bytes, of 67108864 that may be held",
     {.answer = head(0xFFFFFFFF)}},
    {"promises a byte too many", EPROTO, "sent a reply of 67108865 bytes",
     {.answer = head((64 << 20) + 1)}},
    {"sends little of much", kTimedOut, kKilled, {.answer = head(64 << 20)}},
    {"drips", kTimedOut, kKilled, {.answer = head(60 << 20), .flood = {1}}},
    // --- it says too much ---
    {"answers twice at once", EPROTO, kUnasked, {.answer = twice(reply(9)), .serves = true}},
    {"answers twice", EPROTO, kUnasked,
     {.serves = true, .eachAnswer = twice(reply(9)), .piece = 29}},
    {"answers before it is asked", EPROTO, kUnasked, {.unasked = reply(9), .serves = true}},
    {"floods with replies", EPROTO, kUnasked, {.flood = reply(0)}},
    {"floods with bytes", EPROTO, "service sent ", {.flood = Bytes(4096)}},
    {"floods its log", kTimedOut, kKilled, {.flood = {'a', '\n'}, .floodTo = 2}},
    {"logs without a newline", kTimedOut, kKilled, {.flood = Bytes(4096, 'x'), .floodTo = 2}},
    {"floods after its input", kAllGood, kKilled, {.serves = true, .flood = Bytes(4096)}},
    // --- nothing to complain of ---
    {"answers", kAllGood, kOrderly, {.serves = true, .status = 0}},
    {"answers byte by byte", kAllGood, kOrderly, {.serves = true, .piece = 1, .status = 0}},
    {"answers with nothing", kAllGood, kOrderly,
     {.serves = true, .eachAnswer = reply(0), .status = 0}},
    {"logs more than a pipe", kAllGood, kOrderly,
     {.log = std::string(1 << 20, '\n'), .serves = true, .status = 0}},
    {"answers with all that is allowed", kAllGood, kOrderly,
     {.answer = head(64 << 20), .zeros = 64 << 20, .serves = true, .status = 0}},
};
// clang-format on

std::string deathAfter(size_t bytes) {
  return "dies after " + std::to_string(bytes) + " bytes of a reply";
}
const bool kAdded = [] {
  for (const Hostile& row : kHostile) {
    addPeer(row.phrase, [&row] { return play(row.script); });
  }
  for (size_t bytes = 0; bytes <= reply(9).size(); ++bytes) {
    addPeer(deathAfter(bytes), [bytes] {
      nextEncode();
      put(cut(reply(9), bytes));
      return 22;
    });
  }
  return true;
}();

// A figure of this process in KiB.
int64_t kilobytes(const std::string& name) {
  std::ifstream status("/proc/self/status");
  int64_t figure = 0;
  for (std::string word; status >> word;) {
    if (word == name) status >> figure;
  }
  return figure;
}

// One frame: 1, 0 when there is no reply in time, or -1.
int32_t encodeWaiting(CodecClient& client, Reply& reply, int patience) {
  return client.encode({}, {}, {}) == -1 ? -1 : client.readReply(reply, patience);
}

int32_t encodeByEvents(CodecClient& client, Reply& reply, int patience) {
  const auto deadline = deadlineAfter(patience);
  int32_t sent = 0;
  int32_t taken = 0;
  while (taken == 0 && pollTimeout(deadline) > 0) {
    if (sent == 0) sent = client.tryEncode({}, {}, {});
    if (sent == -1) return -1;
    pollfd wake = {client.replyDescriptor(), POLLIN, 0};
    if (client.isRunning()) poll(&wake, 1, pollTimeout(deadline));
    static_cast<void>(client.process());
    taken = client.readReply(reply, 0);
  }
  return taken;
}

using Encode = decltype(&encodeWaiting);

void meet(CodecClient& client, Encode encode, const Hostile& row) {
  SCOPED_TRACE(row.phrase);
  alarm(50);                                    // ends a call that does not
  std::ofstream("/proc/self/clear_refs") << 5;  // the peak is now what is in use
  const int64_t before = kilobytes("VmHWM:");
  Reply taken;
  ASSERT_EQ(1, startPeer(client, row.phrase, {.keepLog = true}));
  static_cast<void>(client.attachSegment(1));
  if (!row.script.unasked.empty()) {  // lies there, and is looked for with the next command
    pollfd wake = {client.replyDescriptor(), POLLIN, 0};
    EXPECT_EQ(1, poll(&wake, 1, 20000));
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  const int patience = row.outcome == kTimedOut ? 60 : 20000;
  int32_t result = 1;
  for (int left = row.outcome == kAllGood ? 3 : 1000; result == 1 && left > 0; --left) {
    result = encode(client, taken, patience);
    // Two that wait for each other at every write never get ahead of one another.
    if (row.outcome == EPROTO) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(row.outcome, result == 1 ? kAllGood : result == 0 ? kTimedOut : errno);
  if (result == -1) {
    EXPECT_FALSE(client.isRunning());
    while (client.pendingReplies() > 0) static_cast<void>(client.readReply(taken));
    EXPECT_TRUE(client.readReply(taken) == -1 && errno == row.outcome);
    EXPECT_TRUE(client.removeStream(0) == -1 && errno == row.outcome);
  }
  EXPECT_EQ(row.endText == kOrderly ? 1 : -1, client.stop(row.endText == kKilled ? 50 : 20000));
  EXPECT_NE(std::string::npos, client.endText().find(row.endText)) << client.endText();
  EXPECT_TRUE(noChildIsLeft());
  EXPECT_LE(kilobytes("VmHWM:") - before, kMemoryLimit);
  alarm(0);
}

TEST(HostileServiceTest, EndsEveryCall) {
  CodecClient client;  // the same for all: it can always be started again
  for (const Encode encode : {encodeWaiting, encodeByEvents}) {
    for (const Hostile& row : kHostile) meet(client, encode, row);
    for (size_t bytes = 0; bytes <= reply(9).size(); ++bytes) {
      const std::string name = deathAfter(bytes);
      meet(client, encode, {name.c_str(), EPIPE, "service ended with status 22", {}});
    }
  }
}

}  // namespace
}  // namespace qora::client
