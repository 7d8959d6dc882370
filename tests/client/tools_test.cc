#include <gtest/gtest.h>

#include "qora/tools/encode_options.h"
#include "qora/tools/encode_session.h"
#include "qora/tools/progress.h"
#include "qora/tools/y4m.h"
#include "tests/support/table.h"

namespace qora::tools {
namespace {

std::string pair(int32_t first, const char* separator, int32_t second) {
  return std::to_string(first) + separator + std::to_string(second);
}

TEST(Y4mTest, ReadsHeaders) {
  for (const auto& row : test::readTable(TABLES "y4m_headers.table")) {
    ClipFormat format;
    std::string result;
    if (parseY4mHeader(row[0], format, result) == 1) {
      result = pair(format.width, "x", format.height) + " " +
               pair(format.rateNumerator, "/", format.rateDenominator);
    }
    EXPECT_EQ(row[1], result) << row[0];
  }
}

TEST(EncodeOptionsTest, ReadCommandLines) {
  for (const auto& row : test::readTable(TABLES "command_lines.table")) {
    const std::vector<std::string> words = test::splitWords("qora-encode " + row[0]);
    std::vector<char*> argv;
    for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    EncodeOptions o;
    std::string result;
    if (parseEncodeOptions(static_cast<int>(words.size()), argv.data(), o, result) == 1) {
      result = o.input + " " + o.output + " " + o.stats + "-" + o.service + "-" + o.codecRoot +
               "-, " + pair(o.width, "x", o.height) + ", " + std::to_string(o.bitrate) + ", " +
               pair(o.qpMin, "-", o.qpMax) + ", " + pair(o.threads, ", ", o.streams) + ", " +
               pair(o.frames, ", ", o.noRectangles) + std::to_string(o.quiet);
    } else {
      EXPECT_TRUE(result.ends_with(" (see --help)"));
      result.resize(result.size() - 13);
    }
    EXPECT_EQ(row[1], result) << row[0];
  }
}

TEST(EncodeSessionTest, NamesOutputsAndScalesTheBitrate) {
  EXPECT_EQ("dir.d/clip.264", outputPath("dir.d/clip.264", 0));
  EXPECT_EQ("dir.d/clip.2.264", outputPath("dir.d/clip.264", 2));
  EXPECT_EQ("dir.d/.clip.1", outputPath("dir.d/.clip", 1));
  EXPECT_EQ(834, nominalBitrate(1000, {.rateNumerator = 30000, .rateDenominator = 1001}));
  EXPECT_EQ(1, nominalBitrate(1, {.rateNumerator = 240, .rateDenominator = 1}));
}

TEST(ProgressTest, ShowsWhatIsKnown) {
  EXPECT_EQ("[12.3%] 37/300 frames, 74.00 fps, 960.00 kb/s, eta 0:00:03",
            progressText({37, 300, 148000, 0.5, 30}));
  EXPECT_EQ("9 frames, 3.00 fps, 0.00 kb/s", progressText({.frames = 9, .seconds = 3}));
}

}  // namespace
}  // namespace qora::tools
