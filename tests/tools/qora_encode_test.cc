// SPDX-License-Identifier: BSD-2-Clause
// The program from outside: what it says, how it ends, what it leaves behind.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <regex>

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

// Files: their content, or how many bytes of the good clip.
constexpr std::tuple<const char*, const char*, size_t> kClips[] = {
    {"clip", nullptr, 9999},
    {"cut", nullptr, 6900},
    {"torn", nullptr, 2350},
    {"empty", "", 0},
    {"text", "hi", 0},
    {"open", "YUV4MPEG2 W48 H32", 0},
    {"bare", "YUV4MPEG2 W48 H32\n", 0},
    {"lost", "YUV4MPEG2 W48 H32\nFRAMES\n", 0},
    {"deep", "YUV4MPEG2 W48 H32 C420p10\nFRAME\n", 0},
};

// Arguments, and the status and the one line that they give.
constexpr std::pair<const char*, std::string_view> kBadInputs[] = {
    {"none -o out", "1 none: No such file or directory"},
    {"- -o out", "1 standard input: the input is empty"},
    {"empty -o out", "1 empty: the input is empty"},
    {"text -o out", "1 text: not a Y4M clip; a raw I420 one needs --size"},
    {"open -o out", "1 open: the Y4M header has no end"},
    {"deep -o out", "1 deep: only 8-bit 4:2:0 can be encoded, not colour format 'C420p10'"},
    {"bare -o out", "1 bare: the clip has no frame"},
    {"lost -o out", "1 lost: frame 0 does not begin with FRAME"},
    {"cut -o out", "1 cut: frame 2 is cut off; frames kept in out: 2"},
    {"torn -o out", "1 torn: frame 1 is cut off; frames kept in out: 1"},
    {"clip -o out --size 48x32", "1 clip: a Y4M clip; --size is for raw I420 ones"},
    {"text -o out --size 48x32", "1 text: frame 0 is cut off"},
    {"clip -o clip", "1 clip: would overwrite the input"},
    {"clip -o old --stats ./old", "1 ./old: two outputs are this file"},
    {"clip -o old --stats twin", "1 twin: two outputs are this file"},
    {"clip -o new --stats ./new", "1 ./new: two outputs are this file"},
    {"clip -o - --stats old >>old", "1 old: two outputs are this file"},
    {"clip -o - --streams 2", "2 standard output takes one stream (see --help)"},
    {"/dev/zero --size 48x32 --fps 1001 -o x.mkv",
     "1 x.mkv: a movie has no more than 1000 frames a second"},
    {"clip -o x.mp4 --moves", "2 players of movies cannot follow --moves (see --help)"},
    {"clip -o no/out", "1 no/out: No such file or directory"},
    {"clip -o /dev/full", "1 /dev/full: No space left on device"},
    {"clip -o out --stats /dev/full", "1 /dev/full: No space left on device"},
    {"clip -o out --codec-root /etc",
     "1 no encoder library in codec root '/etc': neither lib/libx264.so nor codec/lib/libx264.so "
     "is there"},
    {"clip -o out --service none", "1 cannot start the service none: No such file or directory"},
    {"clip -o out --service PEER",
     "1 service ended with status 22: it refused a command, or cannot load its encoder library"},
    {"clip", "2 no output is named, use -o FILE (see --help)"},
};

// A clip of 48x32: grey, grey once more, then a frame with one changed macroblock.
std::string clip(const char* header, const char* frame) {
  const std::string grey(48 * 32 * 3 / 2, '\x80');
  std::string dotted = grey;
  dotted[20 * 48 + 40] = '\x10';
  return header + (frame + grey) + frame + grey + frame + dotted;
}

TEST_F(QoraEncodeTest, EncodesAClipInSeveralStreams) {
  write("clip", clip("YUV4MPEG2 W48 H32 F60000:1001\n", "FRAME Ip\n"));
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
  EXPECT_EQ("0 ", run("clip -o - --quiet >piped.264"));
  EXPECT_EQ(read("out.264"), read("piped.264"));
  EXPECT_EQ("0 ", run("raw --size 48x32 --fps 60000/1001 -o raw.264 --quiet"));
  EXPECT_EQ(read("out.264"), read("raw.264"));
  said = run("clip --skip-unchanged -o few.264 --stats few.csv");
  EXPECT_NE(std::string::npos, said.find(", 1 of them skipped, 38.9%")) << said;
  EXPECT_EQ(std::string::npos, read("few.csv").find("\n1,"));
  EXPECT_TRUE(run("clip --frames 2 --no-rectangles -o short").starts_with("0 encoded 2 frames, "));
}

// A clip's header, arguments, and what a player learns: aspect, range, colours, chroma, rate.
constexpr std::tuple<const char*, const char*, const char*> kFacts[] = {
    {"F30000:1001 A4:3 C420jpeg XCOLORRANGE=FULL", "--colour srgb",
     "4:3,pc,bt709,iec61966-2-1,bt709,center,30000/1001\n"},
    {"F50:1 C420mpeg2", "--colour bt601", "1:1,tv,smpte170m,smpte170m,smpte170m,left,50/1\n"},
};

