#include "qora/tools/live_picture.h"

#include <cstring>

#include "qora/client/convert.h"
#include "qora/client/frame_segment.h"

namespace qora::tools {
namespace {

// More rectangles than this cost more to ask for than the pixels between them; so does a picture of
// which most is asked for.
constexpr int32_t kMostAreas = 64;
constexpr int64_t kMostPercent = 60;
constexpr uint8_t kBlack[] = {16, 128, 128};

void fillBlack(const client::Picture& picture) {
  for (int32_t plane = 0; plane < 3; ++plane) {
    for (int32_t y = 0; y < planeHeight(picture, plane); ++y) {
      std::memset(picture.plane[plane] + static_cast<ptrdiff_t>(y) * picture.stride[plane],
                  kBlack[plane], static_cast<size_t>(planeWidth(picture, plane)));
    }
  }
}

// Macroblocks [first, end) of a row of them, in one plane.
void copyRun(const client::Picture& from, const client::Picture& to, int32_t plane, int32_t row,
             int32_t first, int32_t end) {
  const int32_t size = plane == 0 ? client::kMacroblockSize : client::kMacroblockSize / 2;
  const int32_t x = first * size;
  const int32_t right = std::min(end * size, planeWidth(from, plane));
  const int32_t bottom = std::min((row + 1) * size, planeHeight(from, plane));
  for (ptrdiff_t y = row * size; y < bottom; ++y) {
    std::memcpy(to.plane[plane] + y * to.stride[plane] + x,
                from.plane[plane] + y * from.stride[plane] + x, static_cast<size_t>(right - x));
  }
}

}  // namespace

void LivePicture::begin(const client::Picture& picture) {
  picture_ = picture;
  const client::CellLayout layout = client::cellLayout(picture.width, picture.height);
  memory_.resize(layout.size);
  kept_ = {.plane = {}, .stride = {}, .width = picture.width, .height = picture.height};
  for (int32_t plane = 0; plane < 3; ++plane) {
    kept_.plane[plane] = memory_.data() + layout.offset[plane];
    kept_.stride[plane] = static_cast<int32_t>(layout.stride[plane]);
  }
  fillBlack(picture_);
  fillBlack(kept_);
  changed_.resize(picture.width, picture.height);
  drawn_.resize(picture.width, picture.height);
}

int32_t LivePicture::update(capture::Screen& screen) {
  areas_.clear();
  if (screen.takeDamage(areas_) == -1) return -1;
  drawn_.clear();
  for (const client::Area& area : areas_) drawn_.add(area);
  listAreas();
  const int32_t read = screen.read(areas_, pieces_);
  if (read != 1) return read;
  convert();
  screen.release();
  return 1;
}

// What to read: whole macroblocks, since a chroma sample needs its neighbours.
void LivePicture::listAreas() {
  drawn_.list(listed_, kMostAreas);
  areas_.clear();
  int64_t pixels = 0;
  for (const service::Rectangle& rectangle : listed_) {
    areas_.push_back({rectangle.x, rectangle.y, rectangle.width, rectangle.height});
    pixels += static_cast<int64_t>(rectangle.width) * rectangle.height;
  }
  const int64_t all = static_cast<int64_t>(picture_.width) * picture_.height;
  if (pixels * 100 > all * kMostPercent) {
    areas_.assign(1, {0, 0, picture_.width, picture_.height});
  }
}

void LivePicture::convert() {
  for (const capture::Piece& piece : pieces_) {
    convertPiece({piece.pixels, piece.stride, piece.area.width, piece.area.height}, piece.area.x,
                 piece.area.y, picture_);
    changed_.add(piece.area);
  }
  changed_.refine(kept_, picture_);
}

void LivePicture::keep() {
  changed_.forEachRun([this](int32_t row, int32_t first, int32_t end) {
    for (int32_t plane = 0; plane < 3; ++plane) {
      copyRun(picture_, kept_, plane, row, first, end);
    }
  });
  changed_.clear();
}

}  // namespace qora::tools
