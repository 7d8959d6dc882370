// SPDX-License-Identifier: BSD-2-Clause
#include "qora/capture/screen.h"

#include <algorithm>
#include <cstdlib>

#ifdef QORA_WAYLAND
#include "qora/capture/wayland_screen.h"
#endif
#include "qora/capture/x11_screen.h"

namespace qora::capture {

Area intersection(const Area& one, const Area& other) {
  const int32_t left = std::max(one.x, other.x);
  const int32_t top = std::max(one.y, other.y);
  const int32_t right = std::min(one.x + one.width, other.x + other.width);
  const int32_t bottom = std::min(one.y + one.height, other.y + other.height);
  return {left, top, std::max(right - left, 0), std::max(bottom - top, 0)};
}

bool isAll(std::span<const Area> areas, std::span<const Piece> pieces) {
  int64_t missing = 0;
  for (const Area& area : areas) missing += int64_t{area.width} * area.height;
  for (const Piece& piece : pieces) missing -= int64_t{piece.area.width} * piece.area.height;
  return missing == 0;
}

namespace {

template <typename Kind>
std::unique_ptr<Screen> open(const ScreenOptions& options, std::string& problem) {
  auto screen = std::make_unique<Kind>();
  if (screen->open(options) == 1) return screen;
  problem = screen->problem();
  return nullptr;
}

// An X display has its number after a colon, a compositor's socket has none.
[[maybe_unused]] bool meansWayland(const ScreenOptions& options) {
  if (!options.display.empty()) return options.display.find(':') == std::string::npos;
  return std::getenv("DISPLAY") == nullptr && std::getenv("WAYLAND_DISPLAY") != nullptr;
}

}  // namespace

std::unique_ptr<Screen> openScreen(const ScreenOptions& options, std::string& problem) {
#ifdef QORA_WAYLAND
  if (meansWayland(options)) return open<WaylandScreen>(options, problem);
#endif
  return open<X11Screen>(options, problem);
}

}  // namespace qora::capture
