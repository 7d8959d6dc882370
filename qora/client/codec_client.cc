#include "qora/client/codec_client.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <thread>

#include "qora/base/file.h"
#include "qora/base/process.h"
#include "qora/base/socket.h"
#include "qora/client/service_end.h"

namespace qora::client {
namespace {

constexpr int32_t kPipeSize = 256 << 10;  // a usual coded frame in one write
constexpr size_t kReadSize = 64 << 10;
constexpr std::chrono::milliseconds kLostGrace{2000};  // a service that closed its pipes is leaving
constexpr std::chrono::milliseconds kReapInterval{1};

// Both ends of a pipe, neither inherited by an exec nor numbered 0 to 2: createProcess() takes
// those numbers as "keep what is there".
struct Pipe {
  Descriptor readEnd;
  Descriptor writeEnd;
};

int32_t aboveStandard(Descriptor& descriptor) {
  if (descriptor.get() > STDERR_FILENO) return 1;
  const int moved = ::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (moved == -1) return -1;
  descriptor.reset(moved);
  return 1;
}

int32_t openPipe(Pipe& pipe) {
  int32_t fds[2];
  if (file::createPipe(fds, kPipeSize) == -1) return -1;
  pipe.readEnd.reset(fds[0]);
  pipe.writeEnd.reset(fds[1]);
  for (Descriptor* end : {&pipe.readEnd, &pipe.writeEnd}) {
    if (file::setNoInherit(end->get(), FD_CLOEXEC) == -1 || aboveStandard(*end) == -1) return -1;
  }
  return 1;
}

// Our environment with another QORA_SYSTEM. Points into `setting` and into the environment.
std::vector<const char*> environmentWith(const std::string& setting) {
  constexpr char kName[] = "QORA_SYSTEM=";
  std::vector<const char*> entries;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    if (std::strncmp(*entry, kName, sizeof kName - 1) != 0) entries.push_back(*entry);
  }
  entries.push_back(setting.c_str());
  entries.push_back(nullptr);
  return entries;
}

pid_t startProcess(const ServiceOptions& options, int32_t input, int32_t output) {
  const char* const service = options.servicePath.c_str();
  const char* const sandbox = options.sandboxPath.c_str();
  const char* const freely[] = {service, service, nullptr};
  const char* const filtered[] = {sandbox, sandbox, service, nullptr};
  const char* const* program = options.sandboxPath.empty() ? freely : filtered;
  const std::string setting = "QORA_SYSTEM=" + options.codecRoot;
  const std::vector<const char*> environment = environmentWith(setting);
  const char* const* variables = options.codecRoot.empty() ? environ : environment.data();
  const int niceness = ::getpriority(PRIO_PROCESS, 0);  // the service keeps ours
  return process::createProcess(nullptr, program, variables, input, output, options.errorDescriptor,
                                niceness, 0);
}

// What is left until the deadline as poll(2) wants it, rounded up.
int32_t pollTimeout(std::chrono::steady_clock::time_point deadline) {
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  return static_cast<int32_t>(std::clamp<int64_t>(left.count(), 0, 1 << 30));
}

}  // namespace

int32_t CodecClient::start(const ServiceOptions& options) {
  if (isRunning()) {
    errno = EBUSY;
    return -1;
  }
  socket::ensureSystemSupport();
  // Told here while there is somebody to tell; the child could only end with the errno.
  if (file::isAccessible(nullptr, options.servicePath.c_str(), X_OK) == 0) return -1;
  if (!options.sandboxPath.empty() &&
      file::isAccessible(nullptr, options.sandboxPath.c_str(), X_OK) == 0) {
    return -1;
  }

  Pipe command;
  Pipe reply;
  if (openPipe(command) == -1 || openPipe(reply) == -1) return -1;
  // Ours alone: the service's ends stay blocking, as it needs them.
  if (file::setNonBlocking(command.writeEnd.get(), 1) == -1) return -1;
  process_ = startProcess(options, command.readEnd.get(), reply.writeEnd.get());
  if (process_ == -1) return -1;
  commands_ = std::move(command.writeEnd);
  commandReader_ = std::move(command.readEnd);
  replies_ = std::move(reply.readEnd);
  taken_ = filled_ = 0;
  pending_.clear();
  exitedWithZero_ = 0;
  endText_.clear();
  return 1;
}

