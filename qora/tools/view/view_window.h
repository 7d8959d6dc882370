// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/view/view_window.h -- A window that shows pictures. One at a time in a process.
#pragma once

#include <cstdint>
#include <string>

#include "qora/client/picture.h"

struct SDL_Renderer;
struct SDL_Texture;
struct SDL_Window;

namespace qora::tools {

enum class ViewKey { none, pause, step, quit };

class ViewWindow {
 public:
  ViewWindow() = default;
  ~ViewWindow();
  ViewWindow(const ViewWindow&) = delete;
  ViewWindow& operator=(const ViewWindow&) = delete;

  // As large as the picture, or what of that fits on the display. 1, or -1 with problem().
  [[nodiscard]] int32_t open(int32_t width, int32_t height);
  bool isOpen() const { return window_ != nullptr; }

  // Scales it to the window, its sides in proportion. Colours are BT.709, limited range. 1, or -1
  // with problem().
  [[nodiscard]] int32_t show(const client::Picture& picture);
  void setTitle(const std::string& title);

  // What the user wants, if anything; full screen and new sizes are seen to here.
  ViewKey takeKey();

  const std::string& problem() const { return problem_; }

 private:
  int32_t fail();
  int32_t fit(int32_t width, int32_t height);
  void draw();

  SDL_Window* window_ = nullptr;
  SDL_Renderer* renderer_ = nullptr;
  SDL_Texture* texture_ = nullptr;
  int32_t width_ = 0;  // of the texture
  int32_t height_ = 0;
  std::string title_;
  std::string problem_;
};

}  // namespace qora::tools
