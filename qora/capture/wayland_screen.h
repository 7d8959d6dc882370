// SPDX-License-Identifier: BSD-2-Clause
// qora/capture/wayland_screen.h -- An output of a Wayland compositor, or a part of it, where the
// compositor offers wlr-screencopy.
//
// The compositor copies a whole picture into memory of ours as soon as something was drawn, and
// says in one rectangle where. The next copy is asked for when the last one is released. The
// pointer is drawn by the compositor.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "qora/capture/screen.h"

struct wl_buffer;
struct wl_display;
struct wl_output;
struct wl_registry;
struct wl_shm;
struct zwlr_screencopy_frame_v1;
struct zwlr_screencopy_manager_v1;

namespace qora::capture {

class WaylandScreen final : public Screen {
 public:
  WaylandScreen() = default;
  ~WaylandScreen() override;
  WaylandScreen(const WaylandScreen&) = delete;
  WaylandScreen& operator=(const WaylandScreen&) = delete;

  // 1, or -1 with problem(): no compositor, one that offers no copies, another format.
  [[nodiscard]] int32_t open(const ScreenOptions& options);

  int32_t descriptor() const override;
  int32_t nextLook() const override { return -1; }
  int32_t dispatch() override;
  ScreenSize size() const override { return size_; }
  int32_t takeDamage(std::vector<Area>& areas) override;
  int32_t read(std::span<const Area> areas, std::vector<Piece>& pieces) override;
  void release() override;
  const std::string& problem() const override { return problem_; }

 private:
  struct Listeners;  // the compositor's events

  struct Buffer {
    uint32_t format, width, height, stride;
    friend bool operator==(const Buffer&, const Buffer&) = default;
  };

  int32_t fail(const std::string& problem);
  int32_t lost(const std::string& problem);
  int32_t check();
  int32_t takeEvents();
  void ask();
  void copy();
  int32_t makeBuffer();
  void dropBuffer();
  void dropFrame();

  ScreenOptions options_;
  std::string name_;  // of the compositor, for people
  wl_display* display_ = nullptr;
  wl_registry* registry_ = nullptr;
  wl_shm* shm_ = nullptr;
  wl_output* output_ = nullptr;
  uint32_t outputName_ = 0;
  zwlr_screencopy_manager_v1* manager_ = nullptr;
  zwlr_screencopy_frame_v1* frame_ = nullptr;  // asked for; null: none is
  wl_buffer* buffer_ = nullptr;
  uint8_t* memory_ = nullptr;
  size_t bytes_ = 0;
  Buffer offered_{};  // what the next copy needs
  Buffer made_{};     // what buffer_ is
  ScreenSize size_{0, 0};
  bool ready_ = false;  // the copy is there
  bool upsideDown_ = false;
  bool all_ = false;       // the picture is new
  int32_t failures_ = 0;   // one after the other
  bool closed_ = false;    // the output is gone
  bool unusable_ = false;  // no buffer for what is offered
  std::vector<Area> damage_;
  std::string problem_;
};

}  // namespace qora::capture
