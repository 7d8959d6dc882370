// The program from outside: what it says, how it ends, what it leaves behind.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "base/process.h"
#include "tests/support/service_process.h"

namespace qora::test {
namespace {

class QoraEncodeTest : public testing::Test {
 protected:
  QoraEncodeTest() {
    unsetenv("QORA_SYSTEM");
    prctl(PR_SET_CHILD_SUBREAPER, 1);  // a service that outlives the tool becomes our child
  }
  ~QoraEncodeTest() override { prctl(PR_SET_CHILD_SUBREAPER, 0); }

  std::string path(const std::string& name) const { return folder_.path() + "/" + name; }
  std::string write(const std::string& name, const std::string& content) const {
    std::ofstream(path(name)) << content;
    return path(name);
  }
  std::string read(const std::string& name) const {
    std::stringstream content;
    content << std::ifstream(path(name)).rdbuf();
    return content.str();
  }

  void start(const std::vector<std::string>& words) {
    std::vector<const char*> program = {QORA_ENCODE, "qora-encode"};
    for (const std::string& word : words) program.push_back(word.c_str());
    program.push_back(nullptr);
    error_ = memfd_create("error", MFD_CLOEXEC);
    const int input = open("/dev/null", O_RDONLY | O_CLOEXEC);
    tool_ = process::createProcess(nullptr, program.data(), nullptr, input, -1, error_, 0, 1);
    close(input);
  }
  // The exit status; standardError_ has our folder as DIR.
  int end() {
    int status = 0;
    waitpid(tool_, &status, 0);
    standardError_.resize(static_cast<size_t>(lseek(error_, 0, SEEK_END)));
    EXPECT_NE(-1, pread(error_, standardError_.data(), standardError_.size(), 0));
    close(error_);
    for (size_t at; (at = standardError_.find(folder_.path())) != std::string::npos;) {
      standardError_.replace(at, folder_.path().size(), "DIR");
    }
    EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD) << "a child is left";
    EXPECT_FALSE(madeASegment(tool_)) << "a segment is left";
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  int run(const std::vector<std::string>& words) {
    start(words);
    return end();
  }

  static bool madeASegment(pid_t tool) {
    std::ifstream list("/proc/sysvipc/shm");
    std::string line;
    for (std::getline(list, line); std::getline(list, line);) {
      long key, id, mode, size, creator;
      std::istringstream(line) >> key >> id >> mode >> size >> creator;
      if (creator == tool) return true;
    }
    return false;
  }

