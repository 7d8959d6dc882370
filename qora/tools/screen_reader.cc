// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/screen_reader.h"

#include <cstddef>
#include <cstring>

#include "qora/client/convert.h"

namespace qora::tools {
namespace {

// More rectangles than this cost more to ask for than the pixels between them; so does a picture of
// which most is asked for.
constexpr int32_t kMostAreas = 64;
constexpr int64_t kMostPercent = 60;
constexpr uint8_t kBlack[] = {16, 128, 128};

}  // namespace

void fillBlack(const client::Picture& picture) {
  for (int32_t plane = 0; plane < 3; ++plane) {
    for (ptrdiff_t y = 0; y < planeHeight(picture, plane); ++y) {
      std::memset(picture.plane[plane] + y * picture.stride[plane], kBlack[plane],
                  static_cast<size_t>(planeWidth(picture, plane)));
    }
  }
}

int32_t ScreenReader::read(capture::Screen& screen, const client::Damage& besides) {
  areas_.clear();
  if (screen.takeDamage(areas_) == -1) return -1;
  drawn_ = besides;
  for (const client::Area& area : areas_) drawn_.add(area);
  listAreas();
  const int32_t read = screen.read(areas_, pieces_);
  drawn_.clear();
  if (!capture::isAll(areas_, pieces_)) return read;
  for (const client::Area& area : areas_) drawn_.add(area);
  return read;
}

void ScreenReader::convert(capture::Screen& screen, const client::Picture& picture,
                           client::Damage& changed) {
  for (const capture::Piece& piece : pieces_) {
    convertPiece({piece.pixels, piece.stride, piece.area.width, piece.area.height}, piece.area.x,
                 piece.area.y, picture);
    changed.add(piece.area);
  }
  screen.release();
}

// What to read: whole macroblocks, since a chroma sample needs its neighbours.
void ScreenReader::listAreas() {
  drawn_.list(listed_, kMostAreas);
  areas_.clear();
  int64_t pixels = 0;
  for (const service::Rectangle& rectangle : listed_) {
    areas_.push_back({rectangle.x, rectangle.y, rectangle.width, rectangle.height});
    pixels += static_cast<int64_t>(rectangle.width) * rectangle.height;
  }
  const int64_t all = static_cast<int64_t>(drawn_.width()) * drawn_.height();
  if (pixels * 100 > all * kMostPercent) areas_.assign(1, {0, 0, drawn_.width(), drawn_.height()});
}

}  // namespace qora::tools
