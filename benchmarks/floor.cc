// SPDX-License-Identifier: BSD-2-Clause
// bench_floor CLIP.y4m|- OUTPUT.264 KBPS QP_MIN -- What qora-encode does, with the encoder called
// in this process: the same reading, search for changes and settings, no service.
#include "benchmarks/clip.h"
#include "benchmarks/give_up.h"

int main(int argc, char* argv[]) {
  using namespace qora;
  if (argc != 5) bench::giveUp("usage: bench_floor CLIP.y4m OUTPUT.264 KBPS QP_MIN");
  tools::ClipReader clip;
  if (clip.open(argv[1], nullptr) == -1) bench::giveUp(clip.problem());
  const std::unique_ptr<FILE, int (*)(FILE*)> output(fopen(argv[2], "wb"), fclose);
  if (output == nullptr) bench::giveUp(argv[2]);
  const bench::StreamShape shape = {.width = clip.format().width, .height = clip.format().height};
  auto settings = bench::addRequest(shape, 0);
  settings.bitrate = static_cast<uint16_t>(atoi(argv[3]));
  settings.qpMin = static_cast<uint8_t>(atoi(argv[4]));
  test::DirectEncoder encoder(settings);
  client::FrameSegment memory;
  bench::check(memory.create(shape.width, shape.height, 2), "making the pictures");
  const client::Picture cells[2] = {memory.picture(0), memory.picture(1)};
  bench::readClip(clip, cells, [&](int32_t cell, const bench::Rectangles& rectangles, int32_t) {
    const auto coded = encoder.encode(cells[cell], rectangles);
    if (fwrite(coded.data(), 1, coded.size(), output.get()) != coded.size()) bench::giveUp(argv[2]);
  });
  return 0;
}
