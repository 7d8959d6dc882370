// qora/tools/live_picture.h -- An I420 picture that is kept equal to a live screen.
//
// Only what was drawn on is read and converted, and what came out as it was before is no change: a
// blinking cursor's window that draws itself anew makes no frame.
#pragma once

#include <cstdint>
#include <vector>

#include "qora/capture/screen.h"
#include "qora/client/damage.h"
#include "qora/client/picture.h"

namespace qora::tools {

class LivePicture {
 public:
  // Begins anew with a picture of the caller's, black: nothing of the screen is in it yet. It stays
  // valid until the next begin() and is written by update() only.
  void begin(const client::Picture& picture);

  // Takes the screen's damage into the picture. 1; 0 when the screen's size is changing; -1 with
  // errno from the screen.
  [[nodiscard]] int32_t update(capture::Screen& screen);

  // The macroblocks that differ from the picture at the last keep(), and that picture.
  const client::Damage& changed() const { return changed_; }
  const client::Picture& kept() const { return kept_; }
  // The picture was encoded: changes count from here.
  void keep();

 private:
  void listAreas();
  void convert();

  client::Picture picture_{};
  client::Picture kept_{};
  std::vector<uint8_t> memory_;  // of kept_
  client::Damage changed_;
  client::Damage drawn_;
  // For their memory.
  std::vector<client::Area> areas_;
  std::vector<service::Rectangle> listed_;
  std::vector<capture::Piece> pieces_;
};

}  // namespace qora::tools
