// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/serve/pointer_watch.h -- Shape and place of an X screen's pointer, for viewers that
// draw it themselves: moving it then encodes nothing. One thread.
#pragma once

#include <cstdint>
#include <string>

#include "qora/capture/x11_connection.h"

namespace qora::serve {

class PointerWatch {
 public:
  // `display`: empty for the environment's. 1, or -1 when the server does not tell of its pointer.
  [[nodiscard]] int32_t open(const std::string& display);

  // Asks for it anew. 1 when it looks or stands otherwise than before.
  int32_t look();
  // Messages for a page, see docs/stream_format.md.
  const std::string& shape() const { return shape_; }
  const std::string& place() const { return place_; }
  bool hasNewShape() const { return newShape_; }  // since the last look()

 private:
  capture::X11Connection connection_;
  uint32_t serial_ = 0;
  bool newShape_ = false;
  std::string shape_;
  std::string place_;
};

}  // namespace qora::serve
