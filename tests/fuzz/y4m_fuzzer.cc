// tests/fuzz/y4m_fuzzer.cc -- A clip of any bytes: the header line by itself, then the whole clip,
// as Y4M or raw, read picture by picture.

#include <sys/mman.h>
#include <unistd.h>

#include "qora/tools/clip_reader.h"
#include "tests/fuzz/fuzz.h"

namespace {

using namespace qora;
using fuzz::require;

constexpr int64_t kLargestPicture = 1 << 16;  // pixels; larger ones are not worth their time

void checkFormat(const tools::ClipFormat& format) {
  require(format.width > 0 && format.width <= 65535 && format.width % 2 == 0 && format.height > 0 &&
              format.height <= 65535 && format.height % 2 == 0 && format.rateNumerator > 0 &&
              format.rateDenominator > 0,
          "a format that cannot be");
}

void readAll(tools::ClipReader& clip, size_t size) {
  const int32_t width = clip.format().width;
  const int32_t height = clip.format().height;
  if (int64_t{width} * height > kLargestPicture) return;
  std::vector<uint8_t> samples(static_cast<size_t>(width * height * 3 / 2));
  const client::Picture picture = {
      {samples.data(), samples.data() + width * height, samples.data() + width * height * 5 / 4},
      {width, width / 2, width / 2},
      width,
      height};
  size_t pictures = 0;
  int32_t result;
  while ((result = clip.read(picture)) == 1) ++pictures;
  require(pictures * samples.size() <= size, "more pictures than bytes");
  require(result == 0 || !clip.problem().empty(), "a clip is refused without a word");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tools::ClipFormat format;
  std::string problem;
  const std::string line(data, data + std::min<size_t>(size, 200));
  if (tools::parseY4mHeader(line, format, problem) == 1) {
    checkFormat(format);
  } else {
    require(!problem.empty(), "a header is refused without a word");
  }

  static const int file = memfd_create("clip", 0);
  static const std::string path = "/proc/self/fd/" + std::to_string(file);
  if (::ftruncate(file, 0) != 0 || ::pwrite(file, data, size, 0) != static_cast<ssize_t>(size)) {
    return 0;
  }
  tools::ClipReader clip;
  const tools::ClipFormat raw = {.width = 4, .height = 2};
  if (clip.open(path, size % 8 == 7 ? &raw : nullptr) == -1) {
    require(!clip.problem().empty(), "a clip is refused without a word");
    return 0;
  }
  checkFormat(clip.format());
  readAll(clip, size);
  return 0;
}
