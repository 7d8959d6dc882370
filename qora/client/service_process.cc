// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/service_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>
#include <utility>
#include <vector>

#include "qora/client/service_end.h"

namespace qora::client {
namespace {

constexpr int kPipeSize = 256 << 10;  // a usual coded frame in one write
constexpr size_t kLogRead = 64 << 10;
constexpr size_t kLogRest = 1 << 20;  // of what a service left behind, at most
constexpr std::chrono::microseconds kReapInterval{200};
constexpr std::chrono::milliseconds kKillGrace{2000};  // the kernel's, to end what was killed

// Moves a descriptor of ours above the standard ones: a parent that has closed those may still
// write to them.
int32_t aboveStandard(Descriptor& descriptor) {
  if (descriptor.get() > STDERR_FILENO) return 1;
  const int moved = ::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (moved == -1) return -1;
  descriptor.reset(moved);
  return 1;
}

struct Pipe {
  Descriptor readEnd;
  Descriptor writeEnd;
};

// Close-on-exec in the same step: another thread may start a child at any moment.
int32_t openPipe(Pipe& pipe) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) == -1) return -1;
  pipe.readEnd.reset(fds[0]);
  pipe.writeEnd.reset(fds[1]);
  static_cast<void>(::fcntl(fds[0], F_SETPIPE_SZ, kPipeSize));  // a smaller one will do
  if (aboveStandard(pipe.readEnd) == -1) return -1;
  return aboveStandard(pipe.writeEnd);
}

// What the child's standard error becomes: our pipe, a copy of the parent's descriptor, or nothing
// (-1), which leaves our own.
int32_t openDiagnostics(const ServiceOptions& options, Pipe& pipe) {
  if (options.keepLog) {
    if (options.errorDescriptor != -1) {
      errno = EINVAL;
      return -1;
    }
    return openPipe(pipe);
  }
  if (options.errorDescriptor == -1) return 1;
  pipe.writeEnd.reset(::fcntl(options.errorDescriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  return pipe.writeEnd.get() == -1 ? -1 : 1;
}

// Reported here while there is somebody to report it to.
int32_t checkProgram(const std::string& path) {
  struct stat status;
  if (::access(path.c_str(), X_OK) == -1 || ::stat(path.c_str(), &status) == -1) return -1;
  if (S_ISREG(status.st_mode)) return 1;
  errno = EACCES;
  return -1;
}

// Our environment with another QORA_SYSTEM. Points into `setting` and into the environment.
std::vector<char*> environmentWith(std::string& setting) {
  constexpr char kName[] = "QORA_SYSTEM=";
  std::vector<char*> entries;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    if (std::strncmp(*entry, kName, sizeof kName - 1) != 0) entries.push_back(*entry);
  }
  entries.push_back(setting.data());
  entries.push_back(nullptr);
  return entries;
}

// How the child differs from us: its descriptors are the three standard ones and no others, no
// signal is blocked, set-user rights are given up.
class SpawnPlan {
 public:
  SpawnPlan() {
    sigset_t none;
    ::sigemptyset(&none);
    note(::posix_spawnattr_init(&attributes_));
    note(::posix_spawn_file_actions_init(&actions_));
    note(::posix_spawnattr_setsigmask(&attributes_, &none));
    note(::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_RESETIDS));
  }
  ~SpawnPlan() {
    ::posix_spawn_file_actions_destroy(&actions_);
    ::posix_spawnattr_destroy(&attributes_);
  }
  SpawnPlan(const SpawnPlan&) = delete;
  SpawnPlan& operator=(const SpawnPlan&) = delete;

  void give(int32_t from, int32_t role) {
    if (from != -1) note(::posix_spawn_file_actions_adddup2(&actions_, from, role));
  }
  // The child's id, or -1 with errno, the exec's included.
  pid_t run(char* const program[], char* const environment[]) {
    note(::posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1));
    pid_t child = -1;
    if (error_ == 0) {
      note(::posix_spawn(&child, program[0], &actions_, &attributes_, program, environment));
    }
    if (error_ == 0) return child;
    errno = error_;
    return -1;
  }

 private:
  void note(int error) {
    if (error_ == 0) error_ = error;
  }

  posix_spawn_file_actions_t actions_{};
  posix_spawnattr_t attributes_{};
  int error_ = 0;  // the first failure
};

}  // namespace

int32_t pollTimeout(ServiceProcess::Clock::time_point deadline) {
  if (deadline == ServiceProcess::Clock::time_point::max()) return -1;
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(deadline - ServiceProcess::Clock::now());
  return static_cast<int32_t>(std::clamp<int64_t>(left.count(), 0, 1 << 30));
}

ServiceProcess::Clock::time_point deadlineAfter(int32_t milliseconds) {
  if (milliseconds < 0) return ServiceProcess::Clock::time_point::max();
  return ServiceProcess::Clock::now() + std::chrono::milliseconds(milliseconds);
}

