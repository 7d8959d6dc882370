// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/encode_options.h"

#include <cstring>
#include <vector>

#include "qora/client/stream_settings.h"
#include "qora/tools/coded_output.h"
#include "qora/tools/numbers.h"
#include "qora/tools/option_table.h"

namespace qora::tools {
namespace {

constexpr char kAbout[] =
    R"(Encodes a clip to H.264 through the codec service. INPUT is a Y4M file with
progressive 8-bit 4:2:0 pictures, or raw I420 with --size; "-" is standard input.)";
constexpr char kFooter[] =
    R"(Exit status: 0 done, 1 it failed, 2 the command line is wrong, 3 --verify found a frame
that does not show the clip; OUTPUT is complete.)";

std::string readSize(const char* value, EncodeOptions& options) {
  if (parsePair(value, 'x', 1, 65535, options.width, options.height) == 0) {
    return std::string("WIDTHxHEIGHT, not '") + value + "'";
  }
  const bool even = options.width % 2 == 0 && options.height % 2 == 0;
  return even ? "" : std::string("an even width and height, not '") + value + "'";
}

std::string readRate(const char* value, EncodeOptions& options) {
  const std::string pair = std::strchr(value, '/') != nullptr ? value : std::string(value) + "/1";
  const bool good = parsePair(pair, '/', 1, OptionTable::kNoLimit, options.rateNumerator,
                              options.rateDenominator) == 1;
  return good ? "" : std::string("N or N/D, as 60000/1001, not '") + value + "'";
}

std::vector<std::string> colourNames() {
  std::vector<std::string> names;
  for (const ColourChoice& colour : kColours) names.emplace_back(colour.name);
  return names;
}

OptionTable tableFor(EncodeOptions& options) {
  OptionTable table("qora-encode", "[options] INPUT -o OUTPUT", kAbout, kFooter);
  table.string(options.output, {"output", 'o', "FILE",
                                "where the coded clip goes:\n"
                                "Annex B, or a movie if FILE ends with .mp4 or .mkv;\n"
                                "\"-\": Annex B on standard output"});
  table.custom({"size", 0, "WxH", "INPUT is raw I420 of this picture size"},
               [&options](const char* value) { return readSize(value, options); });
  table.custom({"fps", 0, "N[/D]", "frames a second of a raw INPUT (default 25)"},
               [&options](const char* value) { return readRate(value, options); });
  table.choice(options.colour,
               {"colour", 0, "bt601|bt709|srgb",
                "what OUTPUT says of its colours (default: nothing);\n"
                "rate, pixel shape and range are those that a Y4M INPUT tells"},
               colourNames());
  table.number(options.bitrate,
               {"bitrate", 0, "KBPS",
                "average bitrate at the clip's frame rate, 1 to 65535\n"
                "(default: constant quality)"},
               1, 65535);
  table.number(options.quality,
               {"quality", 0, "OFFSET",
                "quantizer offset of all that changes, -12 to 44 (default 0);\n"
                "with --bitrate the rate is held by coarser offsets, still parts\n"
                "end at this one, and pictures without room repeat the one before"},
               client::kFinestOffset, client::kCoarsestOffset);
  table.number(options.qpMin,
               {"qp-min", 0, "N", "lowest quantizer with --bitrate and no --quality, 0 to 51"}, 0,
               51);
  table.number(options.qpMax, {"qp-max", 0, "N", "the highest one, 0 to 51"}, 0, 51);
  table.number(options.threads,
               {"threads", 0, "N",
                "encoder threads a stream, 0 to 128; 0: the encoder decides\n(default 0)"},
               0, 128);
  table.number(options.streams,
               {"streams", 0, "N",
                "encode the clip N times side by side, 1 to 8 (default 1);\n"
                "stream n > 0 goes to FILE with .n before the suffix"},
               1, service::kStreamCount);
  table.flag(options.noRectangles,
             {"no-rectangles", 0, nullptr, "tell the encoder that every frame changed everywhere"});
  table.flag(options.skipUnchanged,
             {"skip-unchanged", 0, nullptr,
              "leave out pictures in which nothing changed, as a live screen\n"
              "does; OUTPUT has fewer frames then, --stats tells which"});
  table.flag(options.moves, {"moves", 0, nullptr,
                             "copy what moved instead of coding it; OUTPUT is a stream with\n"
                             "moves, for qora-view"});
  table.flag(options.verify, {"verify", 0, nullptr,
                              "decode each frame as it comes and compare it with the clip: that\n"
                              "it is intact, as good as its quantizers allow, and does not drift"});
  table.flag(options.psnr, {"psnr", 0, nullptr,
                            "decode OUTPUT and put its PSNR into the summary:\n"
                            "all samples of all frames, and the worst frame; with several\n"
                            "streams that of the first"});
  table.flag(options.ssim, {"ssim", 0, nullptr, "the same with the mean structural similarity"});
  table.flag(options.progress,
             {"progress", 0, nullptr,
              "lines for a program on standard output, or on standard error\n"
              "where -o - or --stats - needs that: key=value, a block four times\n"
              "a second that ends with progress=continue, the last with =end"});
  table.number(options.frames, {"frames", 0, "N", "stop after N frames"}, 1, OptionTable::kNoLimit);
  table.string(options.stats, {"stats", 0, "FILE.csv",
                               "a line a frame: type, bytes, quantizer, times, changes;\n"
                               "with several streams the stream's number comes first; \"-\" is\n"
                               "standard output"});
  addServiceOptions(table, options.service);
  table.flag(options.service.sandbox,
             {"sandbox", 0, nullptr,
              "run the service under its system call filter; qora-sandbox\n"
              "has to be beside it"});
  table.flag(options.verbose, {"verbose", 0, nullptr,
                               "show what the service and its encoder say on standard error;\n"
                               "otherwise only the last line, and only when they fail"});
  table.flag(options.quiet, {"quiet", 0, nullptr, "no progress line, no summary"});
  return table;
}

