// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/view/view_window.h"

#include <SDL.h>

#include <algorithm>

namespace qora::tools {
namespace {

ViewKey keyOf(const SDL_Event& event) {
  if (event.type == SDL_QUIT) return ViewKey::quit;
  if (event.type != SDL_KEYDOWN) return ViewKey::none;
  switch (event.key.keysym.sym) {
    case SDLK_SPACE:
      return event.key.repeat == 0 ? ViewKey::pause : ViewKey::none;
    case SDLK_s:
      return ViewKey::step;
    case SDLK_q:
      return ViewKey::quit;
    default:
      return ViewKey::none;
  }
}

bool isFullScreenKey(const SDL_Event& event) {
  return event.type == SDL_KEYDOWN && event.key.repeat == 0 && event.key.keysym.sym == SDLK_f;
}

}  // namespace

ViewWindow::~ViewWindow() {
  if (texture_ != nullptr) SDL_DestroyTexture(texture_);
  if (renderer_ != nullptr) SDL_DestroyRenderer(renderer_);
  if (window_ != nullptr) SDL_DestroyWindow(window_);
  SDL_Quit();
}

int32_t ViewWindow::fail() {
  problem_ = std::string("no window: ") + SDL_GetError();
  return -1;
}

int32_t ViewWindow::open(int32_t width, int32_t height) {
  SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
  SDL_SetHint(SDL_HINT_RENDER_SCALE_QUALITY, "linear");
  SDL_SetHint(SDL_HINT_VIDEO_ALLOW_SCREENSAVER, "1");
  if (SDL_Init(SDL_INIT_VIDEO) != 0) return fail();
  SDL_SetYUVConversionMode(SDL_YUV_CONVERSION_BT709);
  SDL_Rect usable{0, 0, width, height};
  SDL_GetDisplayUsableBounds(0, &usable);
  const double scale = std::min(
      {1.0, static_cast<double>(usable.w) / width, static_cast<double>(usable.h) / height});
  window_ = SDL_CreateWindow("qora-view", SDL_WINDOWPOS_UNDEFINED, SDL_WINDOWPOS_UNDEFINED,
                             std::max(1, static_cast<int>(width * scale)),
                             std::max(1, static_cast<int>(height * scale)), SDL_WINDOW_RESIZABLE);
  if (window_ == nullptr) return fail();
  renderer_ = SDL_CreateRenderer(window_, -1, 0);
  if (renderer_ == nullptr) renderer_ = SDL_CreateRenderer(window_, -1, SDL_RENDERER_SOFTWARE);
  return renderer_ == nullptr ? fail() : 1;
}

// Before a picture of another size.
int32_t ViewWindow::fit(int32_t width, int32_t height) {
  if (texture_ != nullptr) SDL_DestroyTexture(texture_);
  texture_ = SDL_CreateTexture(renderer_, SDL_PIXELFORMAT_IYUV, SDL_TEXTUREACCESS_STREAMING, width,
                               height);
  if (texture_ == nullptr) return fail();
  width_ = width;
  height_ = height;
  return SDL_RenderSetLogicalSize(renderer_, width, height) == 0 ? 1 : fail();
}

int32_t ViewWindow::show(const client::Picture& picture) {
  const bool fits = picture.width == width_ && picture.height == height_;
  if (!fits && fit(picture.width, picture.height) == -1) return -1;
  if (SDL_UpdateYUVTexture(texture_, nullptr, picture.plane[0], picture.stride[0], picture.plane[1],
                           picture.stride[1], picture.plane[2], picture.stride[2]) != 0) {
    return fail();
  }
  draw();
  return 1;
}

void ViewWindow::draw() {
  SDL_SetRenderDrawColor(renderer_, 0, 0, 0, 255);
  SDL_RenderClear(renderer_);
  if (texture_ != nullptr) SDL_RenderCopy(renderer_, texture_, nullptr, nullptr);
  SDL_RenderPresent(renderer_);
}

void ViewWindow::setTitle(const std::string& title) {
  if (title == title_) return;
  title_ = title;
  SDL_SetWindowTitle(window_, title.c_str());
}

ViewKey ViewWindow::takeKey() {
  SDL_Event event;
  bool isDrawn = true;
  ViewKey key = ViewKey::none;
  while (key == ViewKey::none && SDL_PollEvent(&event) == 1) {
    if (isFullScreenKey(event)) {
      const bool isFull = (SDL_GetWindowFlags(window_) & SDL_WINDOW_FULLSCREEN_DESKTOP) != 0;
      SDL_SetWindowFullscreen(window_, isFull ? 0 : SDL_WINDOW_FULLSCREEN_DESKTOP);
    }
    isDrawn = isDrawn && event.type != SDL_WINDOWEVENT;
    key = keyOf(event);
  }
  if (!isDrawn) draw();
  return key;
}

}  // namespace qora::tools