int32_t CodecClient::addStream(const service::AddStreamRequest& request) {
  const auto message = service::buildAddStream(request);
  return send(message.data(), message.size());
}

int32_t CodecClient::removeStream(uint8_t streamId) {
  const auto message = service::buildRemoveStream(streamId);
  return send(message.data(), message.size());
}

int32_t CodecClient::attachSegment(int32_t segmentId) {
  const auto message = service::buildSegmentMessage(service::CommandType::attachSegment, segmentId);
  return send(message.data(), message.size());
}

int32_t CodecClient::removeSegment(int32_t segmentId) {
  const auto message = service::buildSegmentMessage(service::CommandType::removeSegment, segmentId);
  return send(message.data(), message.size());
}

int32_t CodecClient::encode(service::EncodeRequest request,
                            std::span<const service::Rectangle> rectangles,
                            std::span<const service::RegionCopy> copies) {
  const size_t rectangleBytes = rectangles.size() * service::kRectangleSize;
  const size_t copyBytes = copies.size() * service::kRegionCopySize;
  const size_t size = service::kEncodeFixedSize + rectangleBytes + copyBytes;
  if (size > static_cast<size_t>(kLargestCommand)) {
    errno = EMSGSIZE;
    return -1;
  }
  request.rectangleBytes = static_cast<uint32_t>(rectangleBytes);
  request.copyBytes = static_cast<uint32_t>(copyBytes);
  message_.resize(size);
  const auto head = service::buildEncodeHead(request);
  uint8_t* out = std::copy(head.begin(), head.end(), message_.data());
  for (const service::Rectangle& rectangle : rectangles) {
    service::buildRectangle(rectangle, out);
    out += service::kRectangleSize;
  }
  for (const service::RegionCopy& copy : copies) {
    service::buildRegionCopy(copy, out);
    out += service::kRegionCopySize;
  }

  const auto sent = Clock::now();
  if (send(message_.data(), message_.size()) == -1) return -1;
  pending_.push_back({.streamId = request.streamId, .sent = sent});
  return 1;
}

int32_t CodecClient::send(const uint8_t* bytes, size_t size) {
  if (commands_.get() == -1) {
    errno = EPIPE;
    return -1;
  }
  while (size > 0) {
    const ssize_t written = ::write(commands_.get(), bytes, size);
    if (written > 0) {
      bytes += written;
      size -= static_cast<size_t>(written);
    } else if (errno == EAGAIN) {
      if (waitForRoom() == -1) return -1;
    } else if (errno != EINTR) {
      return channelLost(errno);
    }
  }
  return 1;
}

// Until the command pipe has room. The service reads no command while it waits for room for a
// reply, so replies are taken in meanwhile.
int32_t CodecClient::waitForRoom() {
  pollfd ends[] = {{commands_.get(), POLLOUT, 0}, {replies_.get(), POLLIN, 0}};
  if (::poll(ends, std::size(ends), -1) == -1) return errno == EINTR ? 0 : channelLost(errno);
  if (ends[1].revents != 0 && receiveSome() == -1) return -1;
  return 1;
}

// One read, which waits for the service. 1, or 0 when a signal came first.
int32_t CodecClient::receiveSome() {
  if (replies_.get() == -1) return channelLost(EPIPE);
  if (received_.size() - filled_ < kReadSize && taken_ > 0) {
    std::copy(received_.data() + taken_, received_.data() + filled_, received_.data());
    filled_ -= std::exchange(taken_, 0);
  }
  if (received_.size() - filled_ < kReadSize) received_.resize(2 * received_.size() + kReadSize);
  const ssize_t count =
      ::read(replies_.get(), received_.data() + filled_, received_.size() - filled_);
  if (count > 0) {
    filled_ += static_cast<size_t>(count);
    return 1;
  }
  if (count == -1 && errno == EINTR) return 0;
  replies_.reset();
  return channelLost(count == 0 ? EPIPE : errno);
}

