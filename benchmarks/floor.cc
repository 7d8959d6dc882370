// bench_floor CLIP.y4m|- OUTPUT.264 KBPS QP_MIN -- What qora-encode does, with the encoder called
// in this process: the same reading, search for changes and settings, no service.
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "benchmarks/sessions.h"
#include "qora/client/changed_rectangles.h"
#include "qora/tools/clip_reader.h"

int main(int argc, char* argv[]) {
  using namespace qora;
  if (argc != 5) bench::giveUp("usage: bench_floor CLIP.y4m OUTPUT.264 KBPS QP_MIN");
  tools::ClipReader clip;
  if (clip.open(argv[1], nullptr) == -1) bench::giveUp(clip.problem());
  const tools::File output(fopen(argv[2], "wb"));
  if (output == nullptr) bench::giveUp(argv[2]);
  const tools::ClipFormat& format = clip.format();
  test::DirectEncoder encoder({.flags = service::kAnnexBFlag,
                               .streamId = 0,
                               .threads = 1,
                               .bitrate = static_cast<uint16_t>(atoi(argv[3])),
                               .qpMin = static_cast<uint8_t>(atoi(argv[4])),
                               .qpMax = 51,
                               .width = static_cast<uint16_t>(format.width),
                               .height = static_cast<uint16_t>(format.height)});
  const client::CellLayout layout = client::cellLayout(format.width, format.height);
  std::vector<uint8_t> memory[2];
  client::Picture cells[2];
  for (int32_t cell = 0; cell < 2; ++cell) {
    memory[cell].resize(layout.size);
    cells[cell] = {.plane = {}, .stride = {}, .width = format.width, .height = format.height};
    for (int32_t plane = 0; plane < 3; ++plane) {
      cells[cell].plane[plane] = memory[cell].data() + layout.offset[plane];
      cells[cell].stride[plane] = static_cast<int32_t>(layout.stride[plane]);
    }
  }
  client::ChangedRectangles changes;
  for (int32_t frame = 0;; ++frame) {
    const client::Picture& picture = cells[frame % 2];
    const int32_t more = clip.read(picture);
    if (more == -1) bench::giveUp(clip.problem());
    if (more == 0) return 0;
    if (frame == 0) {
      changes.list.assign(1, client::wholePicture(picture.width, picture.height));
    } else {
      client::findChangedRectangles(cells[1 - frame % 2], picture, client::maxRectangles(0),
                                    changes);
      if (changes.list.empty()) changes.list.push_back(client::nothingChanged());
    }
    const auto coded = encoder.encode(picture, changes.list);
    if (fwrite(coded.data(), 1, coded.size(), output.get()) != coded.size()) return 1;
  }
}
