// SPDX-License-Identifier: BSD-2-Clause
// tests/fuzz/session_fuzzer.cc -- The whole loop: any bytes as the parent's commands, over the
// scripted encoder. The end has a documented status and the output is whole replies. Everything is
// real but the end of the process, which is a return.

#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <utility>

#include "qora/encoder/encoder_api.h"
#include "qora/service/channel.h"
#include "qora/service/loop.h"
#include "qora/service/segment.h"
#include "qora/service/streams.h"
#include "qora/service/wire/byte_order.h"
#include "qora/service/wire/messages.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/temporary_root.h"

using namespace qora;
using namespace qora::service;
using fuzz::require;

namespace {

constexpr const char* kScripts[] = {  // the input's first byte chooses one
    "",         "planes=999", "preset=-1,errno=28", "profile=-1,errno=28", "open=1,errno=28",
    "encode=0", "encode=-1",  "encode=70000"};
constexpr int kStatuses[] = {0, 12, 22, 28, 42};

bool running = false;
jmp_buf atExit;

// A segment that goes away with this process, however that ends.
int segmentId() {
  const int id = shmget(IPC_PRIVATE, 4096, 0600);
  shmat(id, nullptr, 0);
  shmctl(id, IPC_RMID, nullptr);
  return id;
}

// The parent names one of two segments, keeps its copies inside the scripted planes, and removes a
// stream before it adds it anew: what a second add leaves would fill the memory.
void makeBelievable(std::vector<uint8_t>& bytes) {
  static const int segments[] = {segmentId(), segmentId()};
  bool inUse[256] = {};
  for (size_t at = 0, whole; bytes.size() - at >= kHeaderSize; at += whole) {
    uint8_t* message = &bytes[at];
    const int type = message[4];
    whole = type == 0 ? 16 : type == 1 ? 8 : type == 2 ? readUint32(message, 0) : 12;
    if (type > 4 || whole > bytes.size() - at || (type == 2 && whole < kEncodeFixedSize)) return;
    if (type < 2 && std::exchange(inUse[message[6]], type == 0) && type == 0) message[6] = 8;
    if (type == 0) message[13] &= 1, message[15] &= 1;  // a size that can be had
    if (const int32_t id = type > 2 ? parseSegmentId(message) : -1; id >= 0) {
      const auto given = buildSegmentMessage(static_cast<CommandType>(type), segments[id & 1]);
      std::copy(given.begin() + kHeaderSize, given.end(), message + kHeaderSize);
    }
    if (type != 2) continue;
    const EncodeRequest request = parseEncodeRequest(message);
    if (uint64_t{request.rectangleBytes} + request.copyBytes != whole - kEncodeFixedSize) return;
    uint8_t* copies = message + kEncodeFixedSize + request.rectangleBytes;
    for (size_t i = 0; i < request.copyBytes; ++i) copies[i] &= i % 16 < 4 ? 255 : i % 2 ? 0 : 15;
  }
}

void requireReplies(const std::string& output) {
  for (size_t at = 0, frame; at < output.size(); at = frame) {
    require(output.size() - at >= kReplyHeadSize, "part of a head");
    const auto fields = parseReplyHead(reinterpret_cast<const uint8_t*>(&output[at]));
    const auto head = buildReplyHead(fields);
    require(memcmp(head.data(), &output[at], head.size()) == 0, "no reply");
    const size_t payload = at + kReplyHeadSize;
    frame = payload + fields.frameSize;
    require(fields.frameSize > 0 && frame <= output.size(), "part of a frame");
    for (size_t i = payload + 1; i < frame; ++i) {
      require(static_cast<uint8_t>(output[i] - output[i - 1]) == 1, "not the encoder's bytes");
    }
  }
}

}  // namespace

extern "C" [[noreturn]] void __real_exit(int status);
extern "C" [[noreturn]] void __wrap_exit(int status) {
  if (running) longjmp(atExit, status + 1);
  __real_exit(status);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const test::TemporaryRoot root({std::pair("lib/libx264.so", SCRIPTED_ENCODER)});
  static void* const held = dlopen(SCRIPTED_ENCODER, RTLD_NOW);  // it is loaded for every input
  static const int input = dup2(memfd_create("commands", 0), STDIN_FILENO);
  static const int output = dup2(memfd_create("replies", 0), STDOUT_FILENO);
  static std::ofstream nowhere("/dev/null");
  require(held != nullptr, "no encoder");
  std::clog.rdbuf(nowhere.rdbuf());
  setenv("QORA_SYSTEM", root.path().c_str(), 1);

  fuzz::Input in{data, size};
  setenv("SCRIPTED_ENCODER", kScripts[in.byte() % std::size(kScripts)], 1);
  std::vector<uint8_t> bytes(in.at, in.at + in.left);
  makeBelievable(bytes);
  for (const int file : {input, output}) require(ftruncate(file, 0) + lseek(file, 0, 0) == 0, "");
  require(pwrite(input, bytes.data(), bytes.size(), 0) != -1, "no input");
  errno = 0;
  running = true;
  const int ended = setjmp(atExit);
  const int status = ended == 0 ? runService() : ended - 1;
  running = false;
  require(ended != 0 || pictureSegment().address == nullptr, "the segment is still attached");
  require(std::count(std::begin(kStatuses), std::end(kStatuses), status) == 1, "the status");
  std::string replies(static_cast<size_t>(lseek(output, 0, SEEK_END)), '\0');
  require(pread(output, replies.data(), replies.size(), 0) != -1, "no output");
  requireReplies(replies);

  for (auto& stream : streamTable()) {
    if (stream.encoder != nullptr) encoder::encoderApi().x264_encoder_close(stream.encoder);
    free(stream.mb_info_map);
    free(stream.quant_offsets_map);
  }
  streamTable() = {};
  releaseSegment();
  encoder::unloadEncoderLibrary();
  closeChannel();
  return 0;
}
