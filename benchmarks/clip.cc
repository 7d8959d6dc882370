#include "benchmarks/clip.h"

#include "client/changed_rectangles.h"
#include "tools/clip_reader.h"

namespace qora::bench {

void encodeClip(const std::string& path, const TakeFrame& take) {
  tools::ClipReader clip;
  if (clip.open(path, nullptr) == -1) giveUp(clip.problem());
  SideBySide both({.width = clip.format().width, .height = clip.format().height});
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
    take(both.encode(frame % 2, changes.list), changed);
  }
}

ClipCost measureClip(const std::string& path) {
  std::vector<double> overheads;
  double service = 0;
  double floor = 0;
  pinToOneCpu();
  encodeClip(path, [&](const FrameCost& cost, int32_t) {
    overheads.push_back(cost.service - cost.floor);
    service += cost.service;
    floor += cost.floor;
  });
  unpin();
  return {median(overheads), service / floor};
}

}  // namespace qora::bench
