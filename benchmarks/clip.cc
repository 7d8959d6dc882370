#include "benchmarks/clip.h"

#include "qora/client/changed_rectangles.h"
#include "qora/tools/clip_reader.h"

namespace qora::bench {

void encodeClip(const std::string& path, int32_t firstTurn, const TakeFrame& take) {
  tools::ClipReader clip;
  if (clip.open(path, nullptr) == -1) giveUp(clip.problem());
  const StreamShape shape = {.width = clip.format().width, .height = clip.format().height};
  SideBySide both(shape, firstTurn);
  BareService bare(shape, {both.picture(0), both.picture(1)});
  client::ChangedRectangles changes;
  for (int32_t frame = 0;; ++frame) {
    const client::Picture picture = both.picture(frame % 2);
    const int32_t more = clip.read(picture);
    if (more == -1) giveUp(clip.problem());
    if (more == 0) return;
    int32_t changed = -1;
    if (frame == 0) {
      changes.list.assign(1, client::wholePicture(picture.width, picture.height));
    } else {
      changed = client::findChangedRectangles(both.picture(1 - frame % 2), picture,
                                              client::maxRectangles(0), changes);
      if (changes.list.empty()) changes.list.push_back(client::nothingChanged());
    }
    const FrameCost cost = both.encode(frame % 2, changes.list);
    take({cost, bare.overhead(frame % 2, changes.list), changed});
  }
}

ClipCost measureClip(const std::string& path) {
  std::vector<double> overheads, bare;
  double service = 0;
  double floor = 0;
  pinToOneCpu();
  for (int32_t run = 0; run < 4; ++run) {
    encodeClip(path, run, [&](const ClipFrame& frame) {
      overheads.push_back(frame.service - frame.encoder);
      bare.push_back(frame.bare);
      service += frame.service;
      floor += frame.floor;
    });
  }
  unpin();
  return {median(overheads), median(bare), service / floor};
}

}  // namespace qora::bench
