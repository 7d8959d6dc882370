// How the service ends: every line and status that its parent can bring about, from outside.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/support/message_bytes.h"
#include "tests/support/service_process.h"

namespace qora::service {
namespace {

using test::Bytes;
using test::bytesOf;
using test::Ending;
using test::operator+;

std::string fake(const std::string& name) {
  return FAKE_ENCODERS + name + ".so";
}

// A header of any declared size, and `body` zero bytes.
Bytes raw(uint32_t size, uint8_t type, size_t body) {
  Bytes bytes = {static_cast<uint8_t>(size),
                 static_cast<uint8_t>(size >> 8),
                 static_cast<uint8_t>(size >> 16),
                 static_cast<uint8_t>(size >> 24),
                 type,
                 0};
  bytes.resize(bytes.size() + body);
  return bytes;
}

Bytes add(uint8_t id) {
  return bytesOf(buildAddStream({4, id, 1, 0, 0, 51, 64, 48}));
}
Bytes attach(int32_t id) {
  return bytesOf(buildSegmentMessage(CommandType::attachSegment, id));
}
Bytes remove(int32_t id) {
  return bytesOf(buildSegmentMessage(CommandType::removeSegment, id));
}
Bytes removeStreamMessage(uint8_t id) {
  return bytesOf(buildRemoveStream(id));
}

// R and K as declared; `lists` zero bytes behind the head; the size field is `size`.
Bytes encode(uint8_t id, uint32_t r, uint32_t k, size_t lists, uint32_t size) {
  Bytes bytes = bytesOf(buildEncodeHead({id, 0, r, {0, 4096, 5120}, {64, 32, 32}, k}));
  const Bytes header = raw(size, 2, 0);
  std::copy(header.begin(), header.begin() + 4, bytes.begin());
  bytes.resize(bytes.size() + lists);
  return bytes;
}
Bytes encode(uint8_t id, uint32_t r = 12, uint32_t k = 0) {
  return encode(id, r, k, r + k, 44 + r + k);
}

class Segment {
 public:
  Segment() : id_(shmget(IPC_PRIVATE, 65536, 0600)) {}
  ~Segment() { shmctl(id_, IPC_RMID, nullptr); }
  int32_t id() const { return id_; }
  uint64_t attached() const {
    shmid_ds status;
    return shmctl(id_, IPC_STAT, &status) == 0 ? status.shm_nattch : 99;
  }

 private:
  const int32_t id_;
};

class Status : public testing::Test {
 protected:
  Ending run(const Bytes& input, const std::string& script = "") {
    return test::runService(SERVICE, {"QORA_SYSTEM=" + root_.path(), "FAKE_ENCODER=" + script},
                            input);
  }
  Bytes ready() { return add(0) + attach(segment_.id()); }

