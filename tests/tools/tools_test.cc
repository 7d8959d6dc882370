// SPDX-License-Identifier: BSD-2-Clause
#include <gtest/gtest.h>

#include <iterator>
#include <sstream>

#include "qora/tools/encode_options.h"
#include "qora/tools/encode_session.h"
#include "qora/tools/progress.h"
#include "qora/tools/y4m.h"

namespace qora::tools {
namespace {

// A header line, and its size, rate, pixel aspect, range and chroma location, or what is wrong.
constexpr std::pair<const char*, const char*> kHeaders[] = {
    {"YUV4MPEG2 W640 H360", "640x360 25/1 1:1 0 -1"},
    {"YUV4MPEG2 W640 H360 F30000:1001 Ip A128:117 C420jpeg XYSCSS=420JPEG",
     "640x360 30000/1001 128:117 0 1"},
    {"YUV4MPEG2  C420mpeg2 H360 F0:0 W640 A0:0 I? XCOLORRANGE=FULL", "640x360 25/1 1:1 1 0"},
    {"YUV4MPEG2 W2 H65534 C420paldv F50:1 XCOLORRANGE=LIMITED", "2x65534 50/1 1:1 0 2"},
    {"YUV4MPEG2 W640 H360 A4:0", "bad pixel aspect 'A4:0'"},
    {"YUV4MPEG2 W640 H360 Im", "only progressive pictures can be encoded, not interlaced 'Im'"},
    {"YUV4MPEG2 W640 H360 Cmono", "only 8-bit 4:2:0 can be encoded, not colour format 'Cmono'"},
    {"YUV4MPEG2 W640 H361", "4:2:0 needs an even width and height, not 640x361"},
    {"YUV4MPEG2 W640", "the Y4M header lacks the picture's size"},
    {"YUV4MPEG2 W640x H360", "bad width 'W640x'"},
    {"YUV4MPEG2 W640 H70000", "bad height 'H70000'"},
    {"YUV4MPEG2 W640 H360 F30:0", "bad frame rate 'F30:0'"},
    {"RIFF W640 H360", "not a Y4M clip"},
};

// Words, and what becomes of them: "input output stats-service-root, size, bitrate, quality,
// quantizers, threads, streams, frames, flags", or the problem.
constexpr std::pair<const char*, const char*> kCommandLines[] = {
    {"in -o out", "in out ---, 0x0, 0, , 0-51, 0, 1, 0, 00"},
    {"in --size=64x32 -oout --quiet", "in out ---, 64x32, 0, , 0-51, 0, 1, 0, 01"},
    {"--bitrate 900 --qp-min 4 --qp-max 40 in --output=out",
     "in out ---, 0x0, 900, , 4-40, 0, 1, 0, 00"},
    {"--threads 2 --streams 8 --frames 7 -o out -- -in",
     "-in out ---, 0x0, 0, , 0-51, 2, 8, 7, 00"},
    {"- -o out --stats s --service q --codec-root r --no-rectangles --skip-unchanged",
     "- out s-q-r-, 0x0, 0, , 0-51, 0, 1, 0, 10"},
    {"in -o c --bitrate 900 --quality -12", "in c ---, 0x0, 900, -12, 0-51, 0, 1, 0, 00"},
    {"in --quality 45", "--quality needs a number from -12 to 44, not '45'"},
    {"--quiet", "no input is named"},
    {"in", "no output is named, use -o FILE"},
    {"a b -o c", "more than one input: 'b'"},
    {"in -o", "-o needs a value"},
    {"in --output=", "--output needs a value"},
    {"in -o c --wat", "unknown option '--wat'"},
    {"in --streams 9", "--streams needs a number from 1 to 8, not '9'"},
    {"in --frames 0", "--frames needs a number from 1 on, not '0'"},
    {"in --size 6x3", "--size needs an even width and height, not '6x3'"},
    {"in -o c --qp-min 9 --qp-max 8", "--qp-min is above --qp-max"},
    {"in -o c --qp-max 9 --bitrate 9 --quality 0",
     "--qp-min and --qp-max are limits of --bitrate without --quality"},
    {"in -o c --fps 50", "--fps is for raw clips, with --size"},
    {"in -o c --fps 29.97", "--fps needs N or N/D, as 60000/1001, not '29.97'"},
};

std::string pair(int32_t first, const char* separator, int32_t second) {
  return std::to_string(first) + separator + std::to_string(second);
}

TEST(Y4mTest, ReadsHeaders) {
  for (const auto& [line, expected] : kHeaders) {
    ClipFormat format;
    std::string result;
    if (parseY4mHeader(line, format, result) == 1) {
      result = pair(format.width, "x", format.height) + " " +
               pair(format.rateNumerator, "/", format.rateDenominator) + " " +
               pair(format.aspectWidth, ":", format.aspectHeight) + " " +
               pair(format.fullRange, " ", format.chromaLocation);
    }
    EXPECT_EQ(expected, result) << line;
  }
}

TEST(EncodeOptionsTest, ReadCommandLines) {
  for (const auto& [line, expected] : kCommandLines) {
    std::istringstream split(std::string("qora-encode ") + line);
    const std::vector<std::string> words{std::istream_iterator<std::string>(split), {}};
    std::vector<char*> argv;
    for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    EncodeOptions o;
    std::string result;
    if (parseEncodeOptions(static_cast<int>(words.size()), argv.data(), o, result) == 1) {
      result = o.input + " " + o.output + " " + o.stats + "-" + o.service.path + "-" +
               o.service.codecRoot + "-, " + pair(o.width, "x", o.height) + ", " +
               std::to_string(o.bitrate) + ", " +
               (o.quality == o.kNoQuality ? "" : std::to_string(o.quality)) + ", " +
               pair(o.qpMin, "-", o.qpMax) + ", " + pair(o.threads, ", ", o.streams) + ", " +
               pair(o.frames, ", ", o.noRectangles) + std::to_string(o.quiet);
    } else {
      EXPECT_TRUE(result.ends_with(" (see --help)"));
      result.resize(result.size() - 13);
    }
    EXPECT_EQ(expected, result) << line;
  }
}

TEST(EncodeSessionTest, NamesOutputsAndScalesTheBitrate) {
  EXPECT_EQ("dir.d/clip.264", outputPath("dir.d/clip.264", 0));
  EXPECT_EQ("dir.d/clip.2.264", outputPath("dir.d/clip.264", 2));
  EXPECT_EQ("dir.d/.clip.1", outputPath("dir.d/.clip", 1));
  EXPECT_EQ(834, nominalBitrate(1000, {.rateNumerator = 30000, .rateDenominator = 1001}));
  EXPECT_EQ(1042, nominalBitrate(1000, {.rateNumerator = 24, .rateDenominator = 1}));  // 1041.7
  EXPECT_EQ(1, nominalBitrate(1, {.rateNumerator = 240, .rateDenominator = 1}));
}

TEST(ProgressTest, ShowsWhatIsKnown) {
  EXPECT_EQ("[12.3%] 37/300 frames, 74.00 fps, 960.00 kb/s, eta 0:00:03",
            progressText({37, 300, 148000, 0.5, 30}));
  EXPECT_EQ("frames=37\ntotal=300\nbytes=148000\nseconds=0.500\nfps=74.00\nkbps=960.00\n",
            progressKeys({37, 300, 148000, 0.5, 30}));
  EXPECT_EQ("9 frames, 3.00 fps, 0.00 kb/s", progressText({.frames = 9, .seconds = 3}));
}

}  // namespace
}  // namespace qora::tools
