// SPDX-License-Identifier: BSD-2-Clause
#include "qora/base/logger.h"

#include <iostream>

#include "qora/base/clog_line.h"
#include "qora/base/keep_errno.h"
#include "qora/base/mutex.h"

namespace qora {
namespace {

struct LoggerMutex {
  pthread_mutex_t mutex;
  LoggerMutex() { mutex::initMutex(&mutex); }
  ~LoggerMutex() { mutex::destroyMutex(&mutex); }
};

// Built in this order and destroyed in the other, so the mutex outlives the logger.
LoggerMutex processMutex;
Logger processLogger;

class ScopedLock {
 public:
  explicit ScopedLock(bool wanted) : wanted_(wanted) {
    if (wanted_) pthread_mutex_lock(&processMutex.mutex);
  }
  ~ScopedLock() {
    if (wanted_) pthread_mutex_unlock(&processMutex.mutex);
  }
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

 private:
  const bool wanted_;
};

std::ostream& beginLine(Logger& logger, std::ostream& stream, const char* prefix) {
  if (logger.mode == 0) return logger.nullStream;
  KeepErrno keep;
  ScopedLock lock(true);
  return stream.flush() << prefix;
}

std::ostream& chosenLogStream(Logger& logger) {
  return logger.mode == 1 ? *logger.log.stream : logger.nullStream;
}

}  // namespace

Logger::Logger()
    : log{&std::clog}, error{&std::clog}, third{&std::clog}, savedErrorBuffer(std::clog.rdbuf()) {}

std::ostream& Logger::logStream() {
  if (mode == 0) return nullStream;
  KeepErrno keep;
  ScopedLock lock(lockLogPrefix == 1);
  std::ostream& stream = chosenLogStream(*this);
  return writeTimePrefix(stream.flush()) << std::dec;
}

std::ostream& Logger::errorStream() {
  return beginLine(*this, *error.stream, "Error: ");
}
std::ostream& Logger::warningStream() {
  return beginLine(*this, *error.stream, "Warning: ");
}
std::ostream& Logger::infoStream() {
  return beginLine(*this, *error.stream, "Info: ");
}
std::ostream& Logger::sessionStream() {
  return beginLine(*this, *error.stream, "Session: ");
}
std::ostream& Logger::plainErrorStream() {
  return beginLine(*this, *error.stream, "");
}
std::ostream& Logger::plainLogStream() {
  return beginLine(*this, chosenLogStream(*this), "");
}

void Logger::flushAll() {
  KeepErrno keep;
  ScopedLock lock(true);
  chosenLogStream(*this) << std::dec << std::flush;
  *error.stream << std::dec << std::flush;
}

void Logger::logText(const char* text) {
  std::ostream& stream = logStream();
  if (writeText != 0) stream << text << "/";
}

Logger& logger() {
  return processLogger;
}
pthread_mutex_t& loggerMutex() {
  return processMutex.mutex;
}

std::ostream& logStream() {
  return processLogger.logStream();
}
std::ostream& errorStream() {
  return processLogger.errorStream();
}
std::ostream& warningStream() {
  return processLogger.warningStream();
}
std::ostream& infoStream() {
  return processLogger.infoStream();
}
std::ostream& sessionStream() {
  return processLogger.sessionStream();
}
std::ostream& plainErrorStream() {
  return processLogger.plainErrorStream();
}
std::ostream& plainLogStream() {
  return processLogger.plainLogStream();
}

}  // namespace qora
