// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/picture_check.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <limits>

#include "qora/client/damage.h"

namespace qora::tools {
namespace {

using client::kMacroblockSize;
using client::Picture;

// A part of one plane.
struct Part {
  int32_t plane, x, y, width, height;
};

// A macroblock's part of a plane, cut at the picture's end.
Part partOf(const Picture& picture, int32_t plane, int32_t column, int32_t row) {
  const int32_t size = plane == 0 ? kMacroblockSize : kMacroblockSize / 2;
  const int32_t x = column * size;
  const int32_t y = row * size;
  return {plane, x, y, std::min(size, planeWidth(picture, plane) - x),
          std::min(size, planeHeight(picture, plane) - y)};
}

const uint8_t* rowOf(const Picture& picture, const Part& part, int32_t row) {
  return picture.plane[part.plane] + ptrdiff_t{part.y + row} * picture.stride[part.plane] + part.x;
}

int64_t squaresIn(const Picture& one, const Picture& other, const Part& part) {
  int64_t sum = 0;
  for (int32_t row = 0; row < part.height; ++row) {
    const uint8_t* left = rowOf(one, part, row);
    const uint8_t* right = rowOf(other, part, row);
    uint32_t squares = 0;  // room for a row of 65535 samples
    for (int32_t x = 0; x < part.width; ++x) {
      const int32_t difference = left[x] - right[x];
      squares += static_cast<uint32_t>(difference * difference);
    }
    sum += squares;
  }
  return sum;
}

bool areEqual(const Picture& one, const Picture& other, int32_t column, int32_t row) {
  for (int32_t plane = 0; plane < 3; ++plane) {
    const Part part = partOf(one, plane, column, row);
    for (int32_t y = 0; y < part.height; ++y) {
      const auto size = static_cast<size_t>(part.width);
      if (std::memcmp(rowOf(one, part, y), rowOf(other, part, y), size) != 0) return false;
    }
  }
  return true;
}

// What coding a neighbour or repeating with a coarser quantizer may do to a macroblock is small; a
// missing copy of text is not.
bool isDrift(double best, double now) {
  return now > 4 * best + 40;
}

int32_t macroblocks(int32_t pixels) {
  return (pixels + kMacroblockSize - 1) / kMacroblockSize;
}

}  // namespace

double decibels(double meanSquare) {
  if (meanSquare == 0) return std::numeric_limits<double>::infinity();
  return 10 * std::log10(255.0 * 255.0 / meanSquare);
}

std::string decibelText(double decibels) {
  if (std::isinf(decibels)) return "equal";
  char text[32];
  std::snprintf(text, sizeof text, "%.2f dB", decibels);
  return text;
}

std::string driftText(const CheckFigures& figures) {
  if (figures.driftFrame == -1) return "";
  return "from frame " + std::to_string(figures.driftFrame) + " on, at " +
         std::to_string(figures.driftX) + "," + std::to_string(figures.driftY);
}

void PictureMemory::resize(int32_t width, int32_t height) {
  picture_.width = width;
  picture_.height = height;
  for (int32_t plane = 0; plane < 3; ++plane) {
    auto& samples = planes_[static_cast<size_t>(plane)];
    samples.resize(static_cast<size_t>(planeWidth(picture_, plane)) *
                   static_cast<size_t>(planeHeight(picture_, plane)));
    picture_.plane[plane] = samples.data();
    picture_.stride[plane] = planeWidth(picture_, plane);
  }
}

void PictureCheck::start(const Picture& source) {
  before_.resize(source.width, source.height);
  best_.assign(static_cast<size_t>(macroblocks(source.width)) *
                   static_cast<size_t>(macroblocks(source.height)),
               0);
}

double PictureCheck::add(const Picture& source, const Picture& decoded, bool newStart) {
  const Picture& before = before_.picture();
  const bool another = before.width != source.width || before.height != source.height;
  if (another) start(source);
  int64_t squares = 0;
  int64_t samples = 0;
  for (int32_t plane = 0; plane < 3; ++plane) {
    const Part whole{plane, 0, 0, planeWidth(source, plane), planeHeight(source, plane)};
    squares += squaresIn(source, decoded, whole);
    samples += int64_t{whole.width} * whole.height;
  }
  const double psnr = decibels(static_cast<double>(squares) / static_cast<double>(samples));
  if (figures_.worstFrame == -1 || psnr < figures_.worstPsnr) {
    figures_.worstFrame = figures_.frames;
    figures_.worstPsnr = psnr;
  }
  squares_ += static_cast<double>(squares);
  samples_ += static_cast<double>(samples);
  checkDrift(source, decoded, newStart || another);
  keep(source);
  ++figures_.frames;
  return psnr;
}

void PictureCheck::checkDrift(const Picture& source, const Picture& decoded, bool newStart) {
  const int32_t columns = macroblocks(source.width);
  for (int32_t row = 0; row < macroblocks(source.height); ++row) {
    for (int32_t column = 0; column < columns; ++column) {
      const Part luma = partOf(source, 0, column, row);
      const double error = static_cast<double>(squaresIn(source, decoded, luma)) /
                           (static_cast<double>(luma.width) * luma.height);
      double& best = best_[static_cast<size_t>(row) * static_cast<size_t>(columns) +
                           static_cast<size_t>(column)];
      if (newStart || !areEqual(source, before_.picture(), column, row)) {
        best = error;
        continue;
      }
      if (isDrift(best, error) && figures_.driftFrame == -1) {
        figures_.driftFrame = figures_.frames;
        figures_.driftX = luma.x;
        figures_.driftY = luma.y;
      }
      best = std::min(best, error);
    }
  }
}

void PictureCheck::keep(const Picture& source) {
  const Picture& kept = before_.picture();
  for (int32_t plane = 0; plane < 3; ++plane) {
    const Part whole{plane, 0, 0, planeWidth(source, plane), planeHeight(source, plane)};
    for (int32_t y = 0; y < whole.height; ++y) {
      std::memcpy(kept.plane[plane] + ptrdiff_t{y} * kept.stride[plane], rowOf(source, whole, y),
                  static_cast<size_t>(whole.width));
    }
  }
}

CheckFigures PictureCheck::figures() const {
  CheckFigures figures = figures_;
  figures.psnr = samples_ == 0 ? 0 : decibels(squares_ / samples_);
  return figures;
}

}  // namespace qora::tools
