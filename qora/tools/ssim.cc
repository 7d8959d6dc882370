// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/ssim.h"

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace qora::tools {
namespace {

using client::Picture;

constexpr int32_t kCell = 4;  // a window is 2x2 cells
constexpr double kWindow = 64;
constexpr double kPeak = 255.0 * 255.0;
// They keep flat windows from dividing by nothing.
constexpr double kLuminance = 0.01 * 0.01 * kPeak * kWindow;
constexpr double kContrast = 0.03 * 0.03 * kPeak * kWindow * (kWindow - 1);

struct Sums {
  int32_t one = 0, other = 0;
  int32_t squares = 0;  // of both
  int32_t products = 0;
};

Sums operator+(const Sums& left, const Sums& right) {
  return {left.one + right.one, left.other + right.other, left.squares + right.squares,
          left.products + right.products};
}

double similarity(const Sums& sums) {
  const double one = sums.one;
  const double other = sums.other;
  const double means = one * one + other * other;
  const double variances = sums.squares * kWindow - means;
  const double covariance = sums.products * kWindow - one * other;
  return (2 * one * other + kLuminance) * (2 * covariance + kContrast) /
         ((means + kLuminance) * (variances + kContrast));
}

const uint8_t* sampleAt(const Picture& picture, int32_t plane, int32_t x, int32_t y) {
  return picture.plane[plane] + ptrdiff_t{y} * picture.stride[plane] + x;
}

Sums sumCell(const Picture& one, const Picture& other, int32_t plane, int32_t column, int32_t row) {
  Sums sums;
  for (int32_t y = row * kCell; y < (row + 1) * kCell; ++y) {
    const uint8_t* left = sampleAt(one, plane, column * kCell, y);
    const uint8_t* right = sampleAt(other, plane, column * kCell, y);
    for (int32_t x = 0; x < kCell; ++x) {
      sums.one += left[x];
      sums.other += right[x];
      sums.squares += left[x] * left[x] + right[x] * right[x];
      sums.products += left[x] * right[x];
    }
  }
  return sums;
}

double planeSimilarity(const Picture& one, const Picture& other, int32_t plane) {
  const int32_t columns = planeWidth(one, plane) / kCell;
  const int32_t rows = planeHeight(one, plane) / kCell;
  std::vector<Sums> above(static_cast<size_t>(columns));
  std::vector<Sums> cells(static_cast<size_t>(columns));
  double sum = 0;
  for (int32_t row = 0; row < rows; ++row) {
    for (int32_t column = 0; column < columns; ++column) {
      cells[static_cast<size_t>(column)] = sumCell(one, other, plane, column, row);
    }
    for (size_t right = 1; row > 0 && right < cells.size(); ++right) {
      sum += similarity(above[right - 1] + above[right] + cells[right - 1] + cells[right]);
    }
    std::swap(above, cells);
  }
  return sum / (static_cast<double>(columns - 1) * (rows - 1));
}

}  // namespace

double structuralSimilarity(const Picture& one, const Picture& other) {
  double sum = 0;
  double samples = 0;
  for (int32_t plane = 0; plane < 3; ++plane) {
    const double weight = static_cast<double>(planeWidth(one, plane)) * planeHeight(one, plane);
    sum += weight * planeSimilarity(one, other, plane);
    samples += weight;
  }
  return sum / samples;
}

}  // namespace qora::tools