TEST_F(QoraEncodeTest, TellsPlayersWhatTheClipIs) {
  for (const auto& [header, arguments, expected] : kFacts) {
    write("clip", clip((std::string("YUV4MPEG2 W48 H32 ") + header + "\n").c_str(), "FRAME\n"));
    for (const std::string name : {"out.264", "out.mp4", "out.mkv"}) {
      EXPECT_EQ("0 ", run(std::string("clip --quiet ") + arguments + " -o " + name));
      const std::string probe =
          "ffprobe -v error -of csv=p=0 -show_entries stream=sample_aspect_ratio,color_range,"
          "color_space,color_transfer,color_primaries,chroma_location,r_frame_rate ";
      EXPECT_EQ(0, std::system((probe + name + " >told").c_str()));
      EXPECT_EQ(expected, read("told")) << name;
    }
  }
}

// Two seconds of noise: one frame for each picture whatever the rate has room for.
TEST_F(QoraEncodeTest, HoldsABitrateInQualityMode) {
  std::string noise(96 * 64 * 3 / 2 * 50, '\0');
  for (uint32_t i = 0; i < noise.size(); ++i) noise[i] = static_cast<char>(i * i >> 7);
  write("noise", noise);
  EXPECT_EQ("0 ", run("noise --size 96x64 --quality 20 -o all --quiet"));
  EXPECT_EQ("0 ", run("noise --size 96x64 --quality 20 --bitrate 300 -o held --stats csv --quiet"));
  EXPECT_LT(3 * 300 * 125 * 2, std::filesystem::file_size("all"));
  EXPECT_GT(1.25 * 300 * 125 * 2, std::filesystem::file_size("held"));
  const std::string lines = read("csv");
  EXPECT_EQ(51, std::count(lines.begin(), lines.end(), '\n'));
  const std::string own = "noise --size 96x64 --bitrate 300 --skip-unchanged -o own --quiet";
  EXPECT_EQ("0 ", run(own));
  EXPECT_TRUE(run(own + " --verbose").starts_with("0 x264 [")) << "the encoder warns";
}

// Against another program's measurement of the file.
TEST_F(QoraEncodeTest, MeasuresWhatItWrote) {
  write("clip", clip("YUV4MPEG2 W48 H32 F25:1\n", "FRAME\n"));
  EXPECT_EQ("0 ", run("clip -o out.mp4 --quality 44 --psnr --ssim --progress --quiet >keys"));
  constexpr char kMeasure[] =
      "ffmpeg -nostdin -i out.mp4 -i clip -lavfi "
      "'[0]split[a][b];[1]split[c][d];[a][c]psnr;[b][d]ssim' "
      "-f null - 2>&1 | sed -nE 's/.*PSNR.*average:([0-9.]+).*/psnr=\\1/p; "
      "s/.*SSIM.*All:([0-9.]+).*/ssim=\\1/p' | sort >measured";
  EXPECT_EQ(0, std::system(kMeasure));
  const std::regex pattern("psnr=(.*)\nssim=(.*)\n");
  std::smatch ours, theirs;
  const std::string keys = read("keys"), measured = read("measured");
  ASSERT_TRUE(std::regex_search(keys, ours, pattern)) << keys;
  ASSERT_TRUE(std::regex_search(measured, theirs, pattern)) << measured;
  EXPECT_NEAR(std::stod(theirs[1]), std::stod(ours[1]), 0.01);
  EXPECT_NEAR(std::stod(theirs[2]), std::stod(ours[2]), 0.0001);
  EXPECT_TRUE(keys.ends_with("\nprogress=end\n")) << keys;
}

TEST_F(QoraEncodeTest, EndsWithOneLineOnBadInput) {
  const std::string whole = clip("YUV4MPEG2 W48 H32 F50:1 C420jpeg\n", "FRAME Ip\n");
  for (const auto& [name, content, bytes] : kClips) {
    write(name, content != nullptr ? content : whole.substr(0, bytes));
  }
  write("old", "kept");
  std::filesystem::create_hard_link("old", "twin");
  write("PEER", "#!/bin/sh\nexit 22\n");
  std::filesystem::permissions("PEER", std::filesystem::perms::owner_all);
  for (const auto& [arguments, end] : kBadInputs) {
    const std::string said(end.substr(2));
    EXPECT_EQ(std::string(end.substr(0, 2)) + "qora-encode: " + said + "\n", run(arguments));
  }
  EXPECT_EQ(whole, read("clip"));
  EXPECT_EQ("kept", read("old"));
  EXPECT_FALSE(std::filesystem::exists("new"));
}

TEST_F(QoraEncodeTest, FinishesItsFrameWhenInterrupted) {
  start("/dev/zero --size 48x32 -o out --stats csv");
  while (read("csv").empty()) {  // a clip without end, until the first figures are in the file
    ASSERT_EQ(0, waitpid(tool_, nullptr, WNOHANG));
    usleep(5000);
  }
  kill(tool_, SIGINT);
  const std::string said = end();
  EXPECT_TRUE(said.starts_with("1 qora-encode: interrupted; frames kept in out: ")) << said;
  EXPECT_EQ('\n', read("csv").back());
}

}  // namespace
}  // namespace qora::test
