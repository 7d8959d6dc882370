#include "tests/fuzz/scripted_system.h"

#include <dlfcn.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstring>
#include <iostream>
#include <streambuf>

#include "qora/encoder/encoder_api.h"
#include "qora/encoder/stream.h"
#include "qora/service/channel.h"
#include "qora/service/loop.h"
#include "qora/service/segment.h"
#include "qora/service/streams.h"
#include "qora/service/wire/messages.h"
#include "tests/fuzz/fuzz.h"

using namespace qora;
using fuzz::Fault;
using fuzz::require;

namespace {

constexpr int32_t kBuild = 142;
constexpr uint32_t kLargestPicture = 1 << 18;  // pixels; real encoders have a limit too
constexpr int32_t kPlaneStride = 16;           // rows overlap, so planes of any height are small
// Room for every coordinate: 65535 and a copy's size, in both directions.
constexpr size_t kPlaneSize = (65536 + 256) * (kPlaneStride + 1);
constexpr int32_t kQuantizer = 23;
constexpr time_t kTime = 1700000000;

// A stream of characters that goes nowhere: lines are put together, as always, and dropped.
class Nowhere : public std::streambuf {
  int_type overflow(int_type c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const char*, std::streamsize count) override { return count; }
};

struct ScriptedEncoder {
  int32_t frames = 0;
  encoder::x264_nal_t nal = {};
  uint8_t payload[300];
};

struct Run {
  bool active = false;
  jmp_buf end;
  int32_t status = 0;
  fuzz::Script script;
  int32_t occurrences = 0;  // of the call that the fault is about
  const uint8_t* input = nullptr;
  size_t left = 0;
  std::string replies;
  std::string expected;
  int32_t attached = 0;
  std::vector<void*> maps;
  std::vector<ScriptedEncoder*> encoders;
};
Run run;

uint8_t segmentMemory[64];
uint8_t planes[2][2][kPlaneSize];

// Whether this call is the one that fails.
bool fails(Fault fault) {
  if (!run.active || run.script.fault != fault || run.occurrences++ != run.script.faultAt) {
    return false;
  }
  errno = fuzz::kScriptedError;
  return true;
}

uint32_t valueOf(const encoder::x264_param_t* param, encoder::ParamField field) {
  constexpr const auto& layout = encoder::kParamLayouts[encoder::paramLayoutFor(kBuild)];
  uint32_t value;
  memcpy(&value, reinterpret_cast<const uint8_t*>(param) + layout.at(field), sizeof value);
  return value;
}

encoder::x264_t* openScripted(encoder::x264_param_t* param) {
  const uint64_t pixels = uint64_t{valueOf(param, encoder::ParamField::width)} *
                          valueOf(param, encoder::ParamField::height);
  if (fails(Fault::open)) return nullptr;
  if (pixels > kLargestPicture) {
    errno = fuzz::kScriptedError;
    return nullptr;
  }
  run.encoders.push_back(new ScriptedEncoder);
  return reinterpret_cast<encoder::x264_t*>(run.encoders.back());
}

void closeScripted(encoder::x264_t* handle) {
  auto* scripted = reinterpret_cast<ScriptedEncoder*>(handle);
  const auto place = std::find(run.encoders.begin(), run.encoders.end(), scripted);
  require(place != run.encoders.end(), "an encoder is closed that is not open");
  run.encoders.erase(place);
  delete scripted;
}

void expectReply(const ScriptedEncoder& scripted, int32_t size, uint8_t keyFrame) {
  const auto head = service::buildReplyHead(
      {.keyFrame = keyFrame,
       .quantizer = run.script.quantizer ? uint8_t{kQuantizer} : service::kUnknownQuantizer,
       .frameSize = static_cast<uint32_t>(size),
       .startTime = static_cast<uint32_t>(kTime * 1000),
       .endTime = static_cast<uint32_t>(kTime * 1000)});
  run.expected.append(reinterpret_cast<const char*>(head.data()), head.size());
  run.expected.append(reinterpret_cast<const char*>(scripted.payload), static_cast<size_t>(size));
}

// Reads both maps, as an encoder does, and hands out a picture or not.
int32_t encodeScripted(encoder::x264_t* handle, encoder::x264_nal_t** nals, int32_t* count,
                       encoder::x264_picture_t* picture, encoder::x264_picture_t* produced) {
  auto& scripted = *reinterpret_cast<ScriptedEncoder*>(handle);
  require(std::find(run.encoders.begin(), run.encoders.end(), &scripted) != run.encoders.end(),
          "a closed encoder is asked for a frame");
  for (const auto& stream : service::streamTable()) {
    if (&stream.picture != picture) continue;
    for (int32_t cell = 0; cell < stream.mb_width * stream.mb_height; ++cell) {
      require(picture->prop.mb_info[cell] <= 1, "a macroblock is neither changed nor unchanged");
      require(picture->prop.quant_offsets[cell] >= -129 && picture->prop.quant_offsets[cell] <= 127,
              "a quantizer offset is out of its range");
    }
  }
  if (fails(Fault::encodeNothing)) return 0;
  if (fails(Fault::encodeFails)) return -1;
  const int32_t frame = scripted.frames++;
  const int32_t size = 1 + frame * 37 % static_cast<int32_t>(sizeof scripted.payload);
  memset(scripted.payload, frame + 1, static_cast<size_t>(size));
  scripted.nal.p_payload = scripted.payload;
  *nals = &scripted.nal;
  *count = 1;
  produced->b_keyframe = frame == 0 ? 1 : 0;
  for (size_t plane = 0; plane < 2 && run.script.planes; ++plane) {
    produced->img.plane[plane] = planes[frame % 2][plane];
    produced->img.i_stride[plane] = kPlaneStride;
  }
  expectReply(scripted, size, frame == 0 ? 1 : 0);
  return size;
}

void installEncoder() {
  encoder::EncoderApi& api = encoder::encoderApi();
  api = {};
  // Anything that can be closed: the library counts as loaded and is unloaded at the end.
  api.libraryHandle = dlopen(nullptr, RTLD_LAZY);
  api.buildNumber = kBuild;
  api.fillParameters = encoder::fillParametersFor(kBuild);
  api.x264_encoder_open = openScripted;
  api.x264_encoder_close = closeScripted;
  api.x264_encoder_encode = encodeScripted;
  api.x264_encoder_invalidate_reference = [](encoder::x264_t*, int64_t) { return 0; };
  if (run.script.quantizer) {
    api.x264_encoder_get_last_quantizer = [](encoder::x264_t*) { return kQuantizer; };
  }
  api.x264_picture_init = [](encoder::x264_picture_t* picture) { *picture = {}; };
  api.x264_param_default_preset = [](encoder::x264_param_t*, const char*, const char*) {
    return fails(Fault::preset) ? -1 : 0;
  };
  api.x264_param_apply_profile = [](encoder::x264_param_t*, const char*) {
    return fails(Fault::profile) ? -1 : 0;
  };
}

}  // namespace