// What remains to be seen when all words were taken. Empty when nothing is wrong.
std::string checkTogether(const std::vector<std::string>& operands, EncodeOptions& options) {
  if (operands.empty()) return "no input is named";
  if (operands.size() > 1) return "more than one input: '" + operands[1] + "'";
  options.input = operands[0];
  if (options.output.empty()) return "no output is named, use -o FILE";
  if (options.qpMin > options.qpMax) return "--qp-min is above --qp-max";
  if (options.output == "-" && options.streams > 1) return "standard output takes one stream";
  if (options.output == "-" && options.stats == "-")
    return "standard output takes one of -o, --stats";
  if (options.moves && isMovie(options.output)) return "players of movies cannot follow --moves";
  if (options.moves && options.noRectangles) return "--no-rectangles leaves nothing to move";
  const bool limitsHold = options.bitrate > 0 && options.quality == EncodeOptions::kNoQuality;
  if (!limitsHold && (options.qpMin != 0 || options.qpMax != client::kLargestQuantizer)) {
    return "--qp-min and --qp-max are limits of --bitrate without --quality";
  }
  if (options.rateNumerator != 0 && options.width == 0) {
    return "--fps is for raw clips, with --size";
  }
  return "";
}

}  // namespace

int32_t parseEncodeOptions(int argc, char* const argv[], EncodeOptions& options,
                           std::string& text) {
  return tableFor(options).parse(
      argc, argv, text, [&](const auto& operands) { return checkTogether(operands, options); });
}

std::string outputPath(const std::string& output, int32_t stream) {
  if (stream == 0) return output;
  const size_t slash = output.rfind('/');
  const size_t name = slash == std::string::npos ? 0 : slash + 1;
  const size_t dot = output.rfind('.');
  // A dot that begins the name begins no suffix.
  const size_t end = dot == std::string::npos || dot <= name ? output.size() : dot;
  return output.substr(0, end) + "." + std::to_string(stream) + output.substr(end);
}

}  // namespace qora::tools
