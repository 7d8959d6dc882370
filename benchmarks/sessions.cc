#include "benchmarks/sessions.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>

#include "qora/client/changed_rectangles.h"
#include "qora/service/channel.h"
#include "qora/service/wire/limits.h"

namespace qora::bench {
namespace {

constexpr int32_t kCells = 2;
constexpr int kPipeSize = 256 << 10;     // as the client has it
constexpr int32_t kScriptedSide = 1024;  // of the picture that the scripted encoder never looks at

service::AddStreamRequest addRequest(const StreamShape& shape, int32_t stream) {
  return {.flags = service::kAnnexBFlag,
          .streamId = static_cast<uint8_t>(stream),
          .threads = static_cast<uint8_t>(shape.threads),
          .bitrate = static_cast<uint16_t>(shape.bitrate),
          .qpMin = 0,
          .qpMax = 51,
          .width = static_cast<uint16_t>(shape.width),
          .height = static_cast<uint16_t>(shape.height)};
}

void check(int32_t result, const char* what) {
  if (result == -1) giveUp(std::string(what) + ": " + strerror(errno));
}

void startService(client::CodecClient& client) {
  check(client.start({.servicePath = SERVICE, .codecRoot = CODEC_ROOT}), "starting the service");
}

// Where the service's encoder library, told of the file, leaves the time of each frame.
const double* shareTime(const std::string& path) {
  const Descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (ftruncate(file.get(), sizeof(double)) == -1) giveUp(path);
  void* page = mmap(nullptr, sizeof(double), PROT_READ, MAP_SHARED, file.get(), 0);
  if (page == MAP_FAILED) giveUp(path);
  setenv("TIMED_ENCODER", path.c_str(), 1);
  return static_cast<const double*>(page);
}

pid_t onlyChild() {
  const std::string self = std::to_string(getpid());
  std::ifstream children("/proc/self/task/" + self + "/children");
  pid_t child = -1;
  for (pid_t next; children >> next;) child = next;
  return child;
}

// The body's result out of a process of its own, which has nothing that an earlier one left.
template <typename Function>
auto inChild(Function body) {
  using Result = decltype(body());
  int ends[2];
  if (pipe(ends) == -1) giveUp("no pipe");
  const pid_t child = fork();
  if (child == 0) {
    const Result result = body();
    _exit(write(ends[1], &result, sizeof result) == sizeof result ? 0 : 1);
  }
  Result result{};
  const bool taken = read(ends[0], &result, sizeof result) == sizeof result;
  close(ends[0]);
  close(ends[1]);
  waitpid(child, nullptr, 0);
  if (!taken) giveUp("a measuring process failed");
  return result;
}

// A screen full of letters of 8x16 pixels, each out of one of 64 patterns; another text a seed.
uint8_t inkAt(int32_t x, int32_t y, uint32_t seed) {
  const auto letter = static_cast<uint32_t>(x / 8 * 31 + y / 16 * 17) + seed * 13;
  const uint32_t stroke = letter * 2654435761U >> 26;
  const bool blank = letter % 3 == 0 || x % 8 > 5 || y % 16 > 11;
  const bool ink =
      (static_cast<uint32_t>(x % 8) * 5 + static_cast<uint32_t>(y % 16) * 3) % 7 == stroke % 7 ||
      x % 8 == static_cast<int32_t>(stroke / 16);
  return !blank && ink ? 210 : 36;
}

test::Bytes scriptedMessage(int32_t rectangles) {
  service::EncodeRequest request{};
  request.rectangleBytes = static_cast<uint32_t>(rectangles * service::kRectangleSize);
  const auto head = service::buildEncodeHead(request);
  test::Bytes message(head.begin(), head.end());
  message.resize(head.size() + request.rectangleBytes);
  for (int32_t i = 0; i < rectangles; ++i) {
    const service::Rectangle rectangle = {0, static_cast<uint16_t>(i % 64 * 16),
                                          static_cast<uint16_t>(i / 64 % 64 * 16), 16, 16};
    service::buildRectangle(rectangle, &message[head.size() + i * service::kRectangleSize]);
  }
  return message;
}

template <typename Message>
test::Bytes bytesOf(const Message& message) {
  return {message.begin(), message.end()};
}

}  // namespace

void giveUp(const std::string& what) {
  fprintf(stderr, "benchmark: %s\n", what.c_str());
  exit(1);
}

SideBySide::SideBySide(const StreamShape& shape, int32_t firstTurn)
    : encoderTime_(shareTime(root_.path() + "/time")), turn_(firstTurn) {
  check(segment_.create(shape.width, shape.height, kCells), "making the segment");
  setenv("LD_LIBRARY_PATH", TIMED_ENCODER_FOLDER, 1);
  startService(client_);
  unsetenv("LD_LIBRARY_PATH");
  servicePid_ = onlyChild();
  check(client_.attachSegment(segment_.id()), "attaching the segment");
  for (int32_t stream = 0; stream < shape.streams; ++stream) {
    const auto request = addRequest(shape, stream);
    check(client_.addStream(request), "adding a stream");
    direct_.push_back(std::make_unique<test::DirectEncoder>(request));
  }
}

double SideBySide::encodeInService(int32_t cell, const std::vector<service::Rectangle>& rectangles,
                                   int32_t stream) {
  service::EncodeRequest request{};
  request.streamId = static_cast<uint8_t>(stream);
  segment_.place(cell, request);
  const auto start = Clock::now();
  const bool taken = client_.encode(request, rectangles, {}) == 1 && client_.readReply(reply_) == 1;
  const double time = microseconds(Clock::now() - start);
  if (!taken) giveUp("encoding in the service: " + client_.endText());
  return time;
}

double SideBySide::encodeHere(int32_t cell, const std::vector<service::Rectangle>& rectangles,
                              int32_t stream) {
  test::DirectEncoder& encoder = *direct_[static_cast<size_t>(stream)];
  if (encoder.encode(picture(cell), rectangles).empty()) giveUp("encoding in-process");
  return microseconds(encoder.encoderTime());
}

FrameCost SideBySide::encode(int32_t cell, const std::vector<service::Rectangle>& rectangles,
                             int32_t stream) {
  FrameCost cost{};
  const bool floorFirst = turn_++ % 2 == 1;
  if (floorFirst) cost.floor = encodeHere(cell, rectangles, stream);
  cost.service = encodeInService(cell, rectangles, stream);
  cost.encoder = *encoderTime_;
  if (!floorFirst) cost.floor = encodeHere(cell, rectangles, stream);
  cost.bytes = reply_.frame.size();
  return cost;
}

void drawPicture(const client::Picture& picture) {
  for (int32_t plane = 0; plane < 3; ++plane) {
    for (int32_t y = 0; y < planeHeight(picture, plane); ++y) {
      uint8_t* row = picture.plane[plane] + static_cast<int64_t>(y) * picture.stride[plane];
      for (int32_t x = 0; x < planeWidth(picture, plane); ++x) {
        const bool written = plane == 0 && (x / 480 + y / 270) % 3 == 0;
        row[x] = written ? inkAt(x, y, 0) : static_cast<uint8_t>(36 + 44 * plane);
      }
    }
  }
}

std::vector<service::Rectangle> redrawShare(const client::Picture& before,
                                            const client::Picture& after, double share,
                                            uint32_t seed) {
  for (int32_t plane = 0; plane < 3; ++plane) {
    memcpy(
        after.plane[plane], before.plane[plane],
        static_cast<size_t>(after.stride[plane]) * static_cast<size_t>(planeHeight(after, plane)));
  }
  std::minstd_rand random(seed);
  std::vector<service::Rectangle> list;
  const auto limit = static_cast<uint32_t>(share * 10000);
  for (int32_t y = 0; y < after.height; y += 16) {
    for (int32_t x = 0; x < after.width; x += 16) {
      if (random() % 10000 >= limit) continue;
      for (int32_t row = y; row < std::min(y + 16, after.height); ++row) {
        uint8_t* luma = after.plane[0] + static_cast<int64_t>(row) * after.stride[0];
        for (int32_t i = x; i < std::min(x + 16, after.width); ++i) {
          luma[i] = inkAt(i, row, seed);
        }
      }
      list.push_back({0, static_cast<uint16_t>(x), static_cast<uint16_t>(y), 16, 16});
    }
  }
  if (list.empty()) list.push_back({});  // marks everything as unchanged
  return list;
}

PipedProcess::PipedProcess(const std::function<void()>& body) {
  int in[2];
  int out[2];
  if (pipe2(in, O_CLOEXEC) == -1 || pipe2(out, O_CLOEXEC) == -1) giveUp("no pipe");
  for (const int end : {in[0], out[0]}) fcntl(end, F_SETPIPE_SZ, kPipeSize);
  process_ = fork();
  if (process_ == 0) {
    dup2(in[0], STDIN_FILENO);
    dup2(out[1], STDOUT_FILENO);
    for (const int end : {in[0], in[1], out[0], out[1]}) close(end);
    body();
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  input_.reset(in[1]);
  output_.reset(out[0]);
}

PipedProcess::PipedProcess(const std::string& program, const std::vector<std::string>& environment)
    : PipedProcess([&] {
        for (const std::string& entry : environment) putenv(strdup(entry.c_str()));
        execl(program.c_str(), program.c_str(), nullptr);
      }) {}

PipedProcess::~PipedProcess() {
  input_.reset();
  output_.reset();
  waitpid(process_, nullptr, 0);
}

void PipedProcess::write(const test::Bytes& bytes) {
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t count = ::write(input_.get(), bytes.data() + done, bytes.size() - done);
    if (count <= 0) giveUp("a process takes no command");
    done += static_cast<size_t>(count);
  }
}

void PipedProcess::read(void* bytes, size_t size) {
  for (size_t done = 0; done < size;) {
    const ssize_t count = ::read(output_.get(), static_cast<uint8_t*>(bytes) + done, size - done);
    if (count <= 0) giveUp("a process gives no reply");
    done += static_cast<size_t>(count);
  }
}

namespace {

struct BareReply {
  double encoderTime;
  size_t size;  // of the coded frame behind it
};

}  // namespace

BareService::BareService(const StreamShape& shape, const client::Picture (&cells)[2])
    : child_([&] { serve(shape, cells); }) {}

// In the child, up to the end of its input. A command is a cell's number and rectangles.
void BareService::serve(const StreamShape& shape, const client::Picture (&cells)[2]) {
  test::DirectEncoder encoder(addRequest(shape, 0));
  std::vector<service::Rectangle> rectangles;
  message_.resize(service::kBufferEnd);
  for (ssize_t size; (size = ::read(STDIN_FILENO, message_.data(), message_.size())) > 0;) {
    rectangles.clear();
    for (ssize_t at = 1; at < size; at += service::kRectangleSize) {
      rectangles.push_back(service::parseRectangle(&message_[static_cast<size_t>(at)]));
    }
    const auto coded = encoder.encode(cells[message_[0]], rectangles);
    const BareReply reply = {microseconds(encoder.encoderTime()), coded.size()};
    const int32_t sent =
        service::writeChannelPair(STDOUT_FILENO, reinterpret_cast<const uint8_t*>(&reply),
                                  sizeof reply, coded.data(), static_cast<int32_t>(coded.size()));
    if (sent == -1) return;
  }
}

double BareService::overhead(int32_t cell, const std::vector<service::Rectangle>& rectangles) {
  const auto start = Clock::now();
  message_.resize(1 + rectangles.size() * service::kRectangleSize);
  message_[0] = static_cast<uint8_t>(cell);
  uint8_t* out = &message_[1];
  for (const auto& rectangle : rectangles) {
    service::buildRectangle(rectangle, out);
    out += service::kRectangleSize;
  }
  child_.write(message_);
  BareReply reply;
  child_.read(&reply, sizeof reply);
  reply_.resize(reply.size);
  child_.read(reply_.data(), reply_.size());
  return microseconds(Clock::now() - start) - reply.encoderTime;
}

ScriptedPair::ScriptedPair(int32_t rectangles, int32_t replyBytes)
    : root_({std::pair<std::string, std::string>("lib/libx264.so", INSTANT_ENCODER)}),
      service_(SERVICE,
               {"QORA_SYSTEM=" + root_.path(), "INSTANT_BYTES=" + std::to_string(replyBytes)}),
      echo_(ECHO, {"QORA_ECHO=" + std::to_string(scriptedMessage(rectangles).size()) + "," +
                   std::to_string(service::kReplyHeadSize + replyBytes)}),
      memory_(nullptr, [](uint8_t* memory) { shmdt(memory); }),
      message_(scriptedMessage(rectangles)),
      reply_(static_cast<size_t>(service::kReplyHeadSize + replyBytes)) {
  const int id = shmget(IPC_PRIVATE, 4096, 0600);
  memory_.reset(static_cast<uint8_t*>(shmat(id, nullptr, 0)));
  service_.write(bytesOf(service::buildSegmentMessage(service::CommandType::attachSegment, id)));
  service_.write(bytesOf(
      service::buildAddStream(addRequest({.width = kScriptedSide, .height = kScriptedSide}, 0))));
  call(service_);  // the service has the segment now
  shmctl(id, IPC_RMID, nullptr);
}

void ScriptedPair::call(PipedProcess& process) {
  process.write(message_);
  process.read(reply_.data(), reply_.size());
}

double firstReplyOfService(const StreamShape& shape) {
  client::FrameSegment segment;
  check(segment.create(shape.width, shape.height, 1), "making the segment");
  drawPicture(segment.picture(0));
  client::CodecClient client;
  client::Reply reply;
  service::EncodeRequest request{};
  segment.place(0, request);
  const std::vector<service::Rectangle> all = {
      {0, 0, 0, static_cast<uint16_t>(shape.width), static_cast<uint16_t>(shape.height)}};
  const auto start = Clock::now();
  startService(client);
  check(client.attachSegment(segment.id()), "attaching the segment");
  check(client.addStream(addRequest(shape, 0)), "adding a stream");
  check(client.encode(request, all, {}), "encoding");
  check(client.readReply(reply), "taking the reply");
  return microseconds(Clock::now() - start) / 1000;
}

double firstFrameInProcess(const StreamShape& shape) {
  return inChild([&shape] {
    client::FrameSegment segment;
    check(segment.create(shape.width, shape.height, 1), "making the segment");
    drawPicture(segment.picture(0));
    const auto start = Clock::now();
    test::DirectEncoder encoder(addRequest(shape, 0));
    encoder.encode(segment.picture(0), {client::wholePicture(shape.width, shape.height)});
    return microseconds(Clock::now() - start) / 1000;
  });
}

int64_t privateKilobytes(pid_t process) {
  std::ifstream rollup("/proc/" + std::to_string(process) + "/smaps_rollup");
  int64_t sum = 0;
  for (std::string line; std::getline(rollup, line);) {
    if (line.starts_with("Private_")) sum += atoll(line.c_str() + line.find(':') + 1);
  }
  return sum;
}

int64_t memoryOfService(const StreamShape& shape) {
  SideBySide both(shape);
  drawPicture(both.picture(0));
  for (int32_t frame = 0; frame < 3; ++frame) {
    const auto list = redrawShare(both.picture(frame % 2), both.picture(1 - frame % 2), 0.1, 5);
    for (int32_t stream = 0; stream < shape.streams; ++stream) {
      both.encode(1 - frame % 2, list, stream);
    }
  }
  return privateKilobytes(both.servicePid());
}

int64_t memoryInProcess(const StreamShape& shape) {
  return inChild([&shape] {
    client::FrameSegment segment;
    check(segment.create(shape.width, shape.height, kCells), "making the segment");
    drawPicture(segment.picture(0));
    const auto rectangles = redrawShare(segment.picture(0), segment.picture(1), 0.1, 5);
    malloc_trim(0);  // what earlier work left free would be used without being seen
    const int64_t before = privateKilobytes(getpid());
    std::vector<std::unique_ptr<test::DirectEncoder>> encoders;
    for (int32_t stream = 0; stream < shape.streams; ++stream) {
      encoders.push_back(std::make_unique<test::DirectEncoder>(addRequest(shape, stream)));
      for (int32_t frame = 0; frame < 3; ++frame) {
        encoders.back()->encode(segment.picture(frame % 2), rectangles);
      }
    }
    return privateKilobytes(getpid()) - before;
  });
}

}  // namespace qora::bench
