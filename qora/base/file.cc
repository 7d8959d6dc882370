// SPDX-License-Identifier: BSD-2-Clause
#include "qora/base/file.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cassert>
#include <cstring>
#include <memory>
#include <new>

#include "qora/base/error_text.h"
#include "qora/base/keep_errno.h"
#include "qora/base/logger.h"

namespace qora::file {
namespace {

bool isEmpty(const char* text) {
  return text == nullptr || *text == '\0';
}

using OwnedPath = std::unique_ptr<char[]>;

// What fileType() gives for the path, in `type`; the result is that of the status query.
int32_t typeOf(const char* dir, const char* name, int32_t& type) {
  struct stat status;
  const int32_t found = statFile(dir, name, status);
  if (found == 1) type = fileType(status);
  return found;
}

// The next byte of `fd`; false at the end of input (EIO) and on a failure.
bool readByte(int32_t fd, char& byte) {
  ssize_t count;
  do {
    count = ::read(fd, &byte, 1);
  } while (count == -1 && errno == EINTR);
  if (count == 0) errno = EIO;
  return count == 1;
}

}  // namespace

char* joinPath(const char* dir, const char* name) {
  if (isEmpty(name)) return nullptr;
  const size_t nameSize = strlen(name) + 1;
  const size_t dirSize = isEmpty(dir) ? 0 : strlen(dir) + 1;
  char* path = new (std::nothrow) char[dirSize + nameSize];
  if (path == nullptr) return nullptr;
  if (dirSize != 0) {
    memcpy(path, dir, dirSize - 1);
    // Also after a directory that ends in one: callers compare these paths as texts.
    path[dirSize - 1] = '/';
  }
  memcpy(path + dirSize, name, nameSize);
  return path;
}

int32_t statusOf(const char* path, struct stat& status) {
  if (path == nullptr) {
    errno = EFAULT;
    return -1;
  }
  if (::stat(path, &status) == 0) return 1;
  return errno == ENOENT ? 0 : -1;
}

int32_t statFile(const char* dir, const char* name, struct stat& status) {
  const OwnedPath path(joinPath(dir, name));
  if (path == nullptr && !isEmpty(name)) return -1;
  return statusOf(path.get(), status);
}

int32_t exists(const char* dir, const char* name) {
  struct stat status;
  return statFile(dir, name, status);
}

int32_t isRegularFile(const char* dir, const char* name) {
  int32_t type = -1;
  const int32_t found = typeOf(dir, name, type);
  return found == 1 ? type == 1 : found;
}

int32_t isDirectory(const char* dir, const char* name) {
  int32_t type = -1;
  const int32_t found = typeOf(dir, name, type);
  return found == 1 ? type == 0 : found;
}

int64_t fileSize(const char* dir, const char* name) {
  struct stat status;
  const int32_t found = statFile(dir, name, status);
  if (found != 1) return found;
  if (fileType(status) == 1) return status.st_size;
  errno = EINVAL;
  return -1;
}

int32_t isAccessible(const char* dir, const char* name, int32_t mode) {
  const OwnedPath path(joinPath(dir, name));
  if (path != nullptr) return ::access(path.get(), mode) == 0;
  if (isEmpty(name)) errno = EFAULT;
  return 0;
}

int32_t fileType(const struct stat& status) {
  if (S_ISREG(status.st_mode)) return 1;
  return S_ISDIR(status.st_mode) ? 0 : -1;
}

int32_t isDirectoryMode(const struct stat& status) {
  return S_ISDIR(status.st_mode);
}

int32_t isRootedPath(const char* path) {
  assert(path != nullptr);
  return path[0] == '/' || (strncmp(path, "../", 3) == 0 && path[3] != '\0');
}

int32_t changeOwner(const char* path, uint32_t user, uint32_t group) {
  assert(path != nullptr);
  if (::chown(path, user, group) == 0) return 1;
  const KeepErrno keep;
  logStream() << "File: ERROR! Can't change ownership of '" << path << "'.\n";
  logStream() << "File: ERROR! Error is " << keep.value << ", " << errorText(keep.value) << ".\n";
  return -1;
}

int32_t createPipe(int32_t (&fds)[2], int32_t size) {
  if (::pipe(fds) == -1) return -1;
  if (setPipeSize(fds[0], size) != -1) setPipeSize(fds[1], size);
  return 1;
}

int32_t setPipeSize(int32_t fd, int32_t size) {
  if (::fcntl(fd, F_SETPIPE_SZ, size) != -1) return 1;
  return errno == EINVAL ? 0 : -1;
}

int32_t bytesReadable(int32_t fd) {
  int32_t count;
  return bytesReadable(fd, &count) == -1 ? -1 : count;
}

int32_t bytesReadable(int32_t fd, int32_t* count) {
  assert(count != nullptr);
  return ::ioctl(fd, FIONREAD, count);
}

int32_t bytesWritable(int32_t fd) {
  logStream() << "File: WARNING! Can't query the bytes writable to FD#" << fd << ".\n";
  errno = ENOSYS;
  return -1;
}

char* readLine(int32_t fd, char* buffer, int32_t capacity) {
  assert(buffer != nullptr);
  if (capacity < 2) return nullptr;
  char* end = buffer;
  char* const last = buffer + capacity - 1;
  while (end < last && readByte(fd, *end)) {
    if (*end++ == '\n') break;
  }
  if (end == buffer) return nullptr;
  *end = '\0';
  return end;
}

int32_t writeString(int32_t fd, const char* text) {
  assert(text != nullptr);
  const auto length = static_cast<int32_t>(strlen(text));
  int32_t written = 0;
  while (written < length) {
    const ssize_t count = ::write(fd, text + written, static_cast<size_t>(length - written));
    if (count > 0) {
      written += static_cast<int32_t>(count);
    } else if (count == 0 || errno == EAGAIN) {
      return written;
    } else if (errno != EINTR) {
      return written > 0 ? written : -1;
    }
  }
  return written;
}

}  // namespace qora::file
