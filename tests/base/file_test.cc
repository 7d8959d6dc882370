// SPDX-License-Identifier: BSD-2-Clause
#include "qora/base/file.h"

#include <fcntl.h>
#include <sys/resource.h>

#include "tests/base/calls.h"
#include "tests/support/temporary_root.h"

namespace qora::file {
namespace {

using test::Script;

TEST(File, WhatPathsAre) {
  GIVES("dir/name", test::take(joinPath("dir", "name")));
  GIVES("dir//name", test::take(joinPath("dir/", "name")));
  GIVES("name", test::take(joinPath("", "name")));
  GIVES("null", test::take(joinPath("dir", "")));
  for (const char* path : {"/", "/a", "../a"}) EXPECT_EQ(isRootedPath(path), 1) << path;
  for (const char* path : {"", "../", "./a", "..a/"}) EXPECT_EQ(isRootedPath(path), 0) << path;

  const test::TemporaryRoot root;
  const char* const dir = root.path().c_str();
  const std::string file = root.path() + "/file", fifo = root.path() + "/fifo";
  std::ofstream{file};
  ASSERT_EQ(::truncate(file.c_str(), 5000000000) + ::mkfifo(fifo.c_str(), 0600), 0);
  const struct {
    const char *dir, *name, *exists, *isRegular, *isDirectory, *size, *isAccessible;
  } rows[] = {
      {dir, "file", "1", "1", "0", "5000000000", "1"},
      {dir, "fifo", "1", "0", "0", "-1 EINVAL", "1"},
      {"", dir, "1", "0", "1", "-1 EINVAL", "1"},
      {nullptr, dir, "1", "0", "1", "-1 EINVAL", "1"},
      {dir, "none", "0 ENOENT", "0 ENOENT", "0 ENOENT", "0 ENOENT", "0 ENOENT"},
      {file.c_str(), "x", "-1 ENOTDIR", "-1 ENOTDIR", "-1 ENOTDIR", "-1 ENOTDIR", "0 ENOTDIR"},
      {"/", "", "-1 EFAULT", "-1 EFAULT", "-1 EFAULT", "-1 EFAULT", "0 EFAULT"},
      {"/", nullptr, "-1 EFAULT", "-1 EFAULT", "-1 EFAULT", "-1 EFAULT", "0 EFAULT"},
  };
  for (const auto& row : rows) {
    GIVES(row.exists, exists(row.dir, row.name));
    GIVES(row.isRegular, isRegularFile(row.dir, row.name));
    GIVES(row.isDirectory, isDirectory(row.dir, row.name));
    GIVES(row.size, fileSize(row.dir, row.name));
    GIVES(row.isAccessible, isAccessible(row.dir, row.name, R_OK));
  }
  struct stat status;
  for (const auto& [name, type] : {std::pair("file", 1), std::pair(".", 0), std::pair("fifo", -1)}) {
    EXPECT_EQ(statFile(dir, name, status), 1);
    EXPECT_EQ(fileType(status), type);
    EXPECT_EQ(isDirectoryMode(status), type == 0);
  }
  GIVES("0 EACCES", isAccessible(dir, "file", X_OK));
  GIVES("1", changeOwner(file.c_str(), uint32_t(-1), uint32_t(-1)));
  GIVES(
      "-1 ENOENT\n| File: ERROR! Can't change ownership of '/nowhere/file'.\n"
      "| File: ERROR! Error is 2, No such file or directory.\n",
      changeOwner("/nowhere/file", 0, 0));
}

struct Pipe : testing::Test {
  int32_t ends[2] = {-1, -1};
  Pipe() { EXPECT_EQ(createPipe(ends, 4096), 1); }
  ~Pipe() { ::close(ends[0]), ::close(ends[1]); }
  // What readLine() read; "#": nothing, and the buffer is as it was.
  std::string line(int32_t fd, int32_t capacity) {
    char buffer[] = "################";
    const char* const end = readLine(fd, buffer, capacity);
    return end == nullptr || (end == buffer + strlen(buffer) && end[1] == '#') ? buffer : "wrong end";
  }
};

TEST_F(Pipe, Lines) {
  const std::string nothing(16, '#');
  ASSERT_EQ(writeString(ends[1], "abc\ndef\n\nlonger"), 15);
  int32_t count = 0;
  EXPECT_EQ(bytesReadable(ends[0]), 15);
  EXPECT_EQ(bytesReadable(ends[0], &count) + count, 15);
  GIVES("abc\n", line(ends[0], 15));
  GIVES("def", line(ends[0], 4));
  GIVES("\n", line(ends[0], 2));
  GIVES(nothing, line(ends[0], 1));
  const Script script({{"read", -1, EINTR}, {"read", -1, ENXIO}});
  GIVES(nothing + " ENXIO", line(ends[0], 15));  // not EINTR
  GIVES("\n", line(ends[0], 2));
  ::close(std::exchange(ends[1], -1));
  GIVES("longer EIO", line(ends[0], 15));
  GIVES(nothing + " EIO", line(ends[0], 15));
  GIVES(nothing + " EBADF", line(-1, 15));
}

TEST_F(Pipe, TextsAreWrittenOnFromWhereTheyStopped) {
  const struct {
    std::vector<test::Answer> answers;
    const char *gives, *written;
  } rows[] = {{{{"write", 3}, {"write", -1, EINTR}, {"write", 5}}, "8 EINTR", "abcdefgh"},
      {{{"write", -1, EINTR}, {"write", 2}, {"write", -1, EAGAIN}}, "2 EAGAIN", "ab"},
      {{{"write", 1}, {"write", 0}}, "1", "a"}, {{{"write", 4}, {"write", -1, EIO}}, "4 EIO", "abcd"},
      {{{"write", -1, EAGAIN}}, "0 EAGAIN", ""}, {{{"write", -1, EIO}}, "-1 EIO", ""}};
  for (const auto& row : rows) {
    const Script script(row.answers);
    GIVES(row.gives, writeString(ends[1], "abcdefgh"));
    EXPECT_EQ(script.written, row.written);
  }
  GIVES("0", writeString(-1, ""));
}

TEST_F(Pipe, DescriptorsAndTheirFailures) {
  int32_t count = 0, other[2] = {-1, -1};
  for (const int32_t on : {1, 1, 0, 0}) {
    GIVES("1", setNonBlocking(ends[1], on));
    EXPECT_EQ(::fcntl(ends[1], F_GETFL), O_WRONLY | (on ? O_NONBLOCK : 0));
    GIVES("1", setNoInherit(ends[1], on));
    EXPECT_EQ(::fcntl(ends[1], F_GETFD), on);
  }
  EXPECT_EQ(::fcntl(ends[1], F_GETPIPE_SZ), 4096);
  GIVES("1", setPipeSize(ends[0], 8192));
  GIVES("0 EINVAL", setPipeSize(ends[0], -1));
  GIVES("1 EINVAL", createPipe(other, -1));  // whatever the kernel says to the size
  GIVES("0", ::close(other[0]) + ::close(other[1]));
  GIVES("-1 EBADF", setPipeSize(-1, 4096));
  GIVES("-1 EBADF", bytesReadable(-1));
  GIVES("-1 EBADF", bytesReadable(-1, &count));
  GIVES("-1 ENOSYS\n| File: WARNING! Can't query the bytes writable to FD#7.\n", bytesWritable(7));
  test::inChild([&] {
    const rlimit none = {0, 0};
    ::setrlimit(RLIMIT_NOFILE, &none);
    GIVES("-1 EMFILE", createPipe(other, 4096));
  });
}

}  // namespace
}  // namespace qora::file