int32_t ServiceProcess::start(const ServiceOptions& options) {
  if (checkProgram(options.servicePath) == -1) return -1;
  if (!options.sandboxPath.empty() && checkProgram(options.sandboxPath) == -1) return -1;
  Pipe command;
  Pipe reply;
  Pipe log;
  if (openPipe(command) == -1 || openPipe(reply) == -1) return -1;
  if (openDiagnostics(options, log) == -1) return -1;
  // Ours alone: the service's ends stay blocking, as it needs them.
  if (::fcntl(command.writeEnd.get(), F_SETFL, O_NONBLOCK) == -1) return -1;
  commands_ = std::move(command.writeEnd);
  replies_ = std::move(reply.readEnd);
  log_ = std::move(log.readEnd);
  if (openWake() == -1 ||
      spawn(options, command.readEnd.get(), reply.writeEnd.get(), log.writeEnd.get()) == -1) {
    for (Descriptor* end : {&commands_, &replies_, &log_, &wake_}) end->reset();
    return -1;
  }
  commandReader_ = std::move(command.readEnd);
  watchesRoom_ = hadCommands_ = inputClosed_ = endedInOrder_ = false;
  tail_.clear();
  endText_.clear();
  return 1;
}

int32_t ServiceProcess::openWake() {
  wake_.reset(::epoll_create1(EPOLL_CLOEXEC));
  if (wake_.get() == -1 || aboveStandard(wake_) == -1) return -1;
  const std::pair<int32_t, uint32_t> ends[] = {
      {replies_.get(), EPOLLIN}, {log_.get(), EPOLLIN}, {commands_.get(), 0}};
  for (const auto& [end, events] : ends) {
    epoll_event event = {.events = events, .data = {}};
    if (end != -1 && ::epoll_ctl(wake_.get(), EPOLL_CTL_ADD, end, &event) == -1) return -1;
  }
  return 1;
}

void ServiceProcess::watchRoom(bool watch) {
  if (watch == watchesRoom_ || commands_.get() == -1) return;
  watchesRoom_ = watch;
  epoll_event event = {.events = watch ? EPOLLOUT : 0U, .data = {}};
  ::epoll_ctl(wake_.get(), EPOLL_CTL_MOD, commands_.get(), &event);
}

int32_t ServiceProcess::spawn(const ServiceOptions& options, int32_t input, int32_t output,
                              int32_t error) {
  std::string service = options.servicePath;
  std::string sandbox = options.sandboxPath;
  char* const freely[] = {service.data(), nullptr};
  char* const filtered[] = {sandbox.data(), service.data(), nullptr};
  std::string setting = "QORA_SYSTEM=" + options.codecRoot;
  const std::vector<char*> environment = environmentWith(setting);
  SpawnPlan plan;
  plan.give(input, STDIN_FILENO);
  plan.give(output, STDOUT_FILENO);
  plan.give(error, STDERR_FILENO);
  process_ = plan.run(sandbox.empty() ? freely : filtered,
                      options.codecRoot.empty() ? environ : environment.data());
  return process_ == -1 ? -1 : 1;
}

void ServiceProcess::readLog() {
  uint8_t bytes[kLogRead];
  const ssize_t count = ::read(log_.get(), bytes, sizeof bytes);
  if (count > 0) {
    tail_.add({bytes, static_cast<size_t>(count)});
  } else if (count == 0 || errno != EINTR) {
    log_.reset();
  }
}

// What the service wrote before its end. Another process may hold the pipe and go on writing.
void ServiceProcess::drainLog() {
  for (size_t taken = 0; log_.get() != -1 && taken < kLogRest; taken += kLogRead) {
    pollfd end = {log_.get(), POLLIN, 0};
    if (::poll(&end, 1, 0) != 1) break;
    readLog();
  }
  log_.reset();
}

void ServiceProcess::closeInput() {
  siginfo_t info = {};
  // One that ended before was not ended by us.
  const bool ended =
      ::waitid(P_PID, static_cast<id_t>(process_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
      info.si_pid == process_;
  inputClosed_ = !ended;
  commands_.reset();
  commandReader_.reset();
}

// 1, 0 when it did not end by the deadline, -1 when somebody else waited for it: a parent that
// ignores SIGCHLD, or that waits for every child.
int32_t ServiceProcess::reap(int& status, Clock::time_point deadline) const {
  while (true) {
    const pid_t ended = ::waitpid(process_, &status, WNOHANG);
    if (ended == process_) return 1;
    if (ended == -1 && errno != EINTR) return -1;
    if (Clock::now() >= deadline) return 0;
    std::this_thread::sleep_for(kReapInterval);
  }
}

void ServiceProcess::finish(Clock::time_point deadline, const std::string& fault, bool tellAlways) {
  if (!isRunning()) return;
  const KeepErrno keep;
  int status = 0;
  int32_t reaped = reap(status, deadline);
  const bool killed = reaped == 0;
  if (killed) {
    ::kill(process_, SIGKILL);  // the one signal that nothing can catch
    reaped = reap(status, Clock::now() + kKillGrace);
  }
  process_ = -1;
  drainLog();
  for (Descriptor* end : {&commands_, &commandReader_, &replies_, &wake_}) end->reset();

  // A service that was leaving already has a status of its own.
  const bool byUs = killed && (reaped != 1 || (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL));
  const std::string prefix = "service " + (byUs || tellAlways ? fault + " and " : "");
  if (byUs) {
    endText_ = prefix + "was killed" + lastLine(tail_.lines());
  } else if (reaped == -1) {
    endText_ = prefix + "ended, its status was taken elsewhere" + lastLine(tail_.lines());
  } else {
    const ServiceEnd end = {status, inputClosed_, hadCommands_};
    endText_ = prefix + describeServiceEnd(end, tail_.lines());
    endedInOrder_ = status == 0 && inputClosed_ && !tellAlways;
  }
}

}  // namespace qora::client
