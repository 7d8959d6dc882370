#include "base/file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <memory>
#include <thread>

#include "base/logger.h"
#include "tests/base/temporary_directory.h"
#include "tests/support/captured_log.h"

namespace qora::file {
namespace {

struct Pipe {
  int32_t ends[2] = {-1, -1};
  Pipe() { EXPECT_EQ(createPipe(ends, 4096), 1); }
  ~Pipe() {
    ::close(ends[0]);
    closeWriter();
  }
  void closeWriter() {
    if (ends[1] != -1) ::close(ends[1]);
    ends[1] = -1;
  }
};

int32_t closedDescriptor() {
  const int32_t fd = ::dup(0);
  ::close(fd);
  return fd;
}

TEST(File, JoinsDirectoryAndName) {
  const struct {
    const char *dir, *name, *path;
  } cases[] = {
      {"dir", "name", "dir/name"}, {"dir/", "name", "dir//name"}, {"", "name", "name"},
      {nullptr, "/name", "/name"}, {"dir", "", nullptr},          {"dir", nullptr, nullptr},
  };
  for (const auto& c : cases) {
    const std::unique_ptr<char[]> path(joinPath(c.dir, c.name));
    EXPECT_STREQ(path.get(), c.path);
  }
}

TEST(File, TellsWhatAPathIs) {
  const test::TemporaryDirectory directory;
  directory.write("file", "12345");
  ::mkdir(directory.of("sub").c_str(), 0700);
  ::mkfifo(directory.of("fifo").c_str(), 0600);
  const struct {
    const char* name;
    int32_t exists, regular, isDirectory, accessible;
    int64_t size;
    int sizeError;
  } cases[] = {
      {"file", 1, 1, 0, 1, 5, 0},
      {"sub", 1, 0, 1, 1, -1, EINVAL},
      {"fifo", 1, 0, 0, 1, -1, EINVAL},
      {"missing", 0, 0, 0, 0, 0, ENOENT},
      {"", -1, -1, -1, 0, -1, EFAULT},
      {nullptr, -1, -1, -1, 0, -1, EFAULT},
      {"file/x", -1, -1, -1, 0, -1, ENOTDIR},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(orNil(c.name));
    const char* const dir = directory.path.c_str();
    EXPECT_EQ(exists(dir, c.name), c.exists);
    EXPECT_EQ(isRegularFile(dir, c.name), c.regular);
    EXPECT_EQ(isDirectory(dir, c.name), c.isDirectory);
    EXPECT_EQ(isAccessible(dir, c.name, R_OK), c.accessible);
    struct stat status {};
    EXPECT_EQ(statFile(dir, c.name, status), c.exists);
    EXPECT_EQ(isDirectoryMode(status), c.isDirectory == 1);
    errno = 0;
    EXPECT_EQ(fileSize(dir, c.name), c.size);
    EXPECT_EQ(errno, c.sizeError);
  }
  EXPECT_EQ(exists(nullptr, directory.path.c_str()), 1);
}

TEST(File, CannotTellBehindAClosedDirectory) {
  const test::TemporaryDirectory directory;
  ::mkdir(directory.of("closed").c_str(), 0);
  EXPECT_EXIT(
      {
        if (::geteuid() == 0 && ::setuid(65534) == -1) ::_exit(2);
        const std::string path = directory.of("closed/file");
        const bool unknown = exists(nullptr, path.c_str()) == -1 && errno == EACCES;
        ::_exit(unknown && isAccessible(nullptr, path.c_str(), F_OK) == 0 ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST(File, KnowsRootedPaths) {
  const std::pair<const char*, int32_t> cases[] = {
      {"/", 1}, {"../", 0}, {"../a", 1}, {"./a", 0}, {"..", 0}, {"", 0}, {"a/../b", 0},
  };
  for (const auto& [path, rooted] : cases) EXPECT_EQ(isRootedPath(path), rooted) << path;
}

TEST(File, ChangesTheOwner) {
  const test::TemporaryDirectory directory;
  EXPECT_EQ(changeOwner(directory.path.c_str(), ::getuid(), ::getgid()), 1);
  const test::CapturedLog log;
  EXPECT_EQ(changeOwner("/nowhere/file", 0, 0), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(log.withoutPrefixes(),
            "File: ERROR! Can't change ownership of '/nowhere/file'.\n"
            "File: ERROR! Error is 2, No such file or directory.\n");
}

TEST(File, MakesAPipeWhateverTheKernelSaysToItsSize) {
  int32_t ends[2];
  for (const int32_t size : {4096, 1 << 16, -1}) {
    ASSERT_EQ(createPipe(ends, size), 1);
    EXPECT_EQ(::fcntl(ends[1], F_GETPIPE_SZ), size > 0 ? size : 1 << 16);
    EXPECT_EQ(setPipeSize(ends[0], -1), 0);
    ::close(ends[0]);
    ::close(ends[1]);
  }
  EXPECT_EQ(setPipeSize(closedDescriptor(), 4096), -1);
}

TEST(File, CountsWaitingBytes) {
  const Pipe pipe;
  ASSERT_EQ(writeString(pipe.ends[1], "abc"), 3);
  int32_t count = 0;
  EXPECT_EQ(bytesReadable(pipe.ends[0]), 3);
  EXPECT_EQ(bytesReadable(pipe.ends[0], &count), 0);
  EXPECT_EQ(count, 3);
  EXPECT_EQ(bytesReadable(closedDescriptor()), -1);

  const test::CapturedLog log;
  EXPECT_EQ(bytesWritable(7), -1);
  EXPECT_EQ(errno, ENOSYS);
  EXPECT_EQ(log.withoutPrefixes(), "File: WARNING! Can't query the bytes writable to FD#7.\n");
}

TEST(File, ReadsLines) {
  const struct {
    const char *what, *input;
    int32_t capacity;
    const char* line;  // null: null is returned
    int error;
    const char* rest;
  } cases[] = {
      {"a line", "abc\ndef", 16, "abc\n", 0, "def"},
      {"an empty line", "\ndef", 16, "\n", 0, "def"},
      {"no room for the newline", "abc\n", 4, "abc", 0, "\n"},
      {"room for one byte", "abc", 2, "a", 0, "bc"},
      {"room for none", "abc", 1, nullptr, 0, "abc"},
      {"end of input inside a line", "abc", 16, "abc", EIO, ""},
      {"end of input at once", "", 16, nullptr, EIO, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Pipe pipe;
    writeString(pipe.ends[1], c.input);
    pipe.closeWriter();
    char buffer[16] = "";
    errno = 0;
    char* const end = readLine(pipe.ends[0], buffer, c.capacity);
    EXPECT_EQ(errno, c.error);
    ASSERT_EQ(end != nullptr, c.line != nullptr);
    if (end != nullptr) {
      EXPECT_STREQ(buffer, c.line);
      EXPECT_EQ(end, buffer + strlen(c.line));
    }
    char rest[16] = "";
    EXPECT_EQ(::read(pipe.ends[0], rest, sizeof rest), static_cast<ssize_t>(strlen(c.rest)));
    EXPECT_STREQ(rest, c.rest);
  }
  char buffer[4];
  EXPECT_EQ(readLine(closedDescriptor(), buffer, sizeof buffer), nullptr);
  EXPECT_EQ(errno, EBADF);
}

TEST(File, ReadsOnAfterASignal) {
  struct sigaction action {
  }, old;
  action.sa_handler = [](int) {};  // without SA_RESTART the read is interrupted
  ::sigaction(SIGUSR1, &action, &old);
  const Pipe pipe;
  std::thread writer([&pipe, reader = pthread_self()] {
    for (int i = 0; i < 20; ++i) {
      pthread_kill(reader, SIGUSR1);
      ::usleep(500);
    }
    writeString(pipe.ends[1], "abc\n");
  });
  char buffer[16];
  EXPECT_EQ(readLine(pipe.ends[0], buffer, sizeof buffer), buffer + 4);
  writer.join();
  ::sigaction(SIGUSR1, &old, nullptr);
}

TEST(File, WritesAsMuchAsThePipeTakes) {
  const Pipe pipe;
  EXPECT_EQ(setNonBlocking(pipe.ends[1], 1), 1);
  EXPECT_EQ(setNonBlocking(pipe.ends[1], 1), 1);
  EXPECT_EQ(writeString(pipe.ends[1], ""), 0);
  const std::string text(4100, 'x');
  EXPECT_EQ(writeString(pipe.ends[1], text.c_str()), 4096);
  EXPECT_EQ(writeString(pipe.ends[1], text.c_str()), 0);
  EXPECT_EQ(setNonBlocking(pipe.ends[1], 0), 1);
  EXPECT_EQ(::fcntl(pipe.ends[1], F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(writeString(closedDescriptor(), "x"), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST(File, ForwardsDescriptorSettingsToTheSocketFamily) {
  const Pipe pipe;
  for (const int32_t value : {1, 0}) {
    EXPECT_EQ(setNoInherit(pipe.ends[0], value), 1);
    EXPECT_EQ(::fcntl(pipe.ends[0], F_GETFD), value);
  }
  const test::CapturedLog log;
  EXPECT_EQ(setNonBlocking(-1, 1), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(setNoInherit(-1, 0), -1);
  EXPECT_EQ(errno, EBADF);
  const std::string reason = ". Error is 9 'Bad file descriptor'.\n";
  const std::string first = "Can't set non-blocking mode on FD#-1 to 1" + reason;
  const std::string second = "Can't set no-inherit mode on FD#-1 to 0" + reason;
  EXPECT_EQ(log.withoutPrefixes(), "Socket: ERROR! " + first + "Error: " + first +
                                       "Socket: ERROR! " + second + "Error: " + second);
}

}  // namespace
}  // namespace qora::file
