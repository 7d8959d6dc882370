// SPDX-License-Identifier: BSD-2-Clause
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>
#include <memory>

#include "qora/base/file.h"
#include "qora/base/keep_errno.h"
#include "qora/base/logger.h"

namespace qora {
namespace {

constexpr int32_t kOpenAttempts = 5;
constexpr useconds_t kMicrosecondsBetweenAttempts = 200;
constexpr mode_t kOwnerOnly = 077;

// One attempt; null with errno.
std::ofstream* tryOpen(const char* path, std::ios::openmode mode, bool buffered) {
  auto stream = std::make_unique<std::ofstream>();
  if (!buffered) stream->rdbuf()->pubsetbuf(nullptr, 0);  // counts only before the opening
  stream->open(path, std::ios::out | mode);
  return stream->good() ? stream.release() : nullptr;
}

std::ofstream* openLogFile(const char* path, std::ios::openmode mode, bool buffered) {
  const mode_t previous = ::umask(kOwnerOnly);
  std::ofstream* stream = tryOpen(path, mode, buffered);
  for (int32_t attempt = 1; stream == nullptr && attempt < kOpenAttempts; ++attempt) {
    ::usleep(kMicrosecondsBetweenAttempts);
    stream = tryOpen(path, mode, buffered);
  }
  ::umask(previous);
  return stream;
}

void setName(LogSlot& slot, char* name) {
  delete[] slot.fileName;
  slot.fileName = name;
}

}  // namespace

Logger::~Logger() {
  for (LogSlot* slot : {&error, &log, &third}) {
    replaceStream(*slot, &std::clog);
    setName(*slot, nullptr);
  }
  for (LogSlot* slot : {&error, &log, &third}) delete slot->retired;
}

void Logger::replaceStream(LogSlot& slot, std::ostream* stream) {
  std::ostream* const old = slot.stream;
  if (old == stream) return;
  slot.stream = stream;
  if (&slot == &error) {
    std::clog.flush();
    std::clog.rdbuf(stream == &std::clog ? savedErrorBuffer : stream->rdbuf());
  }
  if (old == &std::clog) return;
  delete slot.retired;
  old->flush();
  old->rdbuf(savedErrorBuffer);
  slot.retired = old;
}

int32_t Logger::setFile(LogSlot& slot, const char* dir, const char* name) {
  std::unique_ptr<char[]> path(file::joinPath(dir, name));
  if (path == nullptr) return 0;
  std::ofstream* const stream = openLogFile(path.get(), std::ios::app, buffered != 0);
  if (stream == nullptr) return -1;
  replaceStream(slot, stream);
  setName(slot, path.release());
  if (&slot == &error) {
    std::clog << "Logger: Redirected the standard error to '" << slot.fileName << "'.\n";
  }
  return 1;
}

int32_t Logger::setStream(LogSlot& slot, std::ostream* stream) {
  if (stream == nullptr || stream == slot.stream) return 0;
  replaceStream(slot, stream);
  setName(slot, nullptr);
  if (&slot == &error && stream != &std::clog) {
    std::clog << "Logger: Redirected the standard error to the stream.\n";
  }
  return 1;
}

int32_t Logger::truncateFile(LogSlot& slot, int64_t limit) {
  if (slot.fileName == nullptr || limit < 0) return 0;
  if (file::fileSize(nullptr, slot.fileName) < limit) return 0;
  replaceStream(slot, &std::clog);
  std::ofstream* const stream = openLogFile(slot.fileName, std::ios::trunc, buffered != 0);
  if (stream == nullptr) {
    setName(slot, nullptr);
    return -1;
  }
  replaceStream(slot, stream);
  return 1;
}

int32_t Logger::setLogFile(const char* dir, const char* name) {
  return configurable != 0 ? setFile(log, dir, name) : 0;
}
int32_t Logger::setErrorFile(const char* dir, const char* name) {
  return configurable != 0 ? setFile(error, dir, name) : 0;
}
int32_t Logger::setThirdFile(const char* dir, const char* name) {
  return setFile(third, dir, name);
}

int32_t Logger::setLogStream(std::ostream* stream) {
  return configurable != 0 ? setStream(log, stream) : 0;
}
int32_t Logger::setErrorStream(std::ostream* stream) {
  return configurable != 0 ? setStream(error, stream) : 0;
}
int32_t Logger::setThirdStream(std::ostream* stream) {
  return setStream(third, stream);
}

int32_t Logger::truncateLogFile(int64_t limit) {
  return truncateFile(log, limit);
}
int32_t Logger::truncateErrorFile(int64_t limit) {
  return truncateFile(error, limit);
}
int32_t Logger::truncateThirdFile(int64_t limit) {
  return truncateFile(third, limit);
}

}  // namespace qora
