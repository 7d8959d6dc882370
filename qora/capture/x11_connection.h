// SPDX-License-Identifier: BSD-2-Clause
// qora/capture/x11_connection.h -- What xcb hands out and the caller has to give back.
#pragma once

#include <xcb/xcb.h>

#include <cstdlib>
#include <memory>

namespace qora::capture {

struct FreeMemory {
  void operator()(void* memory) const { std::free(memory); }
};
template <typename T>
using X11Reply = std::unique_ptr<T, FreeMemory>;
using X11Error = X11Reply<xcb_generic_error_t>;

struct Disconnect {
  void operator()(xcb_connection_t* connection) const { ::xcb_disconnect(connection); }
};
using X11Connection = std::unique_ptr<xcb_connection_t, Disconnect>;

}  // namespace qora::capture
