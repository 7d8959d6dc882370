// SPDX-License-Identifier: BSD-2-Clause
// bench_frames CLIP.y4m -- Every frame of a clip through the service and in-process, on one CPU:
// a CSV line a frame on standard output.
#include "benchmarks/clip.h"
#include "benchmarks/give_up.h"

int main(int argc, char* argv[]) {
  if (argc != 2) qora::bench::giveUp("usage: bench_frames CLIP.y4m");
  qora::bench::pinToOneCpu();
  printf("frame,service_us,encoder_us,floor_us,bare_overhead_us,bytes,changed_macroblocks\n");
  int32_t frame = 0;
  qora::bench::encodeClip(argv[1], 0, [&](const qora::bench::ClipFrame& cost) {
    printf("%d,%.1f,%.1f,%.1f,%.1f,%zu,%d\n", frame++, cost.service, cost.encoder, cost.floor,
           cost.bare, cost.bytes, cost.changed);
  });
  return 0;
}
