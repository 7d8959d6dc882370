// SPDX-License-Identifier: BSD-2-Clause
#include "benchmarks/clip.h"

#include "benchmarks/give_up.h"
#include "qora/client/changed_rectangles.h"

namespace qora::bench {

void readClip(tools::ClipReader& clip, const client::Picture (&cells)[2], const TakePicture& take) {
  client::ChangedRectangles changes;
  for (int32_t frame = 0;; ++frame) {
    const client::Picture& picture = cells[frame % 2];
    const int32_t more = clip.read(picture);
    if (more == -1) giveUp(clip.problem());
    if (more == 0) return;
    int32_t changed = -1;
    if (frame == 0) {
      changes.list.assign(1, client::wholePicture(picture.width, picture.height));
    } else {
      changed = client::findChangedRectangles(cells[1 - frame % 2], picture,
                                              client::maxRectangles(0), changes);
      if (changes.list.empty()) changes.list.push_back(client::nothingChanged());
    }
    take(frame % 2, changes.list, changed);
  }
}

void encodeClip(const std::string& path, int32_t firstTurn,
                const std::function<void(const ClipFrame& frame)>& take) {
  tools::ClipReader clip;
  if (clip.open(path, nullptr) == -1) giveUp(clip.problem());
  const StreamShape shape = {.width = clip.format().width, .height = clip.format().height};
  SideBySide both(shape, firstTurn);
  const client::Picture cells[2] = {both.picture(0), both.picture(1)};
  BareService bare(shape, cells);
  readClip(clip, cells, [&](int32_t cell, const Rectangles& rectangles, int32_t changed) {
    const FrameCost cost = both.encode(cell, rectangles);
    take({cost, bare.overhead(cell, rectangles), changed});
  });
}

}  // namespace qora::bench
