// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/view/view_options.h"

#include <cmath>
#include <vector>

#include "qora/tools/numbers.h"
#include "qora/tools/option_table.h"

namespace qora::tools {
namespace {

constexpr char kAbout[] =
    R"(Plays what qora-record and qora-encode write: a stream with moves or a plain H.264
stream (.264). INPUT is a file, played at its own times, or "-", standard input, shown
as it comes. Keys: space pauses, s steps to the next frame, f fills the screen, q quits.)";
constexpr char kFooter[] =
    R"(Exit status: 0 done, 1 it failed, 2 the command line is wrong, 3 the stream is damaged,
cut off or, with --verify, not what it should be; what can be shown of it was shown.)";

std::string readTime(const char* value, std::chrono::microseconds& time) {
  double seconds = 0;
  if (parseSeconds(value, 0, seconds) == 0) {
    return std::string("a number of seconds, not '") + value + "'";
  }
  time = std::chrono::microseconds(std::llround(seconds * 1e6));
  return "";
}

OptionTable tableFor(ViewOptions& options) {
  OptionTable table("qora-view", "[options] INPUT", kAbout, kFooter);
  table.string(options.verify, {"verify", 0, "SOURCE.y4m",
                                "show no window: compare with the clip that was encoded"});
  table.flag(options.list, {"list", 0, nullptr, "show no window: print a line a frame, as CSV"});
  table.number(options.frame, {"frame", 0, "N", "show no window: save picture N, the first is 0"},
               0, OptionTable::kNoLimit);
  table.custom({"at", 0, "SECONDS", "the same for the picture that is shown at that time"},
               [&options](const char* value) { return readTime(value, options.time); });
  table.string(options.png, {"png", 0, "FILE", "where --frame or --at saves its picture"});
  table.number(options.framesASecond,
               {"fps", 0, "N", "play a plain stream so many frames a second (default 25)"}, 1, 240);
  table.flag(options.close, {"close", 0, nullptr, "close the window at the end of the stream"});
  return table;
}

std::string checkTogether(const std::vector<std::string>& operands, ViewOptions& options) {
  if (operands.empty()) return "no input is named";
  if (operands.size() > 1) return "more than one input: '" + operands[1] + "'";
  options.input = operands[0];
  const bool byFrame = options.frame != -1;
  const bool byTime = options.time.count() != -1;
  if (byFrame && byTime) return "--frame and --at name two pictures";
  if ((byFrame || byTime) == options.png.empty()) return "--png needs --frame or --at, and they it";
  if ((options.list ? 1 : 0) + (options.png.empty() ? 0 : 1) + (options.verify.empty() ? 0 : 1) >
      1) {
    return "--verify, --list and --png exclude each other";
  }
  return "";
}

}  // namespace

int32_t parseViewOptions(int argc, char* const argv[], ViewOptions& options, std::string& text) {
  return tableFor(options).parse(
      argc, argv, text, [&](const auto& operands) { return checkTogether(operands, options); });
}

}  // namespace qora::tools