  const TemporaryRoot folder_;
  pid_t tool_ = -1;
  int error_ = -1;
  std::string standardError_;
};

// A clip of 48x32: grey, grey once more, then a frame with one changed macroblock.
std::string clip(const char* header, const char* frame) {
  const std::string grey(48 * 32 * 3 / 2, '\x80');
  std::string dotted = grey;
  dotted[20 * 48 + 40] = '\x10';
  return header + (frame + grey) + frame + grey + frame + dotted;
}
std::string y4mClip() {
  return clip("YUV4MPEG2 W48 H32 F50:1 C420jpeg\n", "FRAME Ip\n");
}

TEST_F(QoraEncodeTest, EncodesAClipInSeveralStreams) {
  ASSERT_EQ(0, run({write("clip.y4m", y4mClip()), "-o", path("out.264"), "--streams", "2",
                    "--stats", path("out.csv")}));
  EXPECT_TRUE(standardError_.starts_with("encoded 3 frames, ")) << standardError_;
  EXPECT_TRUE(standardError_.ends_with("2 streams, 38.9% of the macroblocks changed\n"));
  EXPECT_TRUE(read("out.264").starts_with(std::string("\0\0\0\1", 4)));
  EXPECT_EQ(read("out.264"), read("out.1.264"));

  std::istringstream stats(read("out.csv"));
  std::string line;
  std::getline(stats, line);
  EXPECT_EQ("stream,frame,type,bytes,quantizer,encode_ms,round_trip_ms,changed_macroblocks", line);
  const char* const rows[][2] = {{"0,0,I,", ",6"}, {"1,0,I,", ",6"}, {"0,1,P,", ",0"},
                                 {"1,1,P,", ",0"}, {"0,2,P,", ",1"}, {"1,2,P,", ",1"}};
  for (const auto& [begin, end] : rows) {
    std::getline(stats, line);
    EXPECT_TRUE(line.starts_with(begin) && line.ends_with(end)) << line;
  }
  EXPECT_FALSE(std::getline(stats, line));

  // Raw pictures give the same, and --frames ends early.
  ASSERT_EQ(0, run({write("clip.yuv", clip("", "")), "--size", "48x32", "-o", path("raw.264"),
                    "--quiet"}));
  EXPECT_EQ("", standardError_);
  EXPECT_EQ(read("out.264"), read("raw.264"));
  ASSERT_EQ(0, run({path("clip.y4m"), "--frames", "2", "--no-rectangles", "-o", path("2.264")}));
  EXPECT_TRUE(standardError_.starts_with("encoded 2 frames, ")) << standardError_;
}

TEST_F(QoraEncodeTest, EndsWithOneLineOnBadInput) {
  const std::string whole = write("clip.y4m", y4mClip());
  const std::string out = path("out.264");
  setenv("PEER_SCRIPT", "half 22", 1);
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{path("none"), "-o", out}, "DIR/none: No such file or directory"},
      {{folder_.path(), "-o", out}, "DIR: Is a directory"},
      {{"-", "-o", out}, "standard input: the input is empty"},
      {{write("text", "hi"), "-o", out}, "DIR/text: not a Y4M clip; a raw I420 one needs --size"},
      {{write("open", "YUV4MPEG2 W48"), "-o", out}, "DIR/open: the Y4M header has no end"},
      {{write("deep", "YUV4MPEG2 W48 H32 C420p10\nFRAME\n"), "-o", out},
       "DIR/deep: only 8-bit 4:2:0 can be encoded, not colour format 'C420p10'"},
      {{write("odd", "YUV4MPEG2 W47 H32\nFRAME\n"), "-o", out},
       "DIR/odd: 4:2:0 needs an even width and height, not 47x32"},
      {{write("bare", "YUV4MPEG2 W48 H32\n"), "-o", out}, "DIR/bare: the clip has no frame"},
      {{write("lost", "YUV4MPEG2 W48 H32\nFRAMES\n"), "-o", out},
       "DIR/lost: frame 0 does not begin with FRAME"},
      {{write("cut", y4mClip().substr(0, 6900)), "-o", out}, "DIR/cut: frame 2 is cut off"},
      {{write("torn", y4mClip().substr(0, 2350)), "-o", out}, "DIR/torn: frame 1 is cut off"},
      {{write("raw", "rgb"), "-o", out, "--size", "48x32"}, "DIR/raw: frame 0 is cut off"},
      {{whole, "-o", whole}, "DIR/clip.y4m: would overwrite the input"},
      {{whole, "-o", path("no/out")}, "DIR/no/out: No such file or directory"},
      {{whole, "-o", "/dev/full"}, "/dev/full: No space left on device"},
      {{whole, "-o", out, "--codec-root", "/etc"},
       "no encoder library in codec root '/etc': neither lib/libx264.so nor codec/lib/libx264.so "
       "is there"},
      {{whole, "-o", out, "--service", "/none"},
       "cannot start the service /none: No such file or directory"},
      {{whole, "-o", out, "--service", SCRIPTED_PEER},
       "service ended with status 22: malformed message"}};
  for (const auto& [words, line] : cases) {
    EXPECT_EQ(1, run(words));
    EXPECT_EQ("qora-encode: " + std::string(line) + "\n", standardError_);
  }
  EXPECT_EQ(2, run({whole}));
  EXPECT_EQ("qora-encode: no output is named, use -o FILE (see --help)\n", standardError_);
  EXPECT_EQ(y4mClip(), read("clip.y4m"));
}

TEST_F(QoraEncodeTest, FinishesItsFrameWhenInterrupted) {
  start({"/dev/zero", "--size", "48x32", "-o", path("out.264"), "--stats", path("out.csv")});
  std::error_code none;  // a clip without end, until the first figures are in the file
  while (std::filesystem::file_size(path("out.csv"), none) + 1 <= 1) {
    ASSERT_EQ(0, waitpid(tool_, nullptr, WNOHANG));
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  kill(tool_, SIGINT);
  EXPECT_EQ(1, end());
  EXPECT_TRUE(standardError_.starts_with("qora-encode: interrupted after ")) << standardError_;
  EXPECT_EQ('\n', read("out.csv").back());
}

}  // namespace
}  // namespace qora::test