  test::TemporaryRoot root_{{{"lib/libx264.so", fake("builds_128_and_142")}}};
  Segment segment_;
};

const char kMalformed[] =
    "Error: Can't add 'frame' in context [A].\n"
    "Error: Error is 22, 'Invalid argument'.\n";

TEST_F(Status, EveryEndHasItsLinesAndItsStatus) {
  const std::string grown = "CodecMain: WARNING! Reallocated buffer with size 1048576.\n";
  const auto sizeLine = [](const char* number) {
    return std::string("Error: Invalid message size ") + number + " in context [B].\n";
  };
  const std::string stale = std::to_string(segment_.id() + 1);
  struct {
    const char* what;
    Bytes input;
    int32_t status;
    std::string log;
    const char* script = "";
  } const cases[] = {
      {"end of input at once", {}, 0, ""},
      {"end of input inside a header", {8, 0, 0}, 0, ""},
      {"end of input inside a body", raw(16, 0, 3), 0, ""},
      {"unknown command", raw(6, 5, 0), 42, "Error: Invalid command '5' in context [A].\n"},
      {"last unknown command", raw(6, 255, 0), 42,
       "Error: Invalid command '255' in context [A].\n"},
      {"one MiB is accepted", raw(1048576, 1, 2), 0,
       grown + "CodecFrame: WARNING! Cannot close invalid encoder for stream ID#0.\n"},
      {"one byte more is not", raw(1048577, 1, 2), 22, sizeLine("1114112")},
      {"largest declared size", raw(0x7FFFFFFF, 3, 6), 22, sizeLine("2147483648")},
      {"largest encode size", raw(0x7FFFFFFF, 2, 38), 22, sizeLine("2147483648")},
      {"negative size asks for no room", raw(0x80000000, 1, 2), 0,
       "CodecFrame: WARNING! Cannot close invalid encoder for stream ID#0.\n"},
      {"add, id too large", add(8), 0, "CodecFrame: ERROR! Cannot add invalid stream ID#8.\n"},
      {"add, largest id", add(255), 0, "CodecFrame: ERROR! Cannot add invalid stream ID#255.\n"},
      {"remove, id too large", removeStreamMessage(9), 0,
       "CodecFrame: ERROR! Cannot remove invalid stream ID#9.\n"},
      {"attach of nothing", attach(-1), 22,
       "CodecSegment: ERROR! Failed to attach to segment id -1.\n"
       "CodecSegment: ERROR! Error is 22 'Invalid argument'.\n"},
      {"remove of another segment", remove(segment_.id() + 1), 0,
       "CodecSegment: ERROR! Cannot remove unknow segment id " + stale + ".\n"},
      {"encode, size 0", raw(0, 2, 0), 22, kMalformed},
      {"encode, size 5", raw(5, 2, 0), 22, kMalformed},
      {"encode, size 6: no body to await", raw(6, 2, 0), 22, kMalformed},
      {"encode, size 43 complete", raw(43, 2, 37), 22, kMalformed},
      {"encode, size 43 cut short", raw(43, 2, 36), 0, ""},
      {"encode, negative size", raw(0x80000000, 2, 38), 22, kMalformed},
      {"encode, largest size", raw(0xFFFFFFFF, 2, 38), 22, kMalformed},
      {"encode, R past the message", encode(0, 12, 0, 0, 44), 22, kMalformed},
      {"encode, K past the message", encode(0, 0, 16, 12, 56), 22, kMalformed},
      {"encode, lists too short", encode(0, 12, 0, 13, 57), 22, kMalformed},
      {"encode, the sum wraps round", encode(0, 0xFFFFFFFC, 16, 12, 56), 22, kMalformed},
      {"encode, id too large", encode(8), 0,
       "CodecFrame: ERROR! Cannot encode invalid stream ID#8.\n"},
      {"encode, empty slot", encode(7), 0,
       "CodecFrame: ERROR! Cannot encode frame with stream ID#7 not initialized.\n"},
      {"encode, no segment", add(0) + encode(0), 0,
       "CodecFrame: ERROR! Cannot update picture with invalid shared memory segment.\n"},
      {"encode, odd rectangle list", ready() + encode(0, 13), 0,
       "CodecFrame: ERROR! Cannot update maps with invalid data length 13.\n"},
      {"encoding fails", ready() + encode(0), 12, "CodecFrame: ERROR! Frame encoding failed.\n",
       "encode=0,errno=12"},
      {"preset refused", add(0), 38,
       "CodecFrame: ERROR! Failed to get default parameters.\n"
       "CodecFrame: ERROR! Failed to initialize the encoder parameters.\n",
       "preset=-1,errno=38"},
      {"profile refused", add(0), 0,
       "CodecFrame: ERROR! Failed to set encoder parameters.\n"
       "CodecFrame: ERROR! Failed to initialize the encoder parameters.\n",
       "profile=-1"},
      {"encoder does not open, as if at end of input", add(0), 0,
       "CodecFrame: ERROR! Failed to open the encoder.\n", "open=0,errno=5"},
      {"an attached segment does not change the end", ready() + raw(6, 77, 0), 42,
       "Error: Invalid command '77' in context [A].\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const Ending ending = run(c.input, c.script);
    EXPECT_EQ(ending.status, c.status);
    EXPECT_EQ(ending.log, c.log);
    EXPECT_TRUE(ending.output.empty());
    EXPECT_EQ(segment_.attached(), 0U);
  }
}

TEST_F(Status, WarningsDoNotEndIt) {
  const Bytes input = ready() + encode(0, 0, 16) + encode(0, 12, 15) + remove(segment_.id()) +
                      attach(segment_.id()) + encode(0, 12, 0) + removeStreamMessage(0) +
                      removeStreamMessage(0);
  const Ending ending = run(input, "encode=5");
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(ending.output.size(), 3 * 25U);
  EXPECT_EQ(ending.output[5] * 10000 + ending.output[30] * 1000 + ending.output[6], 10021);
  EXPECT_EQ(Bytes(ending.output.end() - 5, ending.output.end()), (Bytes{2, 3, 4, 5, 6}));
  EXPECT_EQ(ending.log,
            "CodecFrame: WARNING! Cannot update maps with no rectangle.\n"
            "CodecFrame: WARNING! Reference frame is empty.\n"
            "CodecFrame: WARNING! Reference frame is empty.\n"
            "CodecFrame: WARNING! Cannot close invalid encoder for stream ID#0.\n");
}

TEST_F(Status, WithoutALibraryItEndsWithTheLoadersErrno) {
  const std::string warning = "Warning: Can't load H.264 codec library.\n";
  test::TemporaryRoot empty;
  test::TemporaryRoot lacking({{"codec/lib/libx264.so", fake("without_x264_encoder_close")}});
  EXPECT_EQ(test::runService(SERVICE, {"QORA_SYSTEM=" + empty.path()}, {}).status, 2);
  EXPECT_EQ(test::runService(SERVICE, {"QORA_SYSTEM=" + empty.path()}, {}).log, warning);
  const Ending ending = test::runService(SERVICE, {"QORA_SYSTEM=" + lacking.path()}, {});
  EXPECT_EQ(ending.status, 42);
  const std::string tail =
      "CodecLoad: WARNING! Can't load 'x264_encoder_close' function.\n" + warning;
  EXPECT_EQ(ending.log.substr(ending.log.size() - tail.size()), tail);
}

TEST_F(Status, AClosedReplyEndIsAFailedWriteAndAnOrderlyShutdown) {
  test::ServiceProcess service(SERVICE, {"QORA_SYSTEM=" + root_.path()});
  service.closeOutput();
  service.write(ready());
  service.write(encode(0));
  const Ending ending = service.finish();
  EXPECT_EQ(ending.status, 32);
  EXPECT_EQ(ending.log, "");
  EXPECT_EQ(segment_.attached(), 0U);
}

TEST_F(Status, AReadErrorGivesItsErrno) {
  const std::string command =
      "QORA_SYSTEM=" + root_.path() + " " SERVICE " 0</ 2>/dev/null; echo $?";  // EISDIR
  FILE* shell = popen(command.c_str(), "r");
  int status = -1;
  EXPECT_EQ(fscanf(shell, "%d", &status), 1);
  pclose(shell);
  EXPECT_EQ(status, 21);
}

TEST_F(Status, MemoryThatCannotBeHadIsStatusTwelve) {
  if (getenv("ASAN_OPTIONS") != nullptr ||
      std::string(BUILD_FLAGS).find("sanitize") != std::string::npos) {
    GTEST_SKIP() << "a sanitizer's own memory does not fit under the limit";
  }
  test::ServiceProcess service(SERVICE, {"QORA_SYSTEM=" + root_.path()});
  service.write(add(0));
  // Wait until the library is loaded, then leave no room for another block.
  service.write(ready());
  service.write(encode(0));
  ASSERT_EQ(service.read(120).size(), 120U);
  const rlimit limit = {1 << 20, 1 << 20};
  ASSERT_EQ(prlimit(service.pid(), RLIMIT_AS, &limit, nullptr), 0);
  service.write(raw(1048576, 1, 2));
  const Ending ending = service.finish();
  EXPECT_EQ(ending.status, 12);
  EXPECT_EQ(ending.log,
            "Error: Can't allocate 1048576 bytes of memory in context [B].\n"
            "Error: Error is 12, 'Cannot allocate memory'.\n");
}

TEST_F(Status, AStreamTooLargeForItsMapsIsToldAndEndsTheService) {
  if (std::string(BUILD_FLAGS).find("sanitize") != std::string::npos) {
    GTEST_SKIP() << "a sanitizer's own memory does not fit under the limit";
  }
  const struct {
    uint16_t side;
    rlim_t room;
    const char* line;
  } cases[] = {{65535, 4 << 20, "16777216 bytes for the mb info map"},
               {65535, 40 << 20, "67108864 bytes for the quantizer offsets map"}};
  for (const auto& c : cases) {
    test::ServiceProcess service(SERVICE, {"QORA_SYSTEM=" + root_.path()});
    service.write(ready());
    service.write(encode(0));
    ASSERT_EQ(service.read(120).size(), 120U);
    FILE* statm = fopen(("/proc/" + std::to_string(service.pid()) + "/statm").c_str(), "r");
    rlim_t used = 0;
    ASSERT_EQ(fscanf(statm, "%lu", &used), 1);
    fclose(statm);
    const rlimit limit = {used * 4096 + c.room, used * 4096 + c.room};
    ASSERT_EQ(prlimit(service.pid(), RLIMIT_AS, &limit, nullptr), 0);
    service.write(bytesOf(buildAddStream({4, 1, 1, 0, 0, 51, c.side, c.side})));
    const Ending ending = service.finish();
    EXPECT_EQ(ending.status, 12);
    EXPECT_EQ(ending.log, std::string("CodecFrame: ERROR! Failed to allocate ") + c.line +
                              ".\nCodecFrame: ERROR! Failed to initialize the mb maps.\n");
  }
}

TEST_F(Status, TheSameCommandsGiveTheSameRepliesHoweverTheyArrive) {
  const Bytes frame = encode(0, 24, 16);
  const Bytes session = ready() + frame + frame + frame + remove(segment_.id());
  const auto masked = [](Bytes output) {
    for (size_t head = 0; head + 20 <= output.size(); head += 120) {
      std::fill_n(output.begin() + static_cast<ptrdiff_t>(head) + 12, 8, 0);
    }
    return output;
  };
  const Bytes expected = masked(run(session).output);
  ASSERT_EQ(expected.size(), 360U);
  for (size_t cut = 1; cut < session.size(); cut += 3) {
    test::ServiceProcess service(SERVICE, {"QORA_SYSTEM=" + root_.path()});
    service.write(Bytes(session.begin(), session.begin() + static_cast<ptrdiff_t>(cut)));
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
    service.write(Bytes(session.begin() + static_cast<ptrdiff_t>(cut), session.end()));
    ASSERT_TRUE(masked(service.finish().output) == expected) << "cut at " << cut;
  }
  test::ServiceProcess dripped(SERVICE, {"QORA_SYSTEM=" + root_.path()});
  for (const uint8_t byte : session) dripped.write({byte});
  EXPECT_TRUE(masked(dripped.finish().output) == expected);
}

}  // namespace
}  // namespace qora::service
