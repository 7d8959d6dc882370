// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/record_options.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <string_view>
#include <vector>

#include "qora/client/quality_control.h"
#include "qora/tools/numbers.h"
#include "qora/tools/option_table.h"

namespace qora::tools {
namespace {

constexpr char kAbout[] =
    R"(Records a screen to H.264. What the screen does not draw costs nothing: a frame is
made when something changed, and only that is read and encoded. FILE's name says what
it becomes: .264 (Annex B), .mp4 or .mkv, else a stream with moves for qora-view; "-" is
such a stream on standard output. Ctrl-C ends a recording, and its file is complete.)";
constexpr char kFooter[] =
    R"(Exit status: 0 done, 1 it failed, 2 the command line is wrong, 3 the screen went away;
the recording until then is complete.)";

constexpr int32_t kLongestSide = 16384;

// "WxH+X+Y", as X programs write it.
std::string readRegion(const char* value, client::Area& region) {
  client::Area read{};
  int end = 0;
  const int fields =
      std::sscanf(value, "%5dx%5d+%5d+%5d%n", &read.width, &read.height, &read.x, &read.y, &end);
  const bool good = fields == 4 && value[end] == '\0' && read.width >= 16 && read.height >= 16 &&
                    read.width <= kLongestSide && read.height <= kLongestSide && read.x >= 0 &&
                    read.y >= 0;
  if (good) region = read;
  return good ? "" : std::string("WIDTHxHEIGHT+X+Y, at least 16x16, not '") + value + "'";
}

// Decimal or, as X programs print it, with 0x in front.
std::string readWindow(const char* value, int32_t& window) {
  std::string_view text = value;
  const bool hexadecimal = text.starts_with("0x");
  if (hexadecimal) text.remove_prefix(2);
  const char* end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, window, hexadecimal ? 16 : 10);
  const bool good = error == std::errc() && stopped == end && window > 0;
  return good ? "" : std::string("a window's number, not '") + value + "'";
}

std::string readDuration(const char* value, std::chrono::milliseconds& duration) {
  double seconds = 0;
  if (parseSeconds(value, 0.001, seconds) == 0) {
    return std::string("a number of seconds, not '") + value + "'";
  }
  duration = std::chrono::milliseconds(std::llround(seconds * 1000));
  return "";
}

OptionTable tableFor(RecordOptions& options) {
  OptionTable table("qora-record", "[options] -o FILE", kAbout, kFooter);
  table.string(options.output, {"output", 'o', "FILE", "where the recording goes"});
  table.string(options.display, {"display", 0, "NAME",
                                 "the X server or Wayland compositor (default: $DISPLAY, then\n"
                                 "$WAYLAND_DISPLAY)"});
  table.custom({"geometry", 0, "WxH+X+Y", "record this part of the screen"},
               [&options](const char* value) { return readRegion(value, options.region); });
  table.custom({"window", 0, "ID",
                "record the part of the screen that this window has, wherever\n"
                "it moves; xwininfo tells its number"},
               [&options](const char* value) { return readWindow(value, options.window); });
  table.number(options.framesASecond, {"fps", 0, "N", "at most N frames a second (default 30)"}, 1,
               240);
  table.custom({"duration", 0, "SECONDS", "stop after so long"},
               [&options](const char* value) { return readDuration(value, options.duration); });
  table.number(options.bitrate,
               {"bitrate", 0, "KBPS", "hold this bitrate (default: constant quality)"}, 1, 1000000);
  table.number(options.quality,
               {"quality", 0, "OFFSET",
                "quantizer offset of constant quality, -12 (finest) to 44\n(default 8)"},
               client::kFinestOffset, client::kCoarsestOffset);
  table.choice(options.moves,
               {"moves", 0, "on|off",
                "whether a stream's frames may copy what moved (default on);\n"
                "files for players never do"},
               {"off", "on"});
  table.choice(options.pointer, {"cursor", 0, "on|off", "record the mouse pointer (default on)"},
               {"off", "on"});
  table.number(options.keyInterval,
               {"key-interval", 0, "SECONDS",
                "a key frame at least so often while something changes,\n"
                "0: only where needed (default 10 in .mp4 and .mkv, else 0)"},
               0, 86400);
  table.number(options.threads,
               {"threads", 0, "N", "encoder threads, 0: the encoder decides (default 1)"}, 0, 128);
  addServiceOptions(table, options.service);
  table.flag(options.service.sandbox,
             {"sandbox", 0, nullptr,
              "run the service under its system call filter; qora-sandbox\n"
              "has to be beside it"});
  table.flag(options.quiet, {"quiet", 0, nullptr, "no progress line, no summary"});
  return table;
}

std::string checkTogether(const std::vector<std::string>& operands, const RecordOptions& options) {
  if (!operands.empty()) return "'" + operands[0] + "' is no option";
  if (options.output.empty()) return "no output is named, use -o FILE";
  if (options.window != 0 && options.region.width != 0) return "--window has a geometry of its own";
  return "";
}

}  // namespace

int32_t parseRecordOptions(int argc, char* const argv[], RecordOptions& options,
                           std::string& text) {
  return tableFor(options).parse(
      argc, argv, text, [&](const auto& operands) { return checkTogether(operands, options); });
}

}  // namespace qora::tools
