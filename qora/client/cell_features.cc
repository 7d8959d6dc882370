// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/cell_features.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qora::client {
namespace {

constexpr int32_t kLumaSize = 16;
constexpr int32_t kChromaSize = 8;

// As the encoder rounds it.
uint32_t energyOf(uint32_t sum, uint32_t squares, uint32_t size) {
  return squares - static_cast<uint32_t>(uint64_t{sum} * sum / (size * size));
}

const uint8_t* cellStart(const Picture& picture, int32_t plane, int32_t column, int32_t row) {
  const int32_t size = plane == 0 ? kLumaSize : kChromaSize;
  return picture.plane[plane] + static_cast<ptrdiff_t>(row) * size * picture.stride[plane] +
         static_cast<ptrdiff_t>(column) * size;
}

uint32_t planeEnergy(const Picture& picture, int32_t plane, int32_t column, int32_t row) {
  const int32_t size = plane == 0 ? kLumaSize : kChromaSize;
  const int32_t right = planeWidth(picture, plane) - column * size - 1;
  const int32_t bottom = planeHeight(picture, plane) - row * size - 1;
  const uint8_t* start = cellStart(picture, plane, column, row);
  uint32_t sum = 0;
  uint32_t squares = 0;
  for (int32_t y = 0; y < size; ++y) {
    const uint8_t* line =
        start + static_cast<ptrdiff_t>(std::min(y, bottom)) * picture.stride[plane];
    for (int32_t x = 0; x < size; ++x) {
      const uint32_t pixel = line[std::min(x, right)];
      sum += pixel;
      squares += pixel * pixel;
    }
  }
  return energyOf(sum, squares, static_cast<uint32_t>(size));
}

#if defined(__SSE2__)

__m128i loadPixels(const uint8_t* at) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
}
// Eight pixels of each plane side by side.
__m128i loadChroma(const uint8_t* u, const uint8_t* v) {
  return _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(u)),
                            _mm_loadl_epi64(reinterpret_cast<const __m128i*>(v)));
}
__m128i addSquares(__m128i squares, __m128i sixteenBit) {
  return _mm_add_epi32(squares, _mm_madd_epi16(sixteenBit, sixteenBit));
}
uint32_t sumOfHalves(__m128i sums) {
  return static_cast<uint32_t>(_mm_cvtsi128_si32(sums)) +
         static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_srli_si128(sums, 8)));
}
uint32_t sumOfQuarters(__m128i sums) {
  return sumOfHalves(_mm_add_epi32(sums, _mm_srli_epi64(sums, 32)));
}

// A cell wholly inside the picture.
CellSums wideSums(const Picture& picture, int32_t column, int32_t row) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i lastByte = _mm_slli_si128(_mm_set1_epi8(-1), 15);
  __m128i differences = zero;
  __m128i sum = zero;
  __m128i squares = zero;
  const uint8_t* line = cellStart(picture, 0, column, row);
  __m128i above = loadPixels(line);
  for (int32_t y = 0; y < kLumaSize; ++y, line += picture.stride[0]) {
    const __m128i pixels = loadPixels(line);
    // One to the left; the last stays itself.
    const __m128i next = _mm_or_si128(_mm_srli_si128(pixels, 1), _mm_and_si128(pixels, lastByte));
    differences = _mm_add_epi64(differences, _mm_sad_epu8(pixels, next));
    differences = _mm_add_epi64(differences, _mm_sad_epu8(pixels, above));
    sum = _mm_add_epi64(sum, _mm_sad_epu8(pixels, zero));
    squares = addSquares(squares, _mm_unpacklo_epi8(pixels, zero));
    squares = addSquares(squares, _mm_unpackhi_epi8(pixels, zero));
    above = pixels;
  }
  const uint32_t luma = energyOf(sumOfHalves(sum), sumOfQuarters(squares), kLumaSize);

  const uint8_t* u = cellStart(picture, 1, column, row);
  const uint8_t* v = cellStart(picture, 2, column, row);
  __m128i sums = zero;
  __m128i squaresOfU = zero;
  __m128i squaresOfV = zero;
  for (int32_t y = 0; y < kChromaSize; ++y, u += picture.stride[1], v += picture.stride[2]) {
    const __m128i pixels = loadChroma(u, v);
    sums = _mm_add_epi64(sums, _mm_sad_epu8(pixels, zero));
    squaresOfU = addSquares(squaresOfU, _mm_unpacklo_epi8(pixels, zero));
    squaresOfV = addSquares(squaresOfV, _mm_unpackhi_epi8(pixels, zero));
  }
  const auto sumOfU = static_cast<uint32_t>(_mm_cvtsi128_si32(sums));
  const auto sumOfV = static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_srli_si128(sums, 8)));
  return {sumOfHalves(differences), luma +
                                        energyOf(sumOfU, sumOfQuarters(squaresOfU), kChromaSize) +
                                        energyOf(sumOfV, sumOfQuarters(squaresOfV), kChromaSize)};
}

bool isInside(const Picture& picture, int32_t column, int32_t row) {
  return (column + 1) * kLumaSize <= picture.width && (row + 1) * kLumaSize <= picture.height;
}

#endif

}  // namespace

CellSums cellSumsPlain(const Picture& picture, int32_t column, int32_t row) {
  CellSums sums = {};
  for (int32_t plane = 0; plane < 3; ++plane) {
    sums.energy += planeEnergy(picture, plane, column, row);
  }
  const int32_t right = std::min(kLumaSize, picture.width - column * kLumaSize) - 1;
  const int32_t bottom = std::min(kLumaSize, picture.height - row * kLumaSize) - 1;
  const ptrdiff_t stride = picture.stride[0];
  for (int32_t y = 0; y < kLumaSize; ++y) {
    const uint8_t* line = cellStart(picture, 0, column, row) + std::min(y, bottom) * stride;
    const ptrdiff_t down = y < bottom ? stride : 0;
    for (int32_t x = 0; x < kLumaSize; ++x) {
      const uint8_t* pixel = line + std::min(x, right);
      const int32_t across = *pixel - line[std::min(x + 1, right)];
      sums.differences += static_cast<uint32_t>(std::abs(across) + std::abs(*pixel - pixel[down]));
    }
  }
  return sums;
}

CellSums cellSums(const Picture& picture, int32_t column, int32_t row) {
#if defined(__SSE2__)
  if (isInside(picture, column, row)) return wideSums(picture, column, row);
#endif
  return cellSumsPlain(picture, column, row);
}

CellFeatures cellFeatures(const Picture& picture, int32_t column, int32_t row) {
  const CellSums sums = cellSums(picture, column, row);
  const float texture = 12.0F * std::log2(static_cast<float>(std::max(sums.differences, 1U)));
  const float term = 2.08F * (std::log2(static_cast<float>(std::max(sums.energy, 1U))) - 14.43F);
  return {static_cast<uint8_t>(texture + 0.5F), static_cast<int8_t>(std::lround(term))};
}

}  // namespace qora::client
