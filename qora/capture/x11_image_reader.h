// SPDX-License-Identifier: BSD-2-Clause
// qora/capture/x11_image_reader.h -- Pixels of an X window, many rectangles in one round trip.
//
// They come through shared memory where that can be had, else over the connection. All requests are
// sent before the first reply is awaited: one by one, a hundred small rectangles take forty times
// as long.
#pragma once

#include <xcb/shm.h>
#include <xcb/xcb.h>

#include <cstddef>
#include <span>
#include <vector>

#include "qora/capture/screen.h"
#include "qora/capture/x11_connection.h"

namespace qora::capture {

class X11ImageReader {
 public:
  X11ImageReader(xcb_connection_t* connection, xcb_window_t window)
      : connection_(connection), window_(window) {}
  ~X11ImageReader() { unmap(); }
  X11ImageReader(const X11ImageReader&) = delete;
  X11ImageReader& operator=(const X11ImageReader&) = delete;

  // Makes room for that many pixels; pieces become invalid. Without shared memory there is nothing
  // to make.
  void makeRoom(size_t pixels);

  // Reads areas of the window, together no more than there is room for; a piece each, its area as
  // asked for. 1; 0 when the server refused one, as it does where the window has become smaller; -1
  // with errno EPIPE when the server is gone. The pieces are valid until the next call.
  [[nodiscard]] int32_t read(std::span<const Area> areas, std::vector<Piece>& pieces);

 private:
  void attach(size_t size);
  int32_t attachDescriptor(size_t size);
  int32_t attachSystemV(size_t size);
  bool isAttached(xcb_void_cookie_t cookie);
  void unmap();
  void requestShared(std::span<const Area> areas, std::vector<Piece>& pieces);
  int32_t takeShared();
  void requestCopies(std::span<const Area> areas);
  int32_t takeCopies(std::span<const Area> areas, std::vector<Piece>& pieces);

  xcb_connection_t* connection_;
  xcb_window_t window_;
  xcb_shm_seg_t segment_ = XCB_NONE;  // none: over the connection
  uint8_t* memory_ = nullptr;
  size_t size_ = 0;       // bytes of the mapping
  bool systemV_ = false;  // which kind of mapping
  std::vector<unsigned> requests_;
  std::vector<X11Reply<xcb_get_image_reply_t>> copies_;
};

}  // namespace qora::capture
