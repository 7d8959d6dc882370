// SPDX-License-Identifier: BSD-2-Clause
// qora/capture/x11_screen.h -- The screen of an X server, or a part of it.
//
// The server collects where it was drawn on and reports it once, until it is asked: so asking less
// often costs less. What it collected is taken first and the pixels are read after that; whatever
// is drawn in between is reported anew.
#pragma once

#include <xcb/damage.h>
#include <xcb/xfixes.h>

#include <memory>
#include <string>
#include <vector>

#include "qora/capture/screen.h"
#include "qora/capture/x11_connection.h"
#include "qora/capture/x11_image_reader.h"
#include "qora/capture/x11_pointer.h"

namespace qora::capture {

class X11Screen final : public Screen {
 public:
  // 1, or -1 with problem(): no server, an extension that it has not, a format that is not taken, a
  // region or window that is not there.
  [[nodiscard]] int32_t open(const ScreenOptions& options);

  int32_t descriptor() const override;
  int32_t nextLook() const override;
  int32_t dispatch() override;
  ScreenSize size() const override { return {view_.width, view_.height}; }
  int32_t takeDamage(std::vector<Area>& areas) override;
  int32_t read(std::span<const Area> areas, std::vector<Piece>& pieces) override;
  void release() override {}
  const std::string& problem() const override { return problem_; }

 private:
  int32_t fail(const std::string& problem);
  int32_t lost();
  int32_t connect();
  int32_t checkFormat();
  int32_t checkExtensions();
  int32_t watch();
  void takeEvents();
  void takeEvent(const xcb_generic_event_t& event);
  int32_t lookAgain();
  int32_t findWindow(xcb_get_geometry_cookie_t geometry, xcb_translate_coordinates_cookie_t place,
                     Area& view);
  int32_t changeView(const Area& root, const Area& view);
  void addArea(Area area, std::vector<Area>& areas) const;
  int32_t takeRegion(xcb_xfixes_fetch_region_cookie_t fetch, std::vector<Area>& areas);

  ScreenOptions options_;
  std::string name_;  // of the display, for people
  X11Connection connection_;
  const xcb_screen_t* setup_ = nullptr;  // borrowed from the connection
  uint8_t damageEvent_ = 0;
  xcb_damage_damage_t damage_ = XCB_NONE;
  xcb_xfixes_region_t region_ = XCB_NONE;
  std::unique_ptr<X11ImageReader> reader_;  // before the connection ends
  X11Pointer pointer_;
  Area root_{};          // what there is
  Area view_{};          // what the picture shows, in root coordinates; may reach beyond the root
  bool drawn_ = false;   // the server has damage for us
  bool all_ = false;     // the view is new: all of it counts as damaged
  bool moved_ = false;   // root or window may have another size or place
  bool closed_ = false;  // the window is gone
  std::vector<Area> wanted_;  // scratch: what is read, in root coordinates
  std::string problem_;
};

}  // namespace qora::capture
