// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/screen_reader.h -- What was drawn on a live screen, into an I420 picture.
#pragma once

#include <cstdint>
#include <vector>

#include "qora/capture/screen.h"
#include "qora/client/damage.h"
#include "qora/client/picture.h"

namespace qora::tools {

// Fills a picture with black.
void fillBlack(const client::Picture& picture);

class ScreenReader {
 public:
  // Takes the screen's damage and `besides`, which is of the picture's size, and reads it. 1; 0
  // when the screen's size is changing; -1 with errno from the screen.
  [[nodiscard]] int32_t read(capture::Screen& screen, const client::Damage& besides);
  // The macroblocks that were read from end to end.
  const client::Damage& drawn() const { return drawn_; }
  // After a read() that returned 1: converts what was read into the picture, and adds it to
  // `changed`. It may be more than really changed.
  void convert(capture::Screen& screen, const client::Picture& picture, client::Damage& changed);

 private:
  void listAreas();

  client::Damage drawn_;
  // For their memory.
  std::vector<client::Area> areas_;
  std::vector<service::Rectangle> listed_;
  std::vector<capture::Piece> pieces_;
};

}  // namespace qora::tools
