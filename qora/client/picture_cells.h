// SPDX-License-Identifier: BSD-2-Clause
// qora/client/picture_cells.h -- The pictures of one stream in a segment: a few cells of one size,
// so that one can be filled while the service reads others.
//
// A cell is in use while anybody holds it: the caller who fills it, a frame in flight, or the
// stream because it is the present picture. Knows also what each cell's content lacks of the
// present picture. Plain memory; one thread at a time.
#pragma once

#include <cstdint>
#include <vector>

#include "qora/client/damage.h"
#include "qora/client/frame_segment.h"
#include "qora/client/picture.h"

namespace qora::client {

// Copies macroblocks from one picture to another of the same size.
void copyCells(const Picture& from, const Picture& to, const Damage& cells);

class PictureCells {
 public:
  // `count` cells of that size in pixels, none in use and without memory yet. The cells are of the
  // even size that is coded; pictures for the caller have the given one.
  void resize(int32_t width, int32_t height, int32_t count);
  uint64_t bytes() const { return layout_.size * cells_.size(); }
  // The cells stand `start` bytes into a segment from now on; the contents of those in use move.
  void moveTo(uint8_t* segment, uint64_t start);

  // A free cell, held once, for the caller to fill; -1: none.
  int32_t acquire();
  // The cell that is being filled as `picture`, every plane and stride of it; -1: none.
  int32_t find(const Picture& picture) const;
  int32_t acquired() const { return acquired_; }  // how many there are
  // The caller is done with it, and still holds it.
  void noteFilled(int32_t cell);
  void hold(int32_t cell) { ++at(cell).users; }
  void drop(int32_t cell) { --at(cell).users; }
  bool isHeldOnce(int32_t cell) const { return cells_[static_cast<size_t>(cell)].users == 1; }

  // The cell is the present picture, which differs from the one before by `changed`.
  void makePresent(int32_t cell, const Damage& changed);
  // Nobody knows any more what the cell holds.
  void forget(int32_t cell) { at(cell).lacks.addAll(); }
  // Copies what the cell lacks of the present picture, if there is one; not the macroblocks that
  // are drawn anew.
  void bringUpToDate(int32_t cell, int32_t present, const Damage* drawn = nullptr);

  // With the caller's size, and with the even one.
  Picture picture(int32_t cell) const { return pictureOf(cell, width_, height_); }
  Picture coded(int32_t cell) const { return pictureOf(cell, codedWidth(), codedHeight()); }
  int32_t codedWidth() const { return width_ + width_ % 2; }
  int32_t codedHeight() const { return height_ + height_ % 2; }
  // Fills what the even size has more, by repeating the edge.
  void repeatEdges(int32_t cell) const;
  void place(int32_t cell, service::EncodeRequest& request) const {
    placeAt(start_ + layout_.size * static_cast<uint32_t>(cell), layout_, request);
  }

 private:
  struct Cell {
    int32_t users = 0;
    bool filling = false;
    Damage lacks;
  };

  Cell& at(int32_t cell) { return cells_[static_cast<size_t>(cell)]; }
  Picture pictureOf(int32_t cell, int32_t width, int32_t height) const {
    uint8_t* start = segment_ + start_ + layout_.size * static_cast<uint32_t>(cell);
    return pictureAt(start, layout_, width, height);
  }

  int32_t width_ = 0;
  int32_t height_ = 0;
  CellLayout layout_{};
  uint8_t* segment_ = nullptr;
  uint64_t start_ = 0;
  int32_t acquired_ = 0;
  std::vector<Cell> cells_;
};

}  // namespace qora::client
