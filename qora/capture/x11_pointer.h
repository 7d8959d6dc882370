// SPDX-License-Identifier: BSD-2-Clause
// qora/capture/x11_pointer.h -- The mouse pointer, which is no part of what an X screen's pixels
// say.
//
// Nothing reports its motion: its place is asked for, see X11Screen. It is drawn into the pieces
// that were read.
#pragma once

#include <xcb/xfixes.h>

#include <chrono>
#include <cstdint>
#include <vector>

#include "qora/capture/screen.h"
#include "qora/capture/x11_connection.h"

namespace qora::capture {

// Draws `image`, premultiplied ARGB in rows of `area.width`, over a piece. Both areas have one
// origin.
void blendImage(const std::vector<uint32_t>& image, const Area& area, const Piece& piece);

class X11Pointer {
 public:
  // Takes the answer to xcb_xfixes_get_cursor_image(). While no pointer is shown there is none, and
  // the last one stands.
  void take(xcb_connection_t* connection, xcb_xfixes_get_cursor_image_cookie_t cookie);
  // Whether it looks otherwise than markDrawn() last saw it.
  bool hasChanged() const;
  // The two places that have to be read anew for that: root coordinates.
  const Area& areaBefore() const { return drawnArea_; }
  const Area& area() const { return area_; }
  void markDrawn();

  void draw(const Piece& piece) const { blendImage(image_, area_, piece); }

  // Milliseconds to the next question: soon while it moves.
  int32_t nextLook() const;
  bool isLookDue() const { return nextLook() == 0; }

 private:
  using Clock = std::chrono::steady_clock;

  Area area_{};
  uint32_t serial_ = 0;  // of the image
  std::vector<uint32_t> image_;
  Area drawnArea_{};
  uint32_t drawnSerial_ = 0;
  Clock::time_point lastLook_{};
  Clock::time_point lastMove_{};
};

}  // namespace qora::capture