extern "C" {

[[noreturn]] void __real_exit(int status);
ssize_t __real_read(int fd, void* to, size_t size);
ssize_t __real_writev(int fd, const iovec* entries, int count);
void* __real_calloc(size_t count, size_t size);
void __real_free(void* block);
int __real_gettimeofday(timeval* now, void* zone);

[[noreturn]] void __wrap_exit(int status) {
  if (!run.active) __real_exit(status);
  run.status = status;
  longjmp(run.end, 1);
}

ssize_t __wrap_read(int fd, void* to, size_t size) {
  if (!run.active) return __real_read(fd, to, size);
  require(fd == STDIN_FILENO && size > 0, "a read from elsewhere, or of nothing");
  const size_t count = std::min({size, run.left, run.script.readChunk});
  if (count == 0 && run.script.fault == Fault::readEnd) {
    errno = fuzz::kScriptedError;
    return -1;
  }
  if (count == 0) return 0;
  memcpy(to, run.input, count);
  run.input += count;
  run.left -= count;
  return static_cast<ssize_t>(count);
}

ssize_t __wrap_writev(int fd, const iovec* entries, int count) {
  if (!run.active) return __real_writev(fd, entries, count);
  require(fd == STDOUT_FILENO, "a reply to elsewhere");
  if (fails(Fault::write)) return -1;
  size_t room = run.script.writeChunk;
  size_t written = 0;
  for (int i = 0; i < count && room > 0; ++i) {
    const size_t part = std::min(entries[i].iov_len, room);
    run.replies.append(static_cast<const char*>(entries[i].iov_base), part);
    room -= part;
    written += part;
  }
  return static_cast<ssize_t>(written);
}

void* __wrap_shmat(int id, const void*, int) {
  if (fails(Fault::attach) || id < 0) {
    errno = fuzz::kScriptedError;
    return reinterpret_cast<void*>(-1);
  }
  require(run.attached == 0, "two segments are attached at once");
  ++run.attached;
  return segmentMemory;
}

int __wrap_shmdt(const void* address) {
  require(address == segmentMemory, "something is detached that was not attached");
  --run.attached;
  return fails(Fault::detach) ? -1 : 0;
}

void* __wrap_calloc(size_t count, size_t size) {
  if (!run.active) return __real_calloc(count, size);
  if (fails(Fault::allocation)) return nullptr;
  run.maps.push_back(__real_calloc(count, size));
  return run.maps.back();
}

void __wrap_free(void* block) {
  if (run.active)
    run.maps.erase(std::remove(run.maps.begin(), run.maps.end(), block), run.maps.end());
  __real_free(block);
}

int __wrap_gettimeofday(timeval* now, void* zone) {
  if (!run.active) return __real_gettimeofday(now, zone);
  *now = {.tv_sec = kTime, .tv_usec = 0};
  return 0;
}

}  // extern "C"

namespace qora::fuzz {

Outcome runScripted(const std::vector<uint8_t>& input, const Script& script) {
  static Nowhere nowhere;
  std::clog.rdbuf(&nowhere);
  run = {};
  run.script = script;
  run.input = input.data();
  run.left = input.size();
  service::streamTable() = {};
  service::pictureSegment() = {};
  encoder::bitrateMode() = 0;
  installEncoder();
  errno = 0;
  run.active = true;
  if (setjmp(run.end) == 0) {
    run.status = service::runService();
    require(run.attached == 0, "an orderly end leaves the segment attached");
  }
  run.active = false;

  // What the end of the process would have taken along.
  const Outcome outcome = {run.status, run.replies, run.expected, service::channelState().capacity,
                           run.attached};
  service::closeChannel();
  encoder::unloadEncoderLibrary();
  for (void* map : run.maps) __real_free(map);
  for (ScriptedEncoder* opened : run.encoders) delete opened;
  return outcome;
}

}  // namespace qora::fuzz
