// The program from outside: what it says, how it ends, what it leaves behind.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <regex>

#include "tests/support/table.h"
#include "tests/support/temporary_root.h"

namespace qora::test {
namespace {

void write(const std::string& name, const std::string& content) {
  std::ofstream(name) << content;
}
std::string read(const std::string& name) {
  std::ifstream file(name);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Runs in a folder of its own; a service that outlives the tool becomes our child.
class QoraEncodeTest : public testing::Test {
 protected:
  QoraEncodeTest() {
    unsetenv("QORA_SYSTEM");
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    std::filesystem::current_path(folder_.path());
  }
  ~QoraEncodeTest() override {
    prctl(PR_SET_CHILD_SUBREAPER, 0);
    std::filesystem::current_path("/");
  }

  void start(const std::string& arguments) {
    const std::string command = "exec " QORA_ENCODE " " + arguments + " </dev/null 2>said";
    tool_ = fork();
    if (tool_ == 0) execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
  }
  // The exit status, and what stood on standard error.
  std::string end() {
    int status = 0;
    waitpid(tool_, &status, 0);
    EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD) << "a child is left";
    const std::string own = "$5 == " + std::to_string(tool_);  // segments that the tool made
    EXPECT_EQ(0, std::system(("awk '" + own + " {exit 1}' /proc/sysvipc/shm").c_str()));
    return std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1) + " " + read("said");
  }
  std::string run(const std::string& arguments) {
    start(arguments);
    return end();
  }

  const TemporaryRoot folder_;
  pid_t tool_ = -1;
};

// A clip of 48x32: grey, grey once more, then a frame with one changed macroblock.
std::string clip(const char* header, const char* frame) {
  const std::string grey(48 * 32 * 3 / 2, '\x80');
  std::string dotted = grey;
  dotted[20 * 48 + 40] = '\x10';
  return header + (frame + grey) + frame + grey + frame + dotted;
}

TEST_F(QoraEncodeTest, EncodesAClipInSeveralStreams) {
  write("clip", clip("YUV4MPEG2 W48 H32 F50:1 C420jpeg\n", "FRAME Ip\n"));
  write("raw", clip("", ""));
  std::string said = run("clip -o out.264 --streams 2 --stats out.csv");
  EXPECT_TRUE(std::regex_match(
      said, std::regex("0 encoded 3 frames, .*2 streams, 38.9% of the macroblocks changed\n")))
      << said;
  EXPECT_EQ(read("out.264"), read("out.1.264"));
  // Sizes, quantizers and times differ from library to library.
  const std::regex varying(",\\d+,\\d+,\\d+,\\d+\\.\\d{3},");
  EXPECT_EQ(
      "stream,frame,type,bytes,quantizer,encode_ms,round_trip_ms,changed_macroblocks\n"
      "0,0,I,6\n1,0,I,6\n0,1,P,0\n1,1,P,0\n0,2,P,1\n1,2,P,1\n",
      std::regex_replace(read("out.csv"), varying, ","));
  EXPECT_EQ("0 ", run("raw --size 48x32 -o raw.264 --quiet"));
  EXPECT_EQ(read("out.264"), read("raw.264"));
  said = run("clip --skip-unchanged -o few.264 --stats few.csv");
  EXPECT_NE(std::string::npos, said.find(", 1 of them skipped, 38.9%")) << said;
  EXPECT_EQ(std::string::npos, read("few.csv").find("\n1,"));
  EXPECT_TRUE(run("clip --frames 2 --no-rectangles -o short").starts_with("0 encoded 2 frames, "));
}

TEST_F(QoraEncodeTest, EndsWithOneLineOnBadInput) {
  const std::string whole = clip("YUV4MPEG2 W48 H32 F50:1 C420jpeg\n", "FRAME Ip\n");
  for (const auto& row : readTable(TABLES "bad_clips.table")) {
    const std::string text = std::regex_replace(row[1], std::regex("~"), "\n");
    write(row[0], row.size() == 2 ? text : whole.substr(0, std::stoul(row[2])));
  }
  std::filesystem::create_symlink(SCRIPTED_PEER, "PEER");
  setenv("PEER_SCRIPT", "half 22", 1);
  for (const auto& row : readTable(TABLES "bad_inputs.table")) {
    EXPECT_EQ(row[1].substr(0, 2) + "qora-encode: " + row[1].substr(2) + "\n", run(row[0]));
  }
  EXPECT_EQ(whole, read("clip"));
}

TEST_F(QoraEncodeTest, FinishesItsFrameWhenInterrupted) {
  start("/dev/zero --size 48x32 -o out --stats csv");
  while (read("csv").empty()) {  // a clip without end, until the first figures are in the file
    ASSERT_EQ(0, waitpid(tool_, nullptr, WNOHANG));
    usleep(5000);
  }
  kill(tool_, SIGINT);
  const std::string said = end();
  EXPECT_TRUE(said.starts_with("1 qora-encode: interrupted after ")) << said;
  EXPECT_EQ('\n', read("csv").back());
}

}  // namespace
}  // namespace qora::test
