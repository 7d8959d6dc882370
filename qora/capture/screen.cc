#include "qora/capture/screen.h"

#include <algorithm>

#include "qora/capture/x11_screen.h"

namespace qora::capture {

Area intersection(const Area& one, const Area& other) {
  const int32_t left = std::max(one.x, other.x);
  const int32_t top = std::max(one.y, other.y);
  const int32_t right = std::min(one.x + one.width, other.x + other.width);
  const int32_t bottom = std::min(one.y + one.height, other.y + other.height);
  return {left, top, std::max(right - left, 0), std::max(bottom - top, 0)};
}

std::unique_ptr<Screen> openScreen(const ScreenOptions& options, std::string& problem) {
  auto screen = std::make_unique<X11Screen>();
  if (screen->open(options) == 1) return screen;
  problem = screen->problem();
  return nullptr;
}

}  // namespace qora::capture