int32_t CodecClient::waitForReply(Clock::time_point deadline) const {
  pollfd end = {replies_.get(), POLLIN, 0};
  return ::poll(&end, 1, pollTimeout(deadline));
}

// The reply at the front of what was received. 1, or 0 when it is not whole yet.
int32_t CodecClient::takeReply(Reply& reply) {
  const size_t held = filled_ - taken_;
  if (held < service::kReplyHeadSize) return 0;
  const uint8_t* head = received_.data() + taken_;
  const service::ReplyFields fields = service::parseReplyHead(head);
  // The empty reply with the same fields begins with the same size and type.
  if (!std::equal(head, head + 5, service::buildReplyHead(fields).begin()) ||
      fields.frameSize > std::numeric_limits<int32_t>::max()) {
    errno = EPROTO;
    return -1;
  }
  if (held - service::kReplyHeadSize < fields.frameSize) return 0;

  const uint8_t* frame = head + service::kReplyHeadSize;
  reply.streamId = pending_.front().streamId;
  reply.fields = fields;
  reply.frame.assign(frame, frame + fields.frameSize);
  reply.roundTrip =
      std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - pending_.front().sent);
  pending_.pop_front();
  taken_ += service::kReplyHeadSize + fields.frameSize;
  return 1;
}

int32_t CodecClient::readReply(Reply& reply, int32_t timeout) {
  if (pending_.empty()) return 0;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout);  // unless it is -1
  while (true) {
    if (const int32_t taken = takeReply(reply); taken != 0) return taken;
    if (timeout >= 0 && replies_.get() != -1) {
      const int32_t ready = waitForReply(deadline);
      if (ready == 0) return 0;
      if (ready == -1 && errno == EINTR) continue;
      if (ready == -1) return -1;
    }
    if (receiveSome() == -1) return -1;
  }
}

// The service is gone or going; replies that it wrote before can still be read. Always -1.
int32_t CodecClient::channelLost(int32_t error) {
  closeCommands();
  collectEnd(Clock::now() + kLostGrace);
  errno = error;
  return -1;
}

int32_t CodecClient::stop(int32_t grace) {
  if (isRunning()) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(grace);
    closeCommands();
    drainReplies(deadline);
    collectEnd(deadline);
  }
  closeCommands();
  replies_.reset();
  pending_.clear();
  if (endText_.empty()) return 0;
  return exitedWithZero_ == 1 ? 1 : -1;
}

void CodecClient::closeCommands() {
  commands_.reset();
  commandReader_.reset();
}

// A service in the middle of a reply ends in order only when somebody takes the rest.
void CodecClient::drainReplies(Clock::time_point deadline) {
  uint8_t dropped[4096];
  while (replies_.get() != -1 && Clock::now() < deadline) {
    if (waitForReply(deadline) <= 0) continue;
    if (::read(replies_.get(), dropped, sizeof dropped) == 0) return;
  }
}

// Waits for the child's end, from the deadline on by force.
void CodecClient::collectEnd(Clock::time_point deadline) {
  if (!isRunning()) return;
  const KeepErrno keep;
  const pid_t child = std::exchange(process_, -1);
  int status = 0;
  bool killed = false;
  pid_t ended;
  while ((ended = ::waitpid(child, &status, killed ? 0 : WNOHANG)) != child) {
    if (ended == -1 && errno != EINTR) {
      // A parent that ignores SIGCHLD or waits for every child itself.
      endText_ = "service ended, its status was taken elsewhere";
      return;
    }
    if (Clock::now() >= deadline && !killed) {
      ::kill(child, SIGKILL);
      killed = true;
    }
    if (!killed) std::this_thread::sleep_for(kReapInterval);
  }
  exitedWithZero_ = status == 0 ? 1 : 0;
  endText_ = killed ? "service did not end in time and was killed" : describeServiceEnd(status);
}

}  // namespace qora::client
