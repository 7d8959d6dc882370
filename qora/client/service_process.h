// SPDX-License-Identifier: BSD-2-Clause
// qora/client/service_process.h -- The child that serves: its start, its pipes, its end.
//
// Our pipe ends are close-on-exec from the moment they exist, so that no other child of ours holds
// one: the service's end shows as the end of its replies. Nothing here raises SIGPIPE, and no
// signal's disposition or mask of ours is changed.
//
// Results: 1, 0 for "not yet", -1 with errno. One thread at a time.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "qora/base/descriptor.h"
#include "qora/client/log_tail.h"

namespace qora::client {

struct ServiceOptions {
  std::string servicePath = {};       // the program, not searched for
  std::string codecRoot = {};         // the service's QORA_SYSTEM; empty: as in our own environment
  int32_t errorDescriptor = -1;       // where its diagnostics go; -1: our standard error
  std::string sandboxPath = {};       // qora-sandbox, which is to run it; empty: it runs freely
  int32_t commandTimeout = 10000;     // milliseconds for a command to be taken; -1: without end
  uint32_t maxReplyBytes = 64 << 20;  // of all frames together that were not read yet
  // The client reads the diagnostics itself and keeps the last lines, for endText() and logLines();
  // errorDescriptor is -1 then. A blocking readReply() takes one system call more.
  bool keepLog = false;
};

class ServiceProcess {
 public:
  using Clock = std::chrono::steady_clock;

  // -1: what access(2) says when a program cannot be run, EINVAL for keepLog together with a
  // descriptor, or the system's.
  [[nodiscard]] int32_t start(const ServiceOptions& options);
  bool isRunning() const { return process_ != -1; }

  // Our ends, -1 without a service: writing does not block, reading does.
  int32_t commands() const { return commands_.get(); }
  int32_t replies() const { return replies_.get(); }
  int32_t log() const { return log_.get(); }  // -1 also when it is not kept
  // Readable when replies or log lines are there or have ended, and, while that is watched, when
  // there is room for commands.
  int32_t wakeDescriptor() const { return wake_.get(); }
  void watchRoom(bool watch);

  void noteCommand() { hadCommands_ = true; }
  // One read of the log, which must be readable; closes it at its end.
  void readLog();
  const LogTail& logTail() const { return tail_; }

  // The end of the service's input, at which it ends in order.
  void closeInput();
  // Waits for the service's end and kills it at the deadline. Closes our ends. `fault` is why a
  // service has to be killed: "did not end in time"; with `tellAlways` it is part of the text
  // although the service ended by itself. Keeps errno.
  void finish(Clock::time_point deadline, const std::string& fault, bool tellAlways);

  // Both empty or false until the end is known.
  const std::string& endText() const { return endText_; }
  bool endedInOrder() const { return endedInOrder_; }

 private:
  int32_t spawn(const ServiceOptions& options, int32_t input, int32_t output, int32_t error);
  int32_t openWake();
  int32_t reap(int& status, Clock::time_point deadline) const;
  void drainLog();

  pid_t process_ = -1;
  Descriptor commands_;
  // The service's end as well: with a reader in our own process a write raises no SIGPIPE, whatever
  // became of the service. The end of the replies tells that.
  Descriptor commandReader_;
  Descriptor replies_;
  Descriptor log_;
  Descriptor wake_;
  bool watchesRoom_ = false;
  bool hadCommands_ = false;
  bool inputClosed_ = false;
  bool endedInOrder_ = false;
  LogTail tail_;
  std::string endText_;
};

// What is left until the deadline as poll(2) wants it, rounded up; -1 for time_point::max().
int32_t pollTimeout(ServiceProcess::Clock::time_point deadline);
// From now; the end of time for negative milliseconds.
ServiceProcess::Clock::time_point deadlineAfter(int32_t milliseconds);

}  // namespace qora::client
