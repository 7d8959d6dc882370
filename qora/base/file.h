// SPDX-License-Identifier: BSD-2-Clause
// qora/base/file.h -- Questions about paths, and small operations on descriptors. No state, any
// thread. A path comes as a directory and a name; the directory may be null or empty, the name is
// then the whole path. Results: 1 yes or done, 0 no, -1 unknown or not done, with the system's
// errno. An empty or null name is no path at all: -1 with EFAULT. Nothing else may be null.
#pragma once

#include <sys/stat.h>

#include <cstdint>

#include "qora/base/socket.h"

namespace qora::file {

// A new array with dir + "/" + name, the caller's to delete[]; null for a null or empty name, and
// with ENOMEM when there is no memory.
[[nodiscard]] char* joinPath(const char* dir, const char* name);

// Fills `status`: 1; 0 (ENOENT) when there is no such path; -1 on any other failure.
int32_t statusOf(const char* path, struct stat& status);
int32_t statFile(const char* dir, const char* name, struct stat& status);

int32_t exists(const char* dir, const char* name);
int32_t isRegularFile(const char* dir, const char* name);
int32_t isDirectory(const char* dir, const char* name);
// Bytes of a regular file, 0 when it is missing; EINVAL when the path is something else.
int64_t fileSize(const char* dir, const char* name);
// `mode` as for access(2). 1, or 0 with errno for every refusal, a missing file and an empty name
// (EFAULT) among them; never -1.
int32_t isAccessible(const char* dir, const char* name, int32_t mode);

// 1 regular file, 0 directory, -1 anything else.
int32_t fileType(const struct stat& status);
int32_t isDirectoryMode(const struct stat& status);
// Whether the path begins with "/", or with "../" and more after that.
int32_t isRootedPath(const char* path);
// 1, or -1 after two lines on the log stream.
int32_t changeOwner(const char* path, uint32_t user, uint32_t group);

// Makes a pipe and tries to give it room for `size` bytes; whether the kernel agrees to the size
// does not matter to the result. 1, or -1 with `fds` as they were.
int32_t createPipe(int32_t (&fds)[2], int32_t size);
// 0 when the kernel refuses the size or cannot change it.
int32_t setPipeSize(int32_t fd, int32_t size);
using socket::bytesQueued;
using socket::setNoInherit;
using socket::setNonBlocking;

// Bytes that wait to be read; the second form stores them and returns what ioctl(2) returned.
int32_t bytesReadable(int32_t fd);
int32_t bytesReadable(int32_t fd, int32_t* count);
// There is no call for it: always -1 with ENOSYS and a warning on the log stream.
int32_t bytesWritable(int32_t fd);

// Reads up to and including a newline, at most capacity - 1 bytes, one by one so that nothing
// after the line is taken. Returns where the NUL after the last byte stands, null when nothing was
// read; errno says why the line stopped short: the system's, EIO at the end of input. A capacity
// below 2 has no room for a byte and a NUL: null at once, nothing read or written, errno untouched.
char* readLine(int32_t fd, char* buffer, int32_t capacity);
// The bytes written, fewer when the descriptor would block (EAGAIN, also before the first) or fails
// on the way; -1 when it failed before the first. A signal does not stop it.
int32_t writeString(int32_t fd, const char* text);

}  // namespace qora::file
