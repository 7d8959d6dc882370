// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/serve/pointer_watch.h"

#include <xcb/xfixes.h>

#include <initializer_list>
#include <span>
#include <vector>

namespace qora::serve {
namespace {

std::string base64(const std::vector<uint8_t>& bytes) {
  constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (size_t at = 0; at < bytes.size(); at += 3) {
    const size_t have = bytes.size() - at;
    const uint32_t group = static_cast<uint32_t>(bytes[at]) << 16 |
                           (have > 1 ? static_cast<uint32_t>(bytes[at + 1]) << 8 : 0) |
                           (have > 2 ? bytes[at + 2] : 0);
    for (size_t digit = 0; digit < 4; ++digit) {
      text += digit > have ? '=' : kDigits[group >> (18 - 6 * digit) & 63];
    }
  }
  return text;
}

std::string numbered(std::string text, std::initializer_list<int32_t> numbers) {
  for (const int32_t number : numbers) text.append(1, ' ').append(std::to_string(number));
  return text;
}

// Premultiplied ARGB to what a page's pixels are.
std::vector<uint8_t> straightPixels(std::span<const uint32_t> pixels) {
  std::vector<uint8_t> bytes;
  for (const uint32_t pixel : pixels) {
    const uint32_t alpha = pixel >> 24;
    for (const int32_t shift : {16, 8, 0}) {
      const uint32_t value = pixel >> shift & 255;
      bytes.push_back(static_cast<uint8_t>(alpha == 0 ? 0 : value * 255 / alpha));
    }
    bytes.push_back(static_cast<uint8_t>(alpha));
  }
  return bytes;
}

}  // namespace

int32_t PointerWatch::open(const std::string& display) {
  connection_.reset(xcb_connect(display.empty() ? nullptr : display.c_str(), nullptr));
  xcb_connection_t* const server = connection_.get();
  if (xcb_connection_has_error(server) != 0) return -1;
  const auto* extension = xcb_get_extension_data(server, &xcb_xfixes_id);
  if (extension == nullptr || extension->present == 0) return -1;
  const capture::X11Reply<xcb_xfixes_query_version_reply_t> version(
      xcb_xfixes_query_version_reply(server, xcb_xfixes_query_version(server, 2, 0), nullptr));
  return version == nullptr ? -1 : 1;
}

int32_t PointerWatch::look() {
  newShape_ = false;
  xcb_connection_t* const server = connection_.get();
  // No answer while no pointer is shown: the last one stands.
  const capture::X11Reply<xcb_xfixes_get_cursor_image_reply_t> image(
      xcb_xfixes_get_cursor_image_reply(server, xcb_xfixes_get_cursor_image(server), nullptr));
  if (image == nullptr) return 0;
  const std::string place = numbered("pointer", {image->x, image->y});
  newShape_ = shape_.empty() || image->cursor_serial != serial_;
  if (newShape_) {
    serial_ = image->cursor_serial;
    const uint32_t* const pixels = xcb_xfixes_get_cursor_image_cursor_image(image.get());
    const size_t count = size_t{image->width} * image->height;
    shape_ = numbered("cursor", {image->xhot, image->yhot, image->width, image->height});
    shape_.append(1, ' ').append(base64(straightPixels({pixels, count})));
  }
  const bool moved = place != place_;
  place_ = place;
  return newShape_ || moved ? 1 : 0;
}

}  // namespace qora::serve
