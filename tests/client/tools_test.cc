#include <gtest/gtest.h>

#include "tools/encode_options.h"
#include "tools/encode_session.h"
#include "tools/progress.h"
#include "tools/y4m.h"

namespace qora::tools {
namespace {

TEST(Y4mTest, ReadsHeaders) {
  const std::pair<const char*, const char*> cases[] = {
      {"YUV4MPEG2 W640 H360", "640x360 25/1"},
      {"YUV4MPEG2 W640 H360 F30000:1001 Ip A1:1 C420jpeg XYSCSS=420JPEG", "640x360 30000/1001"},
      {"YUV4MPEG2  C420mpeg2 H360 F0:0 W640 ", "640x360 25/1"},
      {"YUV4MPEG2 W2 H65534 C420paldv F50:1", "2x65534 50/1"},
      {"YUV4MPEG2 W640 H360 C420", "640x360 25/1"},
      {"YUV4MPEG2 W640 H360 C444", "only 8-bit 4:2:0 can be encoded, not colour format 'C444'"},
      {"YUV4MPEG2 W640 H360 Cmono", "only 8-bit 4:2:0 can be encoded, not colour format 'Cmono'"},
      {"YUV4MPEG2 W640 H361", "4:2:0 needs an even width and height, not 640x361"},
      {"YUV4MPEG2 W640", "the Y4M header lacks the picture's size"},
      {"YUV4MPEG2 W640x H360", "bad width 'W640x'"},
      {"YUV4MPEG2 W640 H70000", "bad height 'H70000'"},
      {"YUV4MPEG2 W640 H360 F30", "bad frame rate 'F30'"},
      {"YUV4MPEG2 W640 H360 F30:0", "bad frame rate 'F30:0'"},
      {"RIFF W640 H360", "not a Y4M clip"}};
  for (const auto& [line, expected] : cases) {
    ClipFormat format;
    std::string result;
    if (parseY4mHeader(line, format, result) == 1) {
      result = std::to_string(format.width) + "x" + std::to_string(format.height) + " " +
               std::to_string(format.rateNumerator) + "/" + std::to_string(format.rateDenominator);
    }
    EXPECT_EQ(expected, result) << line;
  }
}

int32_t parse(std::vector<const char*> words, EncodeOptions& options, std::string& text) {
  words.insert(words.begin(), "qora-encode");
  words.push_back(nullptr);
  return parseEncodeOptions(static_cast<int>(words.size() - 1),
                            const_cast<char* const*>(words.data()), options, text);
}

TEST(EncodeOptionsTest, TakeEveryOption) {
  EncodeOptions options;
  std::string text;
  ASSERT_EQ(1, parse({"in",
                      "--size=64x32",
                      "--bitrate",
                      "900",
                      "--qp-min",
                      "4",
                      "--qp-max",
                      "40",
                      "--threads",
                      "2",
                      "--streams",
                      "8",
                      "--frames",
                      "7",
                      "--stats",
                      "s",
                      "--service",
                      "q",
                      "--codec-root",
                      "r",
                      "--no-rectangles",
                      "--quiet",
                      "-oout"},
                     options, text));
  for (const std::string& word :
       {options.input, options.output, options.stats, options.service, options.codecRoot}) {
    text += word + " ";
  }
  for (const int32_t number : {options.width, options.height, options.bitrate, options.qpMin,
                               options.qpMax, options.threads, options.streams, options.frames}) {
    text += std::to_string(number) + " ";
  }
  EXPECT_EQ("in out s q r 64 32 900 4 40 2 8 7 ", text);
  EXPECT_TRUE(options.noRectangles && options.quiet);
  EXPECT_EQ(0, parse({"--version"}, options, text));
  EXPECT_TRUE(text.starts_with("qora-encode "));
}

TEST(EncodeOptionsTest, SayWhatIsWrong) {
  const std::pair<std::vector<const char*>, const char*> cases[] = {
      {{}, "no input is named"},
      {{"in"}, "no output is named, use -o FILE"},
      {{"a", "b", "-o", "c"}, "more than one input: 'b'"},
      {{"in", "-o"}, "-o needs a value"},
      {{"in", "-o", ""}, "--output needs a value"},
      {{"in", "-o", "c", "--wat"}, "unknown option '--wat'"},
      {{"in", "-x"}, "unknown option '-x'"},
      {{"in", "--streams", "9"}, "--streams needs a number from 1 to 8, not '9'"},
      {{"in", "--frames", "0"}, "--frames needs a number from 1 on, not '0'"},
      {{"in", "--size", "64"}, "--size needs WIDTHxHEIGHT, not '64'"},
      {{"in", "--size", "6x3"}, "--size: 4:2:0 needs an even width and height, not 6x3"},
      {{"in", "-o", "c", "--qp-min", "9", "--qp-max", "8"}, "--qp-min is above --qp-max"}};
  for (const auto& [words, problem] : cases) {
    EncodeOptions options;
    std::string text;
    EXPECT_EQ(-1, parse(words, options, text));
    EXPECT_EQ(std::string(problem) + " (see --help)", text);
  }
}

TEST(EncodeSessionTest, NamesOutputsAndScalesTheBitrate) {
  EXPECT_EQ("dir.d/clip.264", outputPath("dir.d/clip.264", 0));
  EXPECT_EQ("dir.d/clip.2.264", outputPath("dir.d/clip.264", 2));
  EXPECT_EQ("dir.d/clip.7", outputPath("dir.d/clip", 7));
  EXPECT_EQ("dir/.clip.1", outputPath("dir/.clip", 1));
  EXPECT_EQ(834, nominalBitrate(1000, {.rateNumerator = 30000, .rateDenominator = 1001}));
  EXPECT_EQ(125000, nominalBitrate(5000, {.rateNumerator = 1, .rateDenominator = 1}));
  EXPECT_EQ(1, nominalBitrate(1, {.rateNumerator = 240, .rateDenominator = 1}));
}

TEST(ProgressTest, ShowsWhatIsKnown) {
  EXPECT_EQ("[12.3%] 37/300 frames, 74.00 fps, 960.00 kb/s, eta 0:00:03",
            progressText({37, 300, 148000, 0.5, 30}));
  EXPECT_EQ("[0.0%] 0/36000 frames, 0.00 fps, 0.00 kb/s, eta 0:00:00",
            progressText({.total = 36000}));
  EXPECT_EQ("[0.0%] 1/36000 frames, 0.50 fps, 2.00 kb/s, eta 19:59:58",
            progressText({1, 36000, 10, 2, 25}));
  EXPECT_EQ("9 frames, 3.00 fps, 0.00 kb/s", progressText({.frames = 9, .seconds = 3}));
}

}  // namespace
}  // namespace qora::tools
