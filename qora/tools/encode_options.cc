#include "qora/tools/encode_options.h"

#include <getopt.h>

#include <cstddef>
#include <iterator>
#include <limits>

#include "qora/client/codec_client.h"
#include "qora/tools/numbers.h"
#include "qora/tools/y4m.h"

namespace qora::tools {
namespace {

constexpr char kUsage[] =
    R"(usage: qora-encode [options] INPUT -o OUTPUT.264

Encodes a clip to H.264 (Annex B) through the codec service. INPUT is a Y4M file
with 8-bit 4:2:0 pictures, or raw I420 with --size; "-" is standard input.

  -o, --output FILE     where the coded clip goes
      --size WxH        INPUT is raw I420 of this picture size, 25 frames a second
      --bitrate KBPS    average bitrate at the clip's frame rate, 1 to 65535
                        (default: constant quality)
      --qp-min N        lowest quantizer with --bitrate, 0 to 51 (default 0)
      --qp-max N        highest quantizer with --bitrate, 0 to 51 (default 51)
      --threads N       encoder threads a stream, 0 to 128; 0: the encoder decides
                        (default 0)
      --streams N       encode the clip N times side by side, 1 to 8 (default 1);
                        stream n > 0 goes to FILE with .n before the suffix
      --no-rectangles   tell the encoder that every frame changed everywhere
      --skip-unchanged  leave out pictures in which nothing changed, as a live screen
                        does; OUTPUT has fewer frames then, --stats tells which
      --frames N        stop after N frames
      --stats FILE.csv  a line a frame: type, bytes, quantizer, times, changes;
                        with several streams the stream's number comes first
      --service PATH    the service's program (default: beside qora-encode)
      --codec-root DIR  where lib/libx264.so or codec/lib/libx264.so is
                        (default: $QORA_SYSTEM, then beside qora-encode)
      --sandbox         run the service under its system call filter; qora-sandbox
                        has to be beside it
      --quiet           no progress line, no summary
  -h, --help            this text
      --version         the version

Exit status: 0 done, 1 it failed, 2 the command line is wrong.
)";

// One option; which of the last three is set tells its kind.
struct OptionRow {
  const char* name;
  int letter;
  int32_t lowest;
  int32_t highest;
  int32_t EncodeOptions::*number;
  std::string EncodeOptions::*text;
  bool EncodeOptions::*flag;
};

constexpr int32_t kAny = std::numeric_limits<int32_t>::max();
constexpr int kFirstLong = 256;  // rows without a letter are known by this and their index

constexpr OptionRow numberRow(const char* name, int32_t lowest, int32_t highest,
                              int32_t EncodeOptions::*field) {
  return {name, 0, lowest, highest, field, nullptr, nullptr};
}
constexpr OptionRow textRow(const char* name, int letter, std::string EncodeOptions::*field) {
  return {name, letter, 0, 0, nullptr, field, nullptr};
}
constexpr OptionRow flagRow(const char* name, bool EncodeOptions::*field) {
  return {name, 0, 0, 0, nullptr, nullptr, field};
}

constexpr OptionRow kRows[] = {
    textRow("output", 'o', &EncodeOptions::output),
    numberRow("bitrate", 1, 65535, &EncodeOptions::bitrate),
    numberRow("qp-min", 0, 51, &EncodeOptions::qpMin),
    numberRow("qp-max", 0, 51, &EncodeOptions::qpMax),
    numberRow("threads", 0, 128, &EncodeOptions::threads),
    numberRow("streams", 1, service::kStreamCount, &EncodeOptions::streams),
    numberRow("frames", 1, kAny, &EncodeOptions::frames),
    textRow("stats", 0, &EncodeOptions::stats),
    textRow("service", 0, &EncodeOptions::service),
    textRow("codec-root", 0, &EncodeOptions::codecRoot),
    flagRow("no-rectangles", &EncodeOptions::noRectangles),
    flagRow("sandbox", &EncodeOptions::sandbox),
    flagRow("skip-unchanged", &EncodeOptions::skipUnchanged),
    flagRow("quiet", &EncodeOptions::quiet),
};
constexpr int kSizeOption = kFirstLong + static_cast<int>(std::size(kRows));
constexpr int kVersionOption = kSizeOption + 1;
constexpr int kHelpOption = 'h';
constexpr size_t kLongCount = std::size(kRows) + 4;  // size, help, version and the end

int keyOf(size_t row) {
  return kRows[row].letter != 0 ? kRows[row].letter : kFirstLong + static_cast<int>(row);
}

void fillLongOptions(option (&table)[kLongCount]) {
  option* next = table;
  for (size_t row = 0; row < std::size(kRows); ++row) {
    const int argument = kRows[row].flag != nullptr ? no_argument : required_argument;
    *next++ = {kRows[row].name, argument, nullptr, keyOf(row)};
  }
  *next++ = {"size", required_argument, nullptr, kSizeOption};
  *next++ = {"help", no_argument, nullptr, kHelpOption};
  *next++ = {"version", no_argument, nullptr, kVersionOption};
  *next = {};
}

int32_t fail(std::string& text, const std::string& problem) {
  text = problem + " (see --help)";
  return -1;
}

// A long option is its word; a letter can stand anywhere in a word.
std::string unknownOption(const std::string& word) {
  return word.starts_with("--") ? word : std::string("-") + static_cast<char>(optopt);
}

int32_t applyRow(const OptionRow& row, const char* value, EncodeOptions& options,
                 std::string& text) {
  if (row.flag != nullptr) {
    options.*row.flag = true;
  } else if (row.text != nullptr) {
    if (*value == '\0') return fail(text, std::string("--") + row.name + " needs a value");
    options.*row.text = value;
  } else if (parseNumber(value, row.lowest, row.highest, options.*row.number) == 0) {
    const std::string range =
        row.highest == kAny
            ? "a number from " + std::to_string(row.lowest) + " on"
            : "a number from " + std::to_string(row.lowest) + " to " + std::to_string(row.highest);
    return fail(text, std::string("--") + row.name + " needs " + range + ", not '" + value + "'");
  }
  return 1;
}

int32_t applySize(const char* value, EncodeOptions& options, std::string& text) {
  if (parsePair(value, 'x', 1, 65535, options.width, options.height) == 0) {
    return fail(text, std::string("--size needs WIDTHxHEIGHT, not '") + value + "'");
  }
  std::string problem;
  if (checkPictureSize({.width = options.width, .height = options.height}, problem) == -1) {
    return fail(text, "--size: " + problem);
  }
  return 1;
}

// What remains to be seen when all words were taken.
int32_t checkTogether(int words, char* const word[], EncodeOptions& options, std::string& text) {
  if (words == 0) return fail(text, "no input is named");
  if (words > 1) return fail(text, std::string("more than one input: '") + word[1] + "'");
  options.input = word[0];
  if (options.output.empty()) return fail(text, "no output is named, use -o FILE");
  if (options.qpMin > options.qpMax) return fail(text, "--qp-min is above --qp-max");
  return 1;
}

}  // namespace

int32_t parseEncodeOptions(int argc, char* const argv[], EncodeOptions& options,
                           std::string& text) {
  option longOptions[kLongCount];
  fillLongOptions(longOptions);
  optind = 0;  // a new vector
  opterr = 0;  // one line, ours
  int key;
  while ((key = ::getopt_long(argc, argv, ":o:h", longOptions, nullptr)) != -1) {
    int32_t result = 1;
    switch (key) {
      case ':':
        return fail(text, std::string(argv[optind - 1]) + " needs a value");
      case '?':
        return fail(text, "unknown option '" + unknownOption(argv[optind - 1]) + "'");
      case kHelpOption:
        text = kUsage;
        return 0;
      case kVersionOption:
        text = "qora-encode " QORA_VERSION "\n";
        return 0;
      case kSizeOption:
        result = applySize(optarg, options, text);
        break;
      default:
        for (size_t row = 0; row < std::size(kRows); ++row) {
          if (keyOf(row) == key) result = applyRow(kRows[row], optarg, options, text);
        }
    }
    if (result == -1) return -1;
  }
  return checkTogether(argc - optind, argv + optind, options, text);
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
