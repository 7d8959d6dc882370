// SPDX-License-Identifier: BSD-2-Clause
#include "qora/capture/x11_pointer.h"

#include <algorithm>

namespace qora::capture {
namespace {

using std::chrono::milliseconds;

// It is asked for less often the longer it stands still: after a twentieth of that time.
constexpr int32_t kShareOfRest = 20;
constexpr milliseconds kShortest{16};
constexpr milliseconds kLongest{150};

uint8_t mix(uint32_t source, uint32_t alpha, uint8_t below) {
  return static_cast<uint8_t>(std::min<uint32_t>(source + below * (255 - alpha) / 255, 255));
}

void blendRow(const uint32_t* source, int32_t count, uint8_t* pixel) {
  for (int32_t x = 0; x < count; ++x, pixel += 4) {
    const uint32_t argb = source[x];
    for (int32_t channel = 0; channel < 3; ++channel) {
      pixel[channel] = mix(argb >> (8 * channel) & 0xff, argb >> 24, pixel[channel]);
    }
  }
}

}  // namespace

void blendImage(const std::vector<uint32_t>& image, const Area& area, const Piece& piece) {
  const Area common = intersection(area, piece.area);
  if (isEmpty(common)) return;
  for (int32_t y = common.y; y < common.y + common.height; ++y) {
    const uint32_t* source = image.data() + (y - area.y) * area.width + (common.x - area.x);
    blendRow(source, common.width,
             piece.pixels + (y - piece.area.y) * piece.stride + (common.x - piece.area.x) * 4);
  }
}

void X11Pointer::take(xcb_connection_t* connection, xcb_xfixes_get_cursor_image_cookie_t cookie) {
  const X11Reply<xcb_xfixes_get_cursor_image_reply_t> reply(
      ::xcb_xfixes_get_cursor_image_reply(connection, cookie, nullptr));
  lastLook_ = Clock::now();
  if (reply == nullptr) return;
  const Area area{reply->x - reply->xhot, reply->y - reply->yhot, reply->width, reply->height};
  if (area == area_ && reply->cursor_serial == serial_) return;
  area_ = area;
  serial_ = reply->cursor_serial;
  const uint32_t* pixels = ::xcb_xfixes_get_cursor_image_cursor_image(reply.get());
  image_.assign(pixels, pixels + area.width * area.height);
  lastMove_ = lastLook_;
}

bool X11Pointer::hasChanged() const {
  return !(area_ == drawnArea_) || serial_ != drawnSerial_;
}

void X11Pointer::markDrawn() {
  drawnArea_ = area_;
  drawnSerial_ = serial_;
}

int32_t X11Pointer::nextLook() const {
  const auto rest = std::chrono::duration_cast<milliseconds>(lastLook_ - lastMove_);
  const milliseconds interval = std::clamp(rest / kShareOfRest, kShortest, kLongest);
  const auto left = std::chrono::ceil<milliseconds>(lastLook_ + interval - Clock::now());
  return static_cast<int32_t>(std::clamp(left, milliseconds{0}, kLongest).count());
}

}  // namespace qora::capture
