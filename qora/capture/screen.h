// SPDX-License-Identifier: BSD-2-Clause
// qora/capture/screen.h -- Where live pictures come from: a screen that somebody else draws on.
//
//     while (screen->dispatch() == 0) { poll() screen->descriptor() for screen->nextLook() ms }
//     screen->takeDamage(areas);     // where it was drawn on since the last time
//     screen->read(areas, pieces);   // what it shows there
//     ... convert the pieces ...
//     screen->release();
//
// Coordinates are pixels of the picture, which is the whole screen or the part that was asked for.
// A caller that skips frames leaves dispatch() alone for a while: damage adds up, nothing is lost.
//
// Results: 1, 0 for "nothing there", -1 with errno: EPIPE when the screen is gone, the system's
// otherwise; problem() says it in words. One thread.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "qora/client/damage.h"

namespace qora::capture {

using client::Area;

// The part of both; without width or height when they do not touch.
Area intersection(const Area& one, const Area& other);
inline bool isEmpty(const Area& area) {
  return area.width <= 0 || area.height <= 0;
}

// Pixels as they were read: 4 bytes each, in memory blue, green, red and one of no meaning.
struct Piece {
  Area area;
  uint8_t* pixels;  // of the area's upper left corner; the reader may write into them
  int32_t stride;   // bytes from one row to the next
};

struct ScreenSize {
  int32_t width, height;
  friend bool operator==(const ScreenSize&, const ScreenSize&) = default;
};

class Screen {
 public:
  virtual ~Screen() = default;

  // Becomes readable when dispatch() may have something to say.
  virtual int32_t descriptor() const = 0;
  // Milliseconds after which dispatch() is to be called even if the descriptor stays silent; -1:
  // never. Only things that no event reports, such as a moved pointer, wait for it.
  virtual int32_t nextLook() const = 0;

  // Takes in what happened; never waits for damage. 1: there is some. To be called before each
  // wait, since reading may have taken events in. Only here the picture's size changes; all of the
  // new picture is damaged then. -1 with errno: there is nothing to see any more, now or later.
  [[nodiscard]] virtual int32_t dispatch() = 0;
  virtual ScreenSize size() const = 0;

  // Appends what was drawn on since the last call, inside the picture; the areas may overlap. It is
  // the caller's to read from then on: it is not reported again. "Drawn on" need not mean changed.
  [[nodiscard]] virtual int32_t takeDamage(std::vector<Area>& areas) = 0;

  // Reads areas that do not overlap, lie inside the picture and begin and end at even coordinates
  // or the picture's end. `pieces` is replaced, and they keep to the same; a part of the picture
  // that the screen does not reach has no piece. 0: the size is changing, dispatch() is to be
  // called.
  [[nodiscard]] virtual int32_t read(std::span<const Area> areas, std::vector<Piece>& pieces) = 0;
  // The pieces of the last read() are not used any more.
  virtual void release() = 0;

  // One line about the last -1.
  virtual const std::string& problem() const = 0;
};

struct ScreenOptions {
  // An X display or the socket of a Wayland compositor; empty: as the environment says, X first.
  std::string display;
  Area region{0, 0, 0, 0};  // part of the screen; without width and height: all of it
  uint32_t window = 0;      // an X window's number, which is followed as it moves; 0: none
  bool pointer = true;      // draw the mouse pointer into what is read
};

// Whether the pieces are all of the areas that were read: nothing was out of the screen's reach.
bool isAll(std::span<const Area> areas, std::span<const Piece> pieces);

// Null: `problem` says why.
std::unique_ptr<Screen> openScreen(const ScreenOptions& options, std::string& problem);

}  // namespace qora::capture
