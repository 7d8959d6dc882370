#include <gtest/gtest.h>
#include <link.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include "base/file.h"
#include "base/library.h"
#include "tests/base/seen.h"
#include "tests/support/captured_log.h"

namespace qora {
namespace {

using test::Seen;

struct Pipe {
  int32_t ends[2] = {-1, -1};
  explicit Pipe(int32_t size = 4096) { EXPECT_EQ(file::createPipe(ends, size), 1); }
  ~Pipe() {
    ::close(ends[0]);
    ::close(ends[1]);
  }
};

TEST(File, JoinsPathsAndKnowsRootedOnes) {
  const char* const joined[][3] = {{"dir", "name", "dir/name"}, {"dir/", "name", "dir//name"},
                                   {"", "name", "name"},        {nullptr, "/name", "/name"},
                                   {"dir", "", nullptr},        {"dir", nullptr, nullptr}};
  for (const auto& [dir, name, path] : joined) {
    EXPECT_STREQ(std::unique_ptr<char[]>(file::joinPath(dir, name)).get(), path);
  }
  for (const char* path : {"/", "../a"}) EXPECT_EQ(file::isRootedPath(path), 1) << path;
  for (const char* path : {"../", "./a", "..", ""}) EXPECT_EQ(file::isRootedPath(path), 0) << path;
}

TEST(File, TellsWhatAPathIs) {
  std::string path = (std::filesystem::temp_directory_path() / "base-XXXXXX").string();
  ASSERT_NE(mkdtemp(path.data()), nullptr);
  const char* const dir = path.c_str();
  std::ofstream(path + "/file").close();
  std::filesystem::resize_file(path + "/file", 5000000000);
  ::mkfifo((path + "/fifo").c_str(), 0600);
  const char* const cases[][2] = {
      // exists, regular file, directory, accessible, size, errno
      {"file", "1 1 0 1 5000000000 0"}, {".", "1 0 1 1 -1 22"},     {"fifo", "1 0 0 1 -1 22"},
      {"file/x", "-1 -1 -1 0 -1 20"},   {"missing", "0 0 0 0 0 2"}, {"", "-1 -1 -1 0 -1 14"},
      {nullptr, "-1 -1 -1 0 -1 14"},
  };
  errno = 0;
  for (const auto& [name, facts] : cases) {
    const Seen seen{file::exists(dir, name), file::isRegularFile(dir, name),
                    file::isDirectory(dir, name)};
    const Seen more{file::isAccessible(dir, name, R_OK), file::fileSize(dir, name), errno};
    EXPECT_EQ(seen.text + " " + more.text, facts);
    errno = 0;
  }
  EXPECT_EQ(file::exists(nullptr, dir), 1);
  ::chmod(dir, 0);
  EXPECT_EXIT(  // in a child, for root finds its way into a closed directory
      ::_exit((::geteuid() != 0 || ::setuid(65534) == 0) && file::exists(dir, "file") == -1 &&
              errno == EACCES),
      testing::ExitedWithCode(1), "");
  ::chmod(dir, 0700);
  std::filesystem::remove_all(path);
}

TEST(File, ReadsLines) {
  const struct {
    const char* input;
    int32_t capacity;
    const char* facts;  // the line, its length, errno, bytes left
  } cases[] = {
      {"abc\ndef", 16, "abc\n 4 0 3"},
      {"\ndef", 16, "\n 1 0 3"},
      {"abc\n", 4, "abc 3 0 1"},
      {"abc", 2, "a 1 0 2"},
      {"abc", 16, "abc 3 5 0"},
      {"abc", 1, " -1 0 3"},
      {"", 16, " -1 5 0"},
  };
  for (const auto& c : cases) {
    Pipe pipe;
    file::writeString(pipe.ends[1], c.input);
    ::close(std::exchange(pipe.ends[1], -1));
    char buffer[16] = "";
    errno = 0;
    char* const end = file::readLine(pipe.ends[0], buffer, c.capacity);
    const Seen seen{buffer, end != nullptr ? end - buffer : -1, errno};
    EXPECT_EQ(seen.text + " " + Seen{file::bytesReadable(pipe.ends[0])}.text, c.facts);
  }
}

TEST(File, WritesAsMuchAsFits) {
  const Pipe pipe(4096), refused(-1);  // a pipe all the same
  EXPECT_EQ(file::setPipeSize(refused.ends[0], -1), 0);
  EXPECT_EQ(file::setNonBlocking(pipe.ends[1], 1), 1);
  const std::string text(4100, 'x');
  EXPECT_EQ(file::writeString(pipe.ends[1], text.c_str()), 4096);
  EXPECT_EQ(file::writeString(pipe.ends[1], text.c_str()), 0);
}

TEST(File, TellsFailures) {
  const test::CapturedLog log;
  const Seen told{file::changeOwner("/nowhere/file", 0, 0), errno, file::bytesWritable(7), errno};
  const Seen silent{file::writeString(-1, "x"), file::bytesReadable(-1), file::setPipeSize(-1, 1)};
  EXPECT_EQ(told.text + ", " + silent.text, "-1 2 -1 38, -1 -1 -1");
  EXPECT_EQ(log.withoutPrefixes(),
            "File: ERROR! Can't change ownership of '/nowhere/file'.\n"
            "File: ERROR! Error is 2, No such file or directory.\n"
            "File: WARNING! Can't query the bytes writable to FD#7.\n");
}

TEST(Library, TellsWhatTheLoaderRefuses) {
  const test::CapturedLog log;
  void* const handle = library::open("libc.so.6");  // stays loaded: a close too many is refused
  ASSERT_NE(handle, nullptr);
  EXPECT_NE(library::resolve(handle, "getpid"), nullptr);
  const Seen silent{library::open("/nowhere"), errno, library::open("/proc/self/maps"), errno};
  EXPECT_EQ(silent.text + log.text(), "0 2 0 2");
  const Seen missing{library::resolve(handle, "no_such"), errno, library::close(handle)};
  const Seen told{library::close(handle), errno, library::open(nullptr), errno};
  EXPECT_EQ(missing.text + ", " + told.text, "0 42 0, -1 42 0 22");
  const std::string path = static_cast<link_map*>(handle)->l_name;
  EXPECT_EQ(log.withoutPrefixes(),
            "Library: WARNING! Could not resolve symbol 'no_such'.\n"
            "Library: WARNING! Error is '" +
                path +
                ": undefined symbol: no_such'\n"
                "Library: WARNING! Could not close library " +
                Seen{handle}.text +
                ".\n"
                "Library: WARNING! Error is '" +
                path +
                ": shared object not open'.\n"
                "Library: ERROR! Invalid libary path 'nil'.\n");
}

}  // namespace
}  // namespace qora
