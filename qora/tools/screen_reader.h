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
  // Takes the screen's damage and `besides`, reads and converts it into the picture, and adds it to
  // `changed`; all have one size. The damage may be more than really changed. 1; 0 when the
  // screen's size is changing; -1 with errno from the screen.
  [[nodiscard]] int32_t read(capture::Screen& screen, const client::Picture& picture,
                             const client::Damage& besides, client::Damage& changed);

 private:
  void listAreas(const client::Picture& picture);

  // For their memory.
  client::Damage drawn_;
  std::vector<client::Area> areas_;
  std::vector<service::Rectangle> listed_;
  std::vector<capture::Piece> pieces_;
};

}  // namespace qora::tools
